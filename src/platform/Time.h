#pragma once

// The clocks of the system, and the CPU time of this process.
//
//     const std::int64_t nowMs = utcNow();
//
// Every function may be called from any thread.

#include "platform/Call.h"

#include <cstdint>
#include <optional>

namespace platform
{

constexpr std::int64_t NS_PER_SECOND = 1'000'000'000;

/// The CPU time of a process in 100-ns units.
struct CpuTime
{
    std::uint64_t kernel;
    std::uint64_t user;
};

/// The table of this header's calls, which tests replace.
struct TimeCalls
{
    Call<std::int64_t()> utcNow;
    Call<bool(std::int64_t& ticks)> performanceCounter;
    Call<bool(std::int64_t& ticksPerSecond)> performanceFrequency;
    Call<std::uint64_t()> tickCountMs;
    Call<std::uint32_t()> processorCount;
    Call<std::optional<CpuTime>()> processCpuTime;
};

extern TimeCalls timeCalls;

/// GetSystemTimeAsFileTime; clock_gettime(CLOCK_REALTIME). The calendar time in whole milliseconds since the beginning
/// of 1970, UTC, without leap seconds.
[[nodiscard]] inline std::int64_t utcNow() { return timeCalls.utcNow(); }

/// QueryPerformanceCounter; clock_gettime(CLOCK_MONOTONIC) in ns. Returns false on failure and leaves ticks unchanged.
[[nodiscard]] inline bool performanceCounter(std::int64_t& ticks) { return timeCalls.performanceCounter(ticks); }

/// QueryPerformanceFrequency; 10^9. Ticks per second, which do not change while the system runs. Returns false on
/// failure.
[[nodiscard]] inline bool performanceFrequency(std::int64_t& ticksPerSecond)
{
    return timeCalls.performanceFrequency(ticksPerSecond);
}

/// GetTickCount64; CLOCK_MONOTONIC_COARSE. Milliseconds since the system started. A cheap clock with steps of some
/// milliseconds.
[[nodiscard]] inline std::uint64_t tickCountMs() { return timeCalls.tickCountMs(); }

/// GetSystemInfo; sysconf. The number of logical processors, at least 1. Windows counts those of one processor group,
/// at most 64.
[[nodiscard]] inline std::uint32_t processorCount() { return timeCalls.processorCount(); }

/// GetProcessTimes; getrusage. The CPU time of this process, or nothing on failure.
[[nodiscard]] inline std::optional<CpuTime> processCpuTime() { return timeCalls.processCpuTime(); }

} // namespace platform
