#pragma once

// The segments that together hold the bytes of one request, in the order in which they came. The requester owns the
// buffer; while the request waits, the pool appends segments under its lock. The segments' memory is not owned: the
// requester gives it back to the allocator that it came from.
//
//     ScatteredBuf buffer;
//     const RcStatus status = pool.requestMemory(module, 200'000, buffer, traceId).get(); // waits
//     pool.freeSegments(buffer.getSegments(), 0);

#include "datapath/common/infra/MemoryAllocatorInterface.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <utility>

class ScatteredBuf
{
public:
    ScatteredBuf() = default;
    ScatteredBuf(const ScatteredBuf&) = delete;
    ScatteredBuf& operator=(const ScatteredBuf&) = delete;
    ScatteredBuf(ScatteredBuf&&) = default;
    ScatteredBuf& operator=(ScatteredBuf&&) = default;
    ~ScatteredBuf() = default;

    void append(const MemorySegment& segment)
    {
        std::list<MemorySegment> made{segment};
        appendFirst(made);
    }

    /// Moves the first segment of the given list to the end of this one. Takes no memory.
    void appendFirst(std::list<MemorySegment>& made)
    {
        const MemorySegment& segment = made.front();
        if (m_segments.empty()) // also after others were taken out through getSegments
        {
            m_totalBytes = 0;
            m_firstSize = segment.sizeBytes;
            m_isUniform = true;
            m_owner = segment.owner;
        }
        else
        {
            m_isUniform = m_isUniform && m_segments.back().sizeBytes == m_firstSize && segment.sizeBytes <= m_firstSize;
            m_owner = m_owner == segment.owner ? m_owner : MemorySegment::NoOwner;
        }
        m_totalBytes += segment.sizeBytes;
        m_segments.splice(m_segments.end(), made, made.begin());
    }

    /// Forgets the segments, whose memory must have been given back.
    void clear() { *this = ScatteredBuf(); }

    /// Forgets that many of the last segments.
    void removeLast(std::size_t count)
    {
        std::list<MemorySegment> kept = std::move(m_segments);
        kept.resize(kept.size() - count);
        clear();
        while (!kept.empty())
        {
            appendFirst(kept);
        }
    }

    [[nodiscard]] std::list<MemorySegment>& getSegments() { return m_segments; }
    [[nodiscard]] const std::list<MemorySegment>& getSegments() const { return m_segments; }

    [[nodiscard]] std::uint64_t totalBytes() const { return m_totalBytes; }
    [[nodiscard]] std::uint64_t firstSegmentSize() const { return m_firstSize; }

    /// Whether all segments but the last have the first one's size, and the last is no larger.
    [[nodiscard]] bool isUniform() const { return m_isUniform; }

    /// The owner of all segments; MemorySegment::NoOwner if they have several, null if there are no segments.
    [[nodiscard]] ModuleMemoryInformation* owner() const { return m_owner; }

private:
    std::list<MemorySegment> m_segments;
    std::uint64_t m_totalBytes = 0;
    std::uint64_t m_firstSize = 0;
    bool m_isUniform = true;
    ModuleMemoryInformation* m_owner = nullptr;
};
