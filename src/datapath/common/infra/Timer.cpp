#include "datapath/common/infra/Timer.h"

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/windows/WindowsTimer.h"
#include "platform/Threads.h"
#include "platform/Time.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

std::uint32_t ITimer::getTimestamp10Ms() { return static_cast<std::uint32_t>(getTimestampMs() / 10); }

void Timer::start()
{
    m_numProcessors = platform::processorCount();
    static_cast<void>(Clock::instance()); // logs here, and not on the timer thread
    if (platform::startThread(WindowsTimer::timerThread, &WindowsTimer::instance(),
                              platform::ThreadPriority::TimeCritical) != platform::ErrorNumber::Success)
    {
        failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "h != NULL");
    }
}

std::uint64_t Timer::getTimestampNs() { return Clock::steadyNs(); }

std::int64_t Timer::getTimestampUs() { return static_cast<std::int64_t>(getTimestampNs() / 1000); }

std::int64_t Timer::getTimestampMs() { return Clock::instance().timestampMs(); }

std::int64_t Timer::getUtcTimeMs() { return Clock::utcMs(); }

std::int64_t Timer::getLastTimestampMs_Inaccurate(bool noRefresh)
{
    return noRefresh ? Clock::lastTimestampMs() : Clock::refreshedTimestampMs();
}

TimerHandle Timer::addTimer(TimerCallback callback, void* context, std::uint32_t intervalMs, bool oneShot)
{
    return WindowsTimer::instance().addTimer(callback, context, intervalMs, oneShot, 0);
}

std::uint64_t Timer::getThreadCycles() { return platform::currentThreadCycles(); }

std::uint64_t Timer::getProcessCpuTimeUs()
{
    constexpr std::uint64_t TICKS_PER_US = 10; // the system counts in 100-ns units
    const std::optional<platform::CpuTime> time = platform::processCpuTime();
    const std::uint64_t processors = std::max(m_numProcessors.load(std::memory_order_relaxed), 1U);
    return time ? (time->kernel + time->user) / (processors * TICKS_PER_US) : 0;
}

void Timer::setRelativeTimeMs(std::int64_t value) { Clock::instance().setRelativeMs(value); }

std::int64_t Timer::getRelativeTimeMs() { return Clock::instance().relativeMs(); }

bool Timer::parseUtcTime(const char* text, CalendarRecord& record)
{
    unsigned year = 0;
    unsigned month = 0;
    unsigned day = 0;
    unsigned hour = 0;
    unsigned minute = 0;
    unsigned second = 0;
    constexpr int FIELDS = 6;
    // NOLINTNEXTLINE(cert-err34-c): the widths keep the numbers in range
    if (std::sscanf(text, "%04u-%02u-%02uT%02u:%02u:%02uZ", &year, &month, &day, &hour, &minute, &second) != FIELDS)
    {
        std::cout << "failed to scan\n" << std::flush;
        return false;
    }
    record = {.seconds = static_cast<std::int32_t>(second),
              .minutes = static_cast<std::int32_t>(minute),
              .hours = static_cast<std::int32_t>(hour),
              .dayOfMonth = static_cast<std::int32_t>(day),
              .month = static_cast<std::int32_t>(month) - 1,
              .yearsSince1900 = static_cast<std::int32_t>(year) - 1900,
              .dayOfWeek = 0,
              .dayOfYear = 0,
              .daylightSaving = 0};
    return true;
}
