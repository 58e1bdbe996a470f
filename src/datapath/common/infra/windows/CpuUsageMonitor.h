#pragma once

// The machine's CPU usage in percent, from the system's idle-time counter.
//
//     monitor.update();
//     if (monitor.cpuUsage() > 90) ...
//
// To test code that reacts to load, the usage can be simulated: t_simulativeCpuUsage makes it 0; with t_randomCpuUsage,
// each update chooses at random between the last value, 0, just below the threshold of high load, and 100. The tweaks
// are read at each update.
//
// The owner locks. The monitor keeps the counter open as long as it exists.

#include "platform/Counters.h"

#include <cstdint>

class CpuUsageMonitor
{
public:
    CpuUsageMonitor();

    /// Updates the usage and logs it. Returns the time since the last update in units of 100 ns (the first update
    /// counts from the counter's own start), or 0 if the usage is simulated. If the counter cannot be read, logs that,
    /// leaves the usage as it was and returns 0. Probabilities that do not add up to 100 end the process.
    std::int64_t update();

    [[nodiscard]] std::uint32_t cpuUsage() const { return m_cpuUsage; } ///< percent
    [[nodiscard]] std::uint32_t cpuCount() const { return m_cpuCount; } ///< hardware threads, at least 1

private:
    void randomCpuGeneratorForTests();

    std::uint32_t m_cpuUsage = 0;
    std::int64_t m_lastTotalTicks = 0; // at the last update, in units of 100 ns
    std::int64_t m_lastIdleTicks = 0;
    const std::uint32_t m_cpuCount;
    platform::OwnedCpuCounter m_counter; // opened only if the usage is not simulated
};
