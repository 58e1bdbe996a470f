#pragma once

// What the memory pool and the memory heap have in common, so that the holder of a segment can give it back without
// knowing where it came from. Any thread may call. Sizes are in bytes.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>

class ModuleMemoryInformation;

/// A piece of memory that a module uses.
class MemorySegment
{
public:
    /// Stands for the owner of a buffer whose segments have several owners.
    static inline ModuleMemoryInformation* const NoOwner =
        reinterpret_cast<ModuleMemoryInformation*>(~std::uintptr_t{});

    [[nodiscard]] std::uint64_t getSizeBytes() const { return sizeBytes; }

    std::uint64_t sizeBytes = 0;              ///< the bytes that were asked for; from a pool at most a chunk
    char* buffer = nullptr;                   ///< null after the segment was given back
    ModuleMemoryInformation* owner = nullptr; ///< null: none, so a pool releases the buffer as an array of MemShield
};

class MemoryAllocatorInterface
{
public:
    MemoryAllocatorInterface() = default;
    MemoryAllocatorInterface(const MemoryAllocatorInterface&) = delete;
    MemoryAllocatorInterface& operator=(const MemoryAllocatorInterface&) = delete;
    virtual ~MemoryAllocatorInterface() = default;

    /// Gives back the segments from that position to the end of the list, and sets their buffers to null. Does nothing
    /// if there is no such position. A segment that was given back already, or that belongs to another allocator, ends
    /// the process.
    virtual void freeSegments(std::list<MemorySegment>& segments, std::int32_t fromIndex) = 0;
    virtual void freeSegment(MemorySegment& segment) = 0;

    /// Adds to the figure of the bytes that were asked for; may be negative.
    virtual void addUsedMemoryNet(std::int32_t bytes) = 0;

    [[nodiscard]] virtual std::uint32_t getChunkSize() const = 0;

protected:
    [[nodiscard]] static std::list<MemorySegment>::iterator positionOf(std::list<MemorySegment>& segments,
                                                                       std::int32_t index)
    {
        const bool isInside = index >= 0 && static_cast<std::size_t>(index) < segments.size();
        return isInside ? std::next(segments.begin(), index) : segments.end();
    }
};
