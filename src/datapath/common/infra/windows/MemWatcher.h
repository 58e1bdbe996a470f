#pragma once

// The registry of the program's worker threads, and two reports: the memory of the process, and each thread's share
// of the CPU since the last such report.
//
//     MemWatcher::printMem();
//     MemWatcher::instance().printCpu();
//
// Made on first use and never destroyed. Any thread may call. ThreadWrapper adds and removes the threads it runs.

#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/MemWatcherBase.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/windows/CpuUsageMonitor.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>

class MemWatcher
{
public:
    using Visitor = std::function<void(std::uint32_t threadId, std::uint64_t tag)>;

    [[nodiscard]] static MemWatcher& instance();

    /// A thread that is there already stays as it is.
    void AddThread(std::uint32_t threadId) EXCLUDES(m_mutex);

    /// Removes the calling thread, if it is there.
    void removeThread() EXCLUDES(m_mutex);

    /// Calls the visitor for every thread that is there at this moment, in the order of the ids.
    void iterateThreads(const Visitor& visitor) EXCLUDES(m_mutex);

    /// Logs the machine's CPU usage, then the threads that used most of it since the last call. Does nothing while
    /// another thread does it, or when what it logs leads to a report itself.
    void printCpu() EXCLUDES(m_mutex);

    /// Logs the memory counters of the process.
    static void printMem();

private:
    MemWatcher() = default;
    [[nodiscard]] std::string threadUsages(std::int64_t totalTicks) EXCLUDES(m_mutex);

    Mutex m_mutex; // guards the table; the Logger's table of names is read inside it, and nothing logged
    StlMemShiledContainer<std::map<std::int32_t, ThreadInfo>> m_threads GUARDED_BY(m_mutex){"MemWatcherThreads"};

    // Of the one CPU report that runs.
    std::atomic<bool> m_isReporting = false;
    std::int64_t m_lastCpuReportMs = 0; // on the clock's relative time
    CpuUsageMonitor m_cpuMonitor;
};
