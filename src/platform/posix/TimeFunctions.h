#pragma once

// The calls of the table timeCalls on POSIX. The simulated platform uses those that it does not replace.

#include "platform/Time.h"

namespace platform::posix
{

std::int64_t utcNow();
bool performanceCounter(std::int64_t& ticks);
bool performanceFrequency(std::int64_t& ticksPerSecond);
std::uint64_t tickCountMs();
std::uint32_t processorCount();
std::optional<CpuTime> processCpuTime();

} // namespace platform::posix
