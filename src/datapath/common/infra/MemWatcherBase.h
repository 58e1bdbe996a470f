#pragma once

// The user time of one thread from report to report, for the MemWatcher that owns it. The owner locks.

#include "datapath/common/infra/GuardedPtr.h"

#include <cstdint>

class ThreadCpuUsageMonitor
{
public:
    explicit ThreadCpuUsageMonitor(std::uint32_t threadId);

    /// The thread's user time since the last call, in 100-ns units; 0 for the first call, and for a thread that cannot
    /// be looked at: failure, null otherwise, tells why. Kernel time is not counted.
    [[nodiscard]] std::int64_t update(const char*& failure);

    /// Logs a failure of update, when no lock is held any more.
    static void logFailure(const char* failure);

private:
    static constexpr std::int64_t NONE = -1;

    const std::uint32_t m_threadId;
    std::int64_t m_lastUserTime = NONE; // in 100-ns units
};

/// What the MemWatcher knows of a thread.
struct ThreadInfo
{
    GuardedPtr<ThreadCpuUsageMonitor> monitor;
    std::uint64_t tag = 0; ///< handed to visitors
};

/// Makes the record of a thread that is not in the table yet. It takes memory of the guarded allocator, so no lock may
/// be held.
[[nodiscard]] ThreadInfo makeThreadInfo(std::uint32_t threadId);
