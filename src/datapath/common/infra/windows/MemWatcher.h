#pragma once

// The registry of the program's worker threads, and two reports: the memory of the process, and each thread's share of
// the CPU time since the last such report.
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

    /// Registers a thread. One that is registered already stays as it is.
    void AddThread(std::uint32_t threadId) TAVRO_EXCLUDES(m_mutex);

    /// Removes the calling thread, if it is registered.
    void removeThread() TAVRO_EXCLUDES(m_mutex);

    /// Calls the visitor, without a lock, for each thread that was registered when the call began, in the order of the
    /// ids.
    void iterateThreads(const Visitor& visitor) TAVRO_EXCLUDES(m_mutex);

    /// Logs the machine's CPU usage, then the threads that used at least 1 percent since the last call, the busiest
    /// first. Waits while another thread reports. Does nothing if a log client calls it from a line of such a report.
    void printCpu() TAVRO_EXCLUDES(m_mutex, m_reportMutex);

    /// For a thread that stops forever during its report: releases the report's lock, so that others can report.
    void endReportForGood() TAVRO_EXCLUDES(m_reportMutex);

    /// Logs the memory counters of the process.
    static void printMem();

private:
    MemWatcher() = default;
    [[nodiscard]] std::string threadUsages(std::int64_t totalTicks) TAVRO_EXCLUDES(m_mutex);

    Mutex m_mutex; // guards the table; the Logger's lock of names is taken inside it, and no line is logged
    StlMemShiledContainer<std::map<std::int32_t, ThreadInfo>> m_threads TAVRO_GUARDED_BY(m_mutex){"MemWatcherThreads"};

    OwnedMutex m_reportMutex; // held during a CPU report; m_mutex and the locks of log clients are taken inside it
    std::int64_t m_lastCpuReportMs TAVRO_GUARDED_BY(m_reportMutex) = 0; // Clock::relativeMs
    CpuUsageMonitor m_cpuMonitor TAVRO_GUARDED_BY(m_reportMutex);
};
