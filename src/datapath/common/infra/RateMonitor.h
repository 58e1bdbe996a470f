#pragma once

// Running statistics of a stream of tasks: how many are active at the same time, how long at least one was active and
// how long none was, items and bytes per second, latencies. After enough work one line is logged and a new period
// starts.
//
//     const MutexGuard guard(monitor.m_mutex);
//     monitor.incActiveTasksLocked(1);                                  // a task starts
//     monitor.addItemsLocked(1, length);
//     monitor.taskCompleted(nowUs, nowUs - startUs);                    // a task ends
//
// Times are in µs of the steady clock. The caller holds m_mutex around each call.

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/Mutex.h"

#include <cstdint>
#include <string>

class RateMonitor
{
public:
    /// When a line is logged, and what it covers.
    struct Settings
    {
        // A line is logged when a task ends and the period has at least minTasksForReport completed tasks, and more
        // than minItemsForReport items or more than minBusyUsForReport of busy time.
        std::uint32_t minItemsForReport = 10'000;
        std::uint64_t minBusyUsForReport = 10'000'000;
        std::uint32_t minTasksForReport = 1;
        /// The times in the line are divided by this: 1000 gives ms. 0 ends the process.
        std::uint64_t timeUnit = 1'000;
        /// Whether each line covers the time since the construction; otherwise it covers the time since the last line.
        bool cumulative = false;
        /// The steady clock that the monitor reads. Tests replace it.
        std::int64_t (*timestampUs)() = [] { return static_cast<std::int64_t>(Clock::steadyNs() / 1000); };
    };

    /// The lines begin with the name; a monitor without a name writes none. The first period starts now.
    RateMonitor(std::string name, const Settings& settings);
    RateMonitor(const RateMonitor&) = delete;
    RateMonitor& operator=(const RateMonitor&) = delete;

    /// Ends the process if a task is still active.
    ~RateMonitor();

    /// A task starts (c is 1) or ends (-1). Any other value, or an end without an active task, ends the process.
    void incActiveTasksLocked(std::int32_t c) TAVRO_REQUIRES(m_mutex);

    /// Adds to what the tasks have handled. The sums of a period saturate at the largest 32-bit value.
    void addItemsLocked(std::uint32_t items, std::uint64_t bytes) TAVRO_REQUIRES(m_mutex);

    /// A task ends at nowUs and has taken latencyUs. Logs the line if it is due.
    void taskCompleted(std::uint64_t nowUs, std::uint64_t latencyUs) TAVRO_REQUIRES(m_mutex);

    /// Logs the line with the results of the last period that was closed.
    void update() const TAVRO_REQUIRES(m_mutex);

    [[nodiscard]] std::uint64_t nowUs() const { return static_cast<std::uint64_t>(m_timestampUs()); }

    Mutex m_mutex; // guards the figures; held while the clock is read and while the line is logged

    /// The start of the busy period of the active object that the monitor is attached to, 0 outside of one. That object
    /// writes it.
    std::uint64_t m_aoBusyStartUs TAVRO_GUARDED_BY(m_mutex) = 0;

private:
    [[nodiscard]] bool isReportDue() const TAVRO_REQUIRES(m_mutex);
    void closePeriod(std::uint64_t nowUs) TAVRO_REQUIRES(m_mutex);
    void startPeriod() TAVRO_REQUIRES(m_mutex);

    const std::string m_name;
    const std::uint32_t m_minItemsForReport;
    const std::uint64_t m_minBusyUsForReport;
    const std::uint32_t m_minTasksForReport;
    const std::uint64_t m_timeUnit;
    const bool m_cumulative;
    std::int64_t (*const m_timestampUs)();

    // The state that goes on from one period to the next.
    std::uint64_t m_lastTaskEndUs TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_idleStartUs TAVRO_GUARDED_BY(m_mutex) = 0; // when the last active task ended, 0 before that
    std::uint64_t m_busyStartUs TAVRO_GUARDED_BY(m_mutex) = 0; // start of the busy time that m_busyTimeUs lacks
    std::uint64_t m_lastConcurrencyChangeUs TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_currentActiveTasks TAVRO_GUARDED_BY(m_mutex) = 0;

    // The current period.
    std::uint64_t m_periodStartUs TAVRO_GUARDED_BY(m_mutex);
    std::uint64_t m_idleTimeUs TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_busyTimeUs TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_latencySumUs TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_maxLatencyUs TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_items TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_bytes TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_completedTasks TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_maxConcurrency TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_minConcurrency TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_concurrencyIntegral TAVRO_GUARDED_BY(m_mutex) = 0; // active tasks times µs

    // The results of the last period that was closed.
    std::uint64_t m_totalTimeUs TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_bytesPerSecBusy TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_itemsPerSecBusy TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_bytesPerSecWall TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_itemsPerSecWall TAVRO_GUARDED_BY(m_mutex) = 0;
    float m_avgConcurrency TAVRO_GUARDED_BY(m_mutex) = 0;
    float m_avgBusyConcurrency TAVRO_GUARDED_BY(m_mutex) = 0; // over the busy time alone
};
