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

UtcTime onCalendar(std::chrono::sys_time<std::chrono::milliseconds> moment)
{
    using namespace std::chrono;
    const auto day = floor<days>(moment);
    const year_month_day date(day);
    const hh_mm_ss time(moment - day);
    return {.year = static_cast<int>(date.year()),
            .month = static_cast<int>(static_cast<unsigned>(date.month())),
            .day = static_cast<int>(static_cast<unsigned>(date.day())),
            .hour = static_cast<int>(time.hours().count()),
            .minute = static_cast<int>(time.minutes().count()),
            .second = static_cast<int>(time.seconds().count()),
            .millisecond = static_cast<int>(time.subseconds().count())};
}

} // namespace

UtcTime utcAt(std::chrono::system_clock::time_point moment)
{
    using namespace std::chrono;
    // Every log line asks, and many ask within one millisecond.
    static constinit thread_local sys_time<milliseconds> lastMoment{};
    static constinit thread_local UtcTime last{1970, 1, 1, 0, 0, 0, 0};
    if (const auto now = floor<milliseconds>(moment); now != lastMoment)
    {
        last = onCalendar(now);
        lastMoment = now;
    }
    return last;
}

UtcTime utcNow() { return utcAt(std::chrono::system_clock::now()); }

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
