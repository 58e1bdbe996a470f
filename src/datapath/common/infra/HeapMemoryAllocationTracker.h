#pragma once

// A byte budget, and byte buffers against it. A request that would exceed it pauses the tracker, and the pause ends
// only when so much has been returned that usage is down to a lower level: a producer that outruns its consumer
// does not flap between being served and being refused.
//
//     bool justPaused = false;
//     if (char* const buffer = tracker.allocate(length, justPaused))
//     tracker.free(buffer, length);
//
// Owners that have memory of their own reserve bytes without a buffer. Any thread may call, without a lock. Lengths
// are in bytes. Buffers come from MemShield and belong to the caller; std::bad_alloc leaves nothing counted.

#include "datapath/common/infra/DynamicTweaks.h"
#include "platform/Atomic.h"

#include <cstdint>
#include <string>

class HeapMemoryAllocationTracker
{
public:
    /// Served up to maxBytes; after a refusal, again once usage is at or below resumeBytes. The flag must live
    /// as long as the tracker; the name is for messages.
    HeapMemoryAllocationTracker(std::uint32_t maxBytes, std::uint32_t resumeBytes,
                                const DynamicTweak<bool>& trackingDisabled, std::string name);

    /// Null when refused, and for a length of 0. Sets justPaused to whether this request began the pause.
    [[nodiscard]] char* allocate(std::uint32_t length, bool& justPaused);

    /// Served whatever the budget, and counted. Null only for a length of 0.
    [[nodiscard]] char* allocateIgnoringLimit(std::uint32_t length);

    /// Returns a buffer with the length that it was allocated with. More than what is counted ends the process.
    void free(const char* buffer, std::uint32_t length);

    /// The same without a buffer.
    [[nodiscard]] bool reserve(std::uint32_t length, bool& justPaused);
    void reserveIgnoringLimit(std::uint32_t length);
    void free(std::uint32_t length);

    /// Whether the owner should allocate without the limit.
    [[nodiscard]] bool isTrackingDisabled() const { return m_trackingDisabled; }

private:
    struct alignas(sizeof(std::uint64_t)) Usage
    {
        std::uint32_t bytes = 0;
        std::uint32_t isPaused = 0; // as wide as the bytes: no padding takes part in comparisons
    };

    char* newBuffer(std::uint32_t length);

    platform::Atomic<Usage> m_usage;
    const std::uint32_t m_maxBytes;
    const std::uint32_t m_resumeBytes;
    const DynamicTweak<bool>& m_trackingDisabled;
    const std::string m_name;
};
