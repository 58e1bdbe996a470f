#pragma once

// Clocks as the system gives them. Every function may be called from any thread.

#include "platform/Call.h"

#include <cstdint>
#include <optional>

namespace platform
{

/// A moment of UTC on the calendar, as GetSystemTime gives it.
struct UtcTime
{
    std::int32_t year;
    std::int32_t month; ///< 1 to 12
    std::int32_t day;   ///< 1 to 31
    std::int32_t hour;
    std::int32_t minute;
    std::int32_t second;
    std::int32_t millisecond;
};

/// CPU time of a process in 100-ns units.
struct CpuTime
{
    std::uint64_t kernel;
    std::uint64_t user;
};

struct TimeCalls
{
    Call<UtcTime()> utcNow;
    Call<bool(std::int64_t& ticks)> performanceCounter;
    Call<bool(std::int64_t& ticksPerSecond)> performanceFrequency;
    Call<std::uint64_t()> tickCountMs;
    Call<std::uint32_t()> processorCount;
    Call<std::optional<CpuTime>()> processCpuTime;
};

/// The implementation in use. Tests replace single entries before other threads call them.
extern TimeCalls timeCalls;

/// GetSystemTime; clock_gettime(CLOCK_REALTIME).
[[nodiscard]] inline UtcTime utcNow() { return timeCalls.utcNow(); }

/// QueryPerformanceCounter; clock_gettime(CLOCK_MONOTONIC) in ns. False on failure, ticks unchanged.
[[nodiscard]] inline bool performanceCounter(std::int64_t& ticks) { return timeCalls.performanceCounter(ticks); }

/// QueryPerformanceFrequency; ticks a second, fixed while the system runs. False on failure.
[[nodiscard]] inline bool performanceFrequency(std::int64_t& ticksPerSecond)
{
    return timeCalls.performanceFrequency(ticksPerSecond);
}

/// GetTickCount64; CLOCK_MONOTONIC_COARSE. Milliseconds since the system started, coarse and cheap.
[[nodiscard]] inline std::uint64_t tickCountMs() { return timeCalls.tickCountMs(); }

/// GetSystemInfo; sysconf. Processors of the machine, at least 1.
[[nodiscard]] inline std::uint32_t processorCount() { return timeCalls.processorCount(); }

/// GetProcessTimes; getrusage. Nothing on failure.
[[nodiscard]] inline std::optional<CpuTime> processCpuTime() { return timeCalls.processCpuTime(); }

} // namespace platform
