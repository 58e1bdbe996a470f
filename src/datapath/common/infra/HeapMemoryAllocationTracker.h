#pragma once

// A byte budget, and byte buffers that count against it. A request that would exceed the budget pauses the tracker. The
// pause ends when so much has been given back that usage is down to a lower level: a producer that outruns its consumer
// is not served and refused in turns.
//
//     if (char* const buffer = tracker.allocate(length).buffer) ...
//     tracker.free(buffer, length);
//
// An owner that has memory of its own reserves bytes without a buffer. Any thread may call; no operation takes a lock.
// Lengths are in bytes. Buffers come from MemShield and belong to the caller; std::bad_alloc leaves nothing counted.

#include "datapath/common/infra/DynamicTweaks.h"
#include "platform/Atomic.h"

#include <cstdint>
#include <string>

class HeapMemoryAllocationTracker
{
public:
    enum class Answer
    {
        Granted,
        BeganPause, ///< refused, and the first one since the last pause
        Refused     ///< refused because of a pause that had begun before
    };

    struct Allocation
    {
        char* buffer; ///< null when refused, and for a length of 0
        Answer answer;
    };

    /// Requests are granted up to maxBytes and, after a refusal, again once usage is at or below resumeBytes. The flag
    /// must live as long as the tracker; the name is for messages.
    HeapMemoryAllocationTracker(std::uint32_t maxBytes, std::uint32_t resumeBytes,
                                const DynamicTweak<bool>& trackingDisabled, std::string name);

    [[nodiscard]] Allocation allocate(std::uint32_t length);

    /// Granted whatever the budget, and counted. Null only for a length of 0.
    [[nodiscard]] char* allocateIgnoringLimit(std::uint32_t length);

    /// Takes a buffer back; the length is the one that it was allocated with. More bytes than are counted end the
    /// process.
    void free(const char* buffer, std::uint32_t length);

    /// The same three without a buffer.
    [[nodiscard]] Answer reserve(std::uint32_t length);
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

    [[nodiscard]] char* newBuffer(std::uint32_t length);

    platform::Atomic<Usage> m_usage;
    const std::uint32_t m_maxBytes;
    const std::uint32_t m_resumeBytes;
    const DynamicTweak<bool>& m_trackingDisabled;
    const std::string m_name;
};
