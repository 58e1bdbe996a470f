#pragma once

// How many bytes the guarded allocator holds from the system heap, in both of its modes.
//
// Each thread counts in a share of its own, so that counting costs no more with many threads than with one;
// reading sums the shares. A sum that is read while other threads count may be a little more than there was at any
// single moment; it is never negative. Any thread may call.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace SystemHeapBytesInternal
{

/// The counts of one thread, on a cache line of their own. No thread acts upon another one's counts, so the order of
/// threads does not matter here: these are no platform::Atomic, and so no switch points of simulated schedules.
struct alignas(64) Share
{
    std::atomic<std::uint64_t> taken = 0;
    std::atomic<std::uint64_t> returned = 0; // including bytes that other threads took
    std::atomic<bool> isOwned = false;
};

} // namespace SystemHeapBytesInternal

class SystemHeapBytes
{
public:
    static void take(std::uint64_t bytes) noexcept { add(&Share::taken, bytes); }
    static void giveBack(std::uint64_t bytes) noexcept { add(&Share::returned, bytes); }

    [[nodiscard]] static std::uint64_t read() noexcept;

    /// Whether the calling thread has counted something already.
    [[nodiscard]] static bool isCounting() noexcept { return s_share != nullptr; }

    /// Leaves the calling thread's share to the next thread. Called by threads that end; the share of a thread that
    /// ends without it is lost.
    static void leaveShare() noexcept;

private:
    using Share = SystemHeapBytesInternal::Share;

    static void add(std::atomic<std::uint64_t> Share::*member, std::uint64_t bytes) noexcept
    {
        if (s_share == nullptr) [[unlikely]]
        {
            claimShare();
        }
        std::atomic<std::uint64_t>& count = s_share->*member;
        if (s_share == &s_commonShare) [[unlikely]]
        {
            count.fetch_add(bytes, std::memory_order_release);
            return;
        }
        // No other thread writes the share, so this is no read-modify-write: two of them, for an allocation and its
        // release, would take 8 ns, which is as long as both take together. The release makes sure that whoever reads
        // what was returned also reads that it was taken.
        count.store(count.load(std::memory_order_relaxed) + bytes, std::memory_order_release);
    }

    /// Gives the calling thread a share, or the common one if all are owned.
    static void claimShare() noexcept;

    static constinit inline std::array<Share, 256> s_shares{};
    static constinit inline Share s_commonShare{};
    static constinit inline thread_local Share* s_share = nullptr; // of the calling thread
};
