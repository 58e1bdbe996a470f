#pragma once

// What the memory pool and the memory heap have in common: whoever holds a segment can give it back without knowing
// where it came from. Any thread may call. Sizes are in bytes.

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

    std::uint64_t sizeBytes = 0; ///< that were asked for, at most a chunk of a pool
    char* buffer = nullptr;      ///< null when the segment has been given back
    ModuleMemoryInformation* owner = nullptr;
};

class MemoryAllocatorInterface
{
public:
    MemoryAllocatorInterface() = default;
    MemoryAllocatorInterface(const MemoryAllocatorInterface&) = delete;
    MemoryAllocatorInterface& operator=(const MemoryAllocatorInterface&) = delete;
    virtual ~MemoryAllocatorInterface() = default;

    /// Gives every segment from that position to the end back; their buffers are null then. Nothing for a position that
    /// is not in the list. Not for segments that were given back already, nor for those of another allocator: that ends
    /// the process.
    virtual void freeSegments(std::list<MemorySegment>& segments, std::int32_t fromIndex) = 0;
    virtual void freeSegment(MemorySegment& segment) = 0;

    /// Adds to the bytes in use as the modules asked for them; may be negative.
    virtual void addUsedMemoryNet(std::int32_t bytes) = 0;

    /// In bytes.
    [[nodiscard]] virtual std::uint32_t getChunkSize() const = 0;

protected:
    [[nodiscard]] static std::list<MemorySegment>::iterator positionOf(std::list<MemorySegment>& segments,
                                                                       std::int32_t index)
    {
        const bool isInside = index >= 0 && static_cast<std::size_t>(index) < segments.size();
        return isInside ? std::next(segments.begin(), index) : segments.end();
    }
};
