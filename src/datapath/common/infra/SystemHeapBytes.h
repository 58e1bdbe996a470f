#pragma once

// How many bytes the guarded allocator holds from the system heap, in both of its modes.
//
// Each thread counts in a share of its own, so that counting costs no more with many threads than with one;
// reading sums the shares. What is read while others count may be a little more than there is at any single
// moment, never less than nothing. Any thread may call.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace SystemHeapBytesInternal
{

/// Of one thread, on a cache line of its own. No thread acts upon what others count or own, so that nothing here is a
/// place where the order of threads matters: these are no platform::Atomic.
struct alignas(64) Share
{
    std::atomic<std::uint64_t> taken = 0;
    std::atomic<std::uint64_t> returned = 0; // also of what other threads have taken
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

    /// Leaves the calling thread's share to the next thread. For threads that end; one that does not call this
    /// keeps its share for good.
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
        // Nobody else writes it: no read-modify-write is needed. Released: whoever reads what was returned
        // also reads that it was taken.
        count.store(count.load(std::memory_order_relaxed) + bytes, std::memory_order_release);
    }

    /// The common one when more threads count than there are shares.
    static void claimShare() noexcept;

    static constinit inline std::array<Share, 256> s_shares{};
    static constinit inline Share s_commonShare{};
    static constinit inline thread_local Share* s_share = nullptr; // of the calling thread
};
