#pragma once

// Byte buffers against a budget. A request that would exceed it pauses the tracker, and the pause ends only
// when so much has been returned that usage is down to a lower level: a producer that outruns its consumer
// does not flap between being served and being refused.
//
//     bool justPaused = false;
//     if (char* const buffer = tracker.allocate(length, justPaused))
//     tracker.free(buffer, length);
//
// Any thread may call. Lengths are in bytes. Buffers come from MemShield and belong to the caller.

#include "datapath/common/infra/DynamicTweaks.h"
#include "datapath/common/infra/Mutex.h"

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
    [[nodiscard]] char* allocate(std::uint32_t length, bool& justPaused) EXCLUDES(m_mutex);

    /// Served whatever the budget, and counted. Null only for a length of 0.
    [[nodiscard]] char* allocateIgnoringLimit(std::uint32_t length) EXCLUDES(m_mutex);

    /// Returns a buffer with the length that it was allocated with. More than what is counted ends the process.
    void free(char* buffer, std::uint32_t length) EXCLUDES(m_mutex);

    /// Whether the owner should allocate without the limit.
    [[nodiscard]] bool isTrackingDisabled() const { return m_trackingDisabled; }

private:
    static char* newBuffer(std::uint32_t length);

    std::uint32_t m_usedBytes GUARDED_BY(m_mutex) = 0;
    // Guards what is counted. Nothing is taken inside it: a misuse of memory is reported through log clients,
    // and those may use this tracker.
    Mutex m_mutex;
    bool m_paused GUARDED_BY(m_mutex) = false;
    const std::uint32_t m_maxBytes;
    const std::uint32_t m_resumeBytes;
    const DynamicTweak<bool>& m_trackingDisabled;
    const std::string m_name;
};
