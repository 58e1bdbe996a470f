#pragma once

// A byte budget, and byte buffers that count against it. A request that would exceed the budget pauses the tracker,
// which then refuses every request until usage has fallen to a lower level. So a producer that outruns its consumer is
// not granted and refused in turns.
//
//     if (char* const buffer = tracker.allocate(length).buffer) ...
//     tracker.free(buffer, length);
//
// An owner with memory of its own reserves bytes without a buffer. Any thread may call; no operation takes a lock.
// Lengths are in bytes. Buffers come from MemShield and belong to the caller. If that throws std::bad_alloc, nothing is
// counted.

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
        BeganPause, ///< refused, and the tracker has paused
        Refused     ///< refused during a pause
    };

    /// What a request for a buffer returns.
    struct Allocation
    {
        char* buffer; ///< null when refused, and for a length of 0
        Answer answer;
    };

    /// Requests are granted up to maxBytes. A pause ends with the first free that leaves usage at or below resumeBytes,
    /// so one that began while nothing was in use lasts until something has been reserved without the limit and freed.
    /// trackingDisabled must outlive the tracker; the name is for messages.
    HeapMemoryAllocationTracker(std::uint32_t maxBytes, std::uint32_t resumeBytes,
                                const DynamicTweak<bool>& trackingDisabled, std::string name);

    [[nodiscard]] Allocation allocate(std::uint32_t length);

    /// Is granted whatever is in use, also during a pause. Null only for a length of 0.
    [[nodiscard]] char* allocateIgnoringLimit(std::uint32_t length);

    /// Takes back a buffer, with the length that it was allocated with. Freeing more bytes than are counted ends the
    /// process.
    void free(const char* buffer, std::uint32_t length);

    /// The same three calls without a buffer.
    [[nodiscard]] Answer reserve(std::uint32_t length);
    void reserveIgnoringLimit(std::uint32_t length);
    void free(std::uint32_t length);

    /// Whether the owner should allocate without the limit.
    [[nodiscard]] bool isTrackingDisabled() const { return m_trackingDisabled; }

private:
    struct alignas(sizeof(std::uint64_t)) Usage
    {
        std::uint32_t bytes = 0;
        std::uint32_t isPaused = 0; // 32 bits, so that there is no padding in comparisons
    };

    [[nodiscard]] char* newBuffer(std::uint32_t length);

    platform::Atomic<Usage> m_usage;
    const std::uint32_t m_maxBytes;
    const std::uint32_t m_resumeBytes;
    const DynamicTweak<bool>& m_trackingDisabled;
    const std::string m_name;
};
