#pragma once

// Counts the bytes that the guarded allocator has taken from the system heap, in both of its modes, and keeps each
// thread's small blocks that wait for their next use.
//
// Each thread counts in a share of its own, so that counting costs no more with many threads than with one; reading
// adds up the shares. A sum that is read while other threads count may be a little above the figure of any single
// moment; it is never negative. Any thread may call.

#include "datapath/common/infra/HeapBlocks.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace SystemHeapBytesInternal
{

/// The counts of one thread, on a cache line of their own. What a thread does never depends on the counts of another,
/// so these are std::atomic and not platform::Atomic, which would make each access a switch point of simulated
/// schedules.
struct alignas(64) Share
{
    std::atomic<std::uint64_t> taken = 0;
    std::atomic<std::uint64_t> returned = 0; // includes bytes that other threads took
    std::atomic<bool> isOwned = false;
    HeapBlocks::ThreadBlocks blocks; // used by the owner; the next owner of the share gets what is left
};

} // namespace SystemHeapBytesInternal

class SystemHeapBytes
{
public:
    static void take(std::uint64_t bytes) noexcept { add(&Share::taken, bytes); }
    static void giveBack(std::uint64_t bytes) noexcept { add(&Share::returned, bytes); }

    [[nodiscard]] static std::uint64_t read() noexcept;

    /// A block of the system heap for that many bytes, which count from the call of take on. Throws std::bad_alloc.
    [[nodiscard]] static void* allocate(std::size_t bytes)
    {
        if (!isRecycled(bytes))
        {
            return ::operator new(bytes);
        }
        return ownsShare() ? s_share->blocks.take(bytes) : ::operator new(HeapBlocks::capacityOf(bytes));
    }

    /// Releases a block that allocate has returned for that many bytes.
    static void release(void* block, std::size_t bytes) noexcept
    {
        if (isRecycled(bytes) && ownsShare())
        {
            s_share->blocks.release(block, bytes);
            return;
        }
        ::operator delete(block);
    }

    /// Whether the calling thread has a share, so has counted before.
    [[nodiscard]] static bool isCounting() noexcept { return s_share != nullptr; }

    /// Leaves the calling thread's share to the next new thread. A thread calls it before it ends; otherwise no other
    /// thread can use that share.
    static void leaveShare() noexcept;

private:
    using Share = SystemHeapBytesInternal::Share;

    static bool isRecycled(std::size_t bytes) noexcept
    {
        return bytes <= HeapBlocks::MAX_BYTES && HeapBlocks::areRecycled;
    }
    static bool ownsShare() noexcept { return s_share != nullptr && s_share != &s_commonShare; }

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
        // No other thread writes this share, so a load and a store are enough; atomic additions would take as long
        // again as an allocation with its release, 8 ns. The release order makes a reader that sees returned bytes see
        // that they were taken.
        count.store(count.load(std::memory_order_relaxed) + bytes, std::memory_order_release);
    }

    /// Gives the calling thread a share of its own, or the common one if there is none left.
    static void claimShare() noexcept;

    // Defined in the source, not here: an inline variable of zeros takes its place in the program's file on Windows.
    static constinit std::array<Share, 256> s_shares;
    static constinit Share s_commonShare;
    static constinit inline thread_local Share* s_share = nullptr; // the calling thread's; null before it counts
};
