#pragma once

// What the table of clocks holds on POSIX, for each implementation that is built on it.

#include "platform/Time.h"

#include <chrono>

namespace platform::posix
{

UtcTime utcNow();
/// The same for any moment.
UtcTime utcAt(std::chrono::system_clock::time_point moment);
bool performanceCounter(std::int64_t& ticks);
bool performanceFrequency(std::int64_t& ticksPerSecond);
std::uint64_t tickCountMs();
std::uint32_t processorCount();
std::optional<CpuTime> processCpuTime();

} // namespace platform::posix
