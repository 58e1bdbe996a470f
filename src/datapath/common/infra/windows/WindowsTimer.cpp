#include "datapath/common/infra/windows/WindowsTimer.h"

#include "datapath/common/infra/FatalCheck.h"
#include "platform/Time.h"

#include <algorithm>
#include <limits>

WindowsTimer::WindowsTimer()
{
    constexpr std::int64_t MS_PER_SECOND = 1000;
    std::int64_t ticksPerSecond = 0;
    if (!platform::performanceFrequency(ticksPerSecond))
    {
        failAssertion(LoggerId::NON, THIS_METHOD, SourcePlace::here(), "bSuccess");
    }
    const std::int64_t ticksPerMs = ticksPerSecond / MS_PER_SECOND;
    if (ticksPerMs > std::numeric_limits<std::uint32_t>::max())
    {
        failAssertion(LoggerId::NON, THIS_METHOD, SourcePlace::here(), "freq.HighPart == 0");
    }
    m_ticksPerMs = static_cast<std::uint32_t>(ticksPerMs);
    LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD) << " m_ticksPerMs=" << m_ticksPerMs << " " << std::endl;
}

void WindowsTimer::getPerformanceCounter(std::int64_t& ticks)
{
    // Read before the counter: a reading below this one is a step back, and not just that of a thread
    // that another has overtaken.
    std::int64_t last = m_lastTimestamp.load(std::memory_order_acquire);
    std::int64_t reading = 0;
    if (!platform::performanceCounter(reading))
    {
        failAssertion(LoggerId::NON, THIS_METHOD, SourcePlace::here(), "bSuccess");
    }
    if (last != 0 && reading < last)
    {
        // Compared with what was loaded above: the mark may have moved on while this thread waited.
        const MutexGuard guard(m_counterMutex);
        const std::int64_t diff = reading - last;
        LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD) << "New timestamp is before last timestamp: "
                                                             << " res.QuadPart=" << reading << " "
                                                             << " "
                                                             << " m_lastTimestamp=" << last << " "
                                                             << " "
                                                             << " diff=" << diff << " " << std::endl;
        if (diff < -MINIMUM_ACCEPTABLE_TICKS_DIFF)
        {
            CheckFailure(LoggerId::NON, THIS_METHOD, SourcePlace::here(), "diff >= -MINIMUM_ACCEPTABLE_TICKS_DIFF")
                << "New timestamp is more than " << MINIMUM_ACCEPTABLE_TICKS_DIFF << " ticks before last timestamp"
                << std::endl;
        }
        ticks = m_lastTimestamp.load(std::memory_order_acquire);
        return;
    }
    // The first reading is taken whatever it is; later ones only move the clock on.
    while ((last == 0 || last < reading) &&
           !m_lastTimestamp.compare_exchange_weak(last, reading, std::memory_order_acq_rel, std::memory_order_acquire))
    {
    }
    ticks = last == 0 ? reading : std::max(last, reading);
}

std::int64_t WindowsTimer::getTimestampMs()
{
    std::int64_t ticks = 0;
    getPerformanceCounter(ticks);
    return ticks / m_ticksPerMs;
}
