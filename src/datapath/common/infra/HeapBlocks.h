#pragma once

// Small blocks of the system heap that go round between threads: a worker gives the memory of executed actions to the
// producers of the next ones. If each block went back to the system heap, it would return to the part of the heap that
// belongs to the thread which took it. The heap links such blocks with pointers inside them, so a producer would wait
// for a cache line of the worker's processor with each block that it takes. Here blocks travel in magazines, lists of
// pointers that nobody follows, and the blocks themselves are prefetched.
//
//     released blocks of a thread --full magazine--> Depot --full magazine--> supply of another thread
//
// Nothing here logs. All blocks come from operator new; one of bytes <= MAX_BYTES has capacityOf(bytes) bytes. Whoever
// releases a block must not use it any more. With a sanitizer nothing is recycled, so that such use is found, and
// neither where schedules are simulated, so that each schedule starts alike.
// Source of the idea: Bonwick and Adams, "Magazines and Vmem", USENIX 2001.

#include "datapath/common/infra/Mutex.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <new>

namespace HeapBlocks
{

/// Whether released blocks go round. The library decides, and not each file that includes this header: they might be
/// compiled with different sanitizers.
extern const bool areRecycled;

inline constexpr std::size_t NUM_KINDS = 4; // sizes that are recycled
inline constexpr std::size_t STEP = 64;     // bytes from one of them to the next: a cache line
inline constexpr std::size_t OVERHEAD = 8;  // bytes that the heap keeps with each block; they share its cache lines
inline constexpr std::size_t MAX_BYTES = NUM_KINDS * STEP - OVERHEAD;

/// The kind of a block for that many bytes.
[[nodiscard]] constexpr std::size_t kindOf(std::size_t bytes) { return (bytes + OVERHEAD - 1) / STEP; }

/// What a block of the same kind holds, in bytes.
[[nodiscard]] constexpr std::size_t capacityOf(std::size_t bytes) { return (kindOf(bytes) + 1) * STEP - OVERHEAD; }

/// Blocks of one kind. Not for several threads at once.
class Magazine
{
public:
    [[nodiscard]] bool isEmpty() const noexcept { return m_numBlocks == 0; }
    [[nodiscard]] bool isFull() const noexcept { return m_numBlocks == m_blocks.size(); }

    /// Only while it is not full.
    void add(void* block) noexcept { m_blocks[m_numBlocks++] = block; }

    /// Only while it is not empty. Prefetches a block that comes some calls later.
    [[nodiscard]] void* take() noexcept
    {
        constexpr std::size_t AHEAD = 4; // calls
        void* const block = m_blocks[--m_numBlocks];
        if (m_numBlocks >= AHEAD)
        {
            __builtin_prefetch(m_blocks[m_numBlocks - AHEAD], 1);
        }
        return block;
    }

    /// Gives all blocks back to the system heap.
    void release() noexcept
    {
        while (!isEmpty())
        {
            ::operator delete(m_blocks[--m_numBlocks]);
        }
    }

private:
    std::array<void*, 64> m_blocks{};
    std::size_t m_numBlocks = 0; // the first ones
};

/// Full magazines of one kind on their way between threads. Any thread may call, also after main.
class Depot
{
public:
    /// Takes the blocks over and empties the magazine. Returns false if there is no room.
    [[nodiscard]] bool give(Magazine& magazine) noexcept TAVRO_EXCLUDES(m_mutex);

    /// Only with an empty magazine. Returns whether it is full now.
    [[nodiscard]] bool fill(Magazine& magazine) noexcept TAVRO_EXCLUDES(m_mutex);

private:
    StaticMutex m_mutex;
    std::array<Magazine, 16> m_magazines TAVRO_GUARDED_BY(m_mutex){};
    std::atomic<std::size_t> m_numMagazines = 0; // the first ones; written under the lock
};

using Depots = std::array<Depot, NUM_KINDS>;
extern constinit Depots depots; // the process's

/// The blocks that one thread has released and will use next. Not for several threads at once.
class ThreadBlocks
{
public:
    /// A block for that many bytes, at most MAX_BYTES. Throws std::bad_alloc.
    [[nodiscard]] void* take(std::size_t bytes)
    {
        Kind& kind = m_kinds[kindOf(bytes)];
        if (!kind.released.isEmpty())
        {
            return kind.released.take();
        }
        if (kind.supply.isEmpty() && !depots[kindOf(bytes)].fill(kind.supply)) [[unlikely]]
        {
            return ::operator new(capacityOf(bytes));
        }
        return kind.supply.take();
    }

    /// Takes over a block that was allocated for that many bytes, at most MAX_BYTES.
    void release(void* block, std::size_t bytes) noexcept
    {
        Kind& kind = m_kinds[kindOf(bytes)];
        if (kind.released.isFull()) [[unlikely]]
        {
            makeRoom(kind, depots[kindOf(bytes)]);
        }
        kind.released.add(block);
    }

private:
    /// Two magazines, so that a thread which takes and releases in turns seldom needs the depot.
    struct Kind
    {
        Magazine released; // used first: its blocks are in the cache
        Magazine supply;
    };

    static void makeRoom(Kind& kind, Depot& depot) noexcept;

    std::array<Kind, NUM_KINDS> m_kinds{};
};

} // namespace HeapBlocks
