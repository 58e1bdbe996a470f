#include "platform/Time.h"

#include "platform/windows/System.h"

namespace platform::windows
{

namespace
{

std::int64_t utcNow()
{
    constexpr std::uint64_t TICKS_PER_MS = 10'000;
    constexpr std::int64_t FROM_1601_TO_1970_MS = 11'644'473'600'000;
    FILETIME now = {};
    GetSystemTimeAsFileTime(&now);
    return static_cast<std::int64_t>(toTicks(now) / TICKS_PER_MS) - FROM_1601_TO_1970_MS;
}

bool performanceCounter(std::int64_t& ticks)
{
    LARGE_INTEGER counter = {};
    if (QueryPerformanceCounter(&counter) == FALSE)
    {
        return false;
    }
    ticks = counter.QuadPart;
    return true;
}

bool performanceFrequency(std::int64_t& ticksPerSecond)
{
    LARGE_INTEGER frequency = {};
    if (QueryPerformanceFrequency(&frequency) == FALSE)
    {
        return false;
    }
    ticksPerSecond = frequency.QuadPart;
    return true;
}

std::uint64_t tickCountMs() { return GetTickCount64(); }

std::uint32_t processorCount()
{
    SYSTEM_INFO info = {};
    GetSystemInfo(&info);
    return info.dwNumberOfProcessors;
}

std::optional<CpuTime> processCpuTime()
{
    FILETIME creation = {};
    FILETIME exit = {};
    FILETIME kernel = {};
    FILETIME user = {};
    if (GetProcessTimes(GetCurrentProcess(), &creation, &exit, &kernel, &user) == FALSE)
    {
        return std::nullopt;
    }
    return CpuTime{.kernel = toTicks(kernel), .user = toTicks(user)};
}

} // namespace

} // namespace platform::windows

constinit platform::TimeCalls platform::timeCalls = {
    .utcNow = {"utcNow", windows::utcNow},
    .performanceCounter = {"performanceCounter", windows::performanceCounter},
    .performanceFrequency = {"performanceFrequency", windows::performanceFrequency},
    .tickCountMs = {"tickCountMs", windows::tickCountMs},
    .processorCount = {"processorCount", windows::processorCount},
    .processCpuTime = {"processCpuTime", windows::processCpuTime},
};
