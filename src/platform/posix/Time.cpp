#include "platform/posix/TimeFunctions.h"

#include <ctime>
#include <sys/resource.h>
#include <unistd.h>

namespace platform::posix
{

namespace
{

std::uint64_t toTicks(const timeval& time)
{
    return static_cast<std::uint64_t>(time.tv_sec) * 10'000'000 + static_cast<std::uint64_t>(time.tv_usec) * 10;
}

} // namespace

std::int64_t utcNow()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

bool performanceCounter(std::int64_t& ticks)
{
    timespec time = {};
    if (clock_gettime(CLOCK_MONOTONIC, &time) != 0)
    {
        return false;
    }
    ticks = static_cast<std::int64_t>(time.tv_sec) * NS_PER_SECOND + time.tv_nsec;
    return true;
}

bool performanceFrequency(std::int64_t& ticksPerSecond)
{
    ticksPerSecond = NS_PER_SECOND;
    return true;
}

std::uint64_t tickCountMs()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000 + static_cast<std::uint64_t>(time.tv_nsec) / 1'000'000;
}

std::uint32_t processorCount()
{
    const long count = sysconf(_SC_NPROCESSORS_ONLN);
    return count < 1 ? 1 : static_cast<std::uint32_t>(count);
}

std::optional<CpuTime> processCpuTime()
{
    rusage usage = {};
    if (getrusage(RUSAGE_SELF, &usage) != 0)
    {
        return std::nullopt;
    }
    return CpuTime{.kernel = toTicks(usage.ru_stime), .user = toTicks(usage.ru_utime)};
}

} // namespace platform::posix
