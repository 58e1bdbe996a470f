#pragma once

// The calls of the table timeCalls on POSIX. The simulated platform uses those that it does not replace.

#include "platform/Time.h"

#include <chrono>

namespace platform::posix
{

UtcTime utcNow();
/// The calendar fields of a given moment.
UtcTime utcAt(std::chrono::system_clock::time_point moment);
bool performanceCounter(std::int64_t& ticks);
bool performanceFrequency(std::int64_t& ticksPerSecond);
std::uint64_t tickCountMs();
std::uint32_t processorCount();
std::optional<CpuTime> processCpuTime();

} // namespace platform::posix
