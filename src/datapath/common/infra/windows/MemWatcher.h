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

    /// Logs the machine's CPU usage, then the threads that used most of it since the last call. Waits while another
    /// thread does it. Does nothing when what the thread logs for such a report leads here again.
    void printCpu() EXCLUDES(m_mutex, m_reportMutex);

    /// For a thread that never goes on: lets others report, if a log client is called by it during its own report.
    void endReportForGood() EXCLUDES(m_reportMutex);

    /// Logs the memory counters of the process.
    static void printMem();

private:
    MemWatcher() = default;
    [[nodiscard]] std::string threadUsages(std::int64_t totalTicks) EXCLUDES(m_mutex);

    Mutex m_mutex; // guards the table; the Logger's table of names is read inside it, and nothing logged
    StlMemShiledContainer<std::map<std::int32_t, ThreadInfo>> m_threads GUARDED_BY(m_mutex){"MemWatcherThreads"};

    OwnedMutex m_reportMutex; // of the one CPU report that runs; m_mutex and what log clients take are taken inside it
    std::int64_t m_lastCpuReportMs GUARDED_BY(m_reportMutex) = 0; // on the clock's relative time
    CpuUsageMonitor m_cpuMonitor GUARDED_BY(m_reportMutex);
};
