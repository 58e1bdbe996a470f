#pragma once

// The machine's CPU usage in percent, from the system's idle-time counter. For tests of what reacts to load it can be
// simulated instead: t_simulativeCpuUsage gives a constant 0, with t_randomCpuUsage a draw among keeping the last
// value, 0, just below the threshold of high load, and 100. The tweaks are read with each update.
//
// The owner locks. The monitor keeps the counter open as long as it lives.

#include "platform/Counters.h"

#include <cstdint>

class CpuUsageMonitor
{
public:
    CpuUsageMonitor();

    /// Brings the usage up to date and logs it. Returns the time that has passed since the last update in 100-ns
    /// units (the first one: since the counter's own start); 0 if it is simulated, or cannot be read, which is logged
    /// and leaves the usage as it was. Probabilities that do not add up to 100 end the process.
    std::int64_t update();

    [[nodiscard]] std::uint32_t cpuUsage() const { return m_cpuUsage; } ///< percent
    [[nodiscard]] std::uint32_t cpuCount() const { return m_cpuCount; } ///< hardware threads, at least 1

private:
    void randomCpuGeneratorForTests();

    std::uint32_t m_cpuUsage = 0;
    std::int64_t m_lastTotalTicks = 0; // of the last update, as m_lastIdleTicks
    std::int64_t m_lastIdleTicks = 0;
    const std::uint32_t m_cpuCount;
    platform::OwnedCpuCounter m_counter; // opened unless the usage is simulated
};
