#pragma once

// Memory that one thread gives back to the system heap, several blocks at a time. A block that another thread has taken
// goes back to that thread's part of the heap, which costs a cache line on its way between two processors; blocks that
// go back together share that.
//
//     HeapBatch released;
//     GuardedMemory::destroy(object, memory, SourcePlace::here(), released);    // for each object
//     released.giveBack();                                                      // before the thread waits
//
// Not for several threads at once. Up to CAPACITY small blocks stay until giveBack or the end of the batch.

#include <array>
#include <cstddef>
#include <new>

class HeapBatch
{
public:
    static constexpr std::size_t CAPACITY = 32;    // blocks
    static constexpr std::size_t MAX_KEPT = 1'024; // bytes of a block that stays

    HeapBatch() = default;
    HeapBatch(const HeapBatch&) = delete;
    HeapBatch& operator=(const HeapBatch&) = delete;
    ~HeapBatch() { giveBack(); }

    /// Takes over a block of operator new that nobody uses any more. A large one goes back at once.
    void add(void* block, std::size_t bytes) noexcept
    {
        if (bytes > MAX_KEPT) [[unlikely]]
        {
            ::operator delete(block);
            return;
        }
        if (m_numBlocks == CAPACITY)
        {
            giveBack();
        }
        m_blocks[m_numBlocks] = block;
        ++m_numBlocks;
    }

    void giveBack() noexcept
    {
        for (; m_numBlocks != 0; --m_numBlocks)
        {
            ::operator delete(m_blocks[m_numBlocks - 1]);
        }
    }

private:
    std::array<void*, CAPACITY> m_blocks{};
    std::size_t m_numBlocks = 0;
};
