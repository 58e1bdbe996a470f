#pragma once

// The user time that one thread has used since the last report. The owner, the MemWatcher, locks.

#include "datapath/common/infra/GuardedPtr.h"

#include <cstdint>

/// Reads how much user time a thread has used since the last reading.
class ThreadCpuUsageMonitor
{
public:
    explicit ThreadCpuUsageMonitor(std::uint32_t threadId);

    /// The thread's user time since the last call, in 100-ns units; 0 for the first call. Kernel time is not counted.
    /// If the time cannot be read, returns 0 and sets failure to the reason, else to null.
    [[nodiscard]] std::int64_t update(const char*& failure);

    /// Logs a failure of update. The caller holds no lock.
    static void logFailure(const char* failure);

private:
    static constexpr std::int64_t NONE = -1;

    const std::uint32_t m_threadId;
    std::int64_t m_lastUserTime = NONE; // in 100-ns units
};

/// The MemWatcher's record of a thread.
struct ThreadInfo
{
    GuardedPtr<ThreadCpuUsageMonitor> monitor;
    std::uint64_t tag = 0; ///< passed to visitors
};

/// Makes a record. Takes memory of the guarded allocator, so the caller holds no lock.
[[nodiscard]] ThreadInfo makeThreadInfo(std::uint32_t threadId);
