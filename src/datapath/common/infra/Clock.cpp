#include "datapath/common/infra/Clock.h"

#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/base/Singleton.h"
#include "platform/Time.h"

#include <algorithm>
#include <chrono>
#include <limits>

namespace
{

constexpr const char* TIMER_UNIT = "datapath/common/infra/windows/WindowsTimer.cpp";
constexpr MethodText TIMER_CONSTRUCTOR = MethodText::of("WindowsTimer::WindowsTimer");
constexpr MethodText READING = MethodText::of("WindowsTimer::getPerformanceCounter");

constexpr SourcePlace placeHere(std::uint32_t line = __builtin_LINE()) { return SourcePlace::here(line, TIMER_UNIT); }

} // namespace

Clock& Clock::instance()
{
    static constinit platform::Atomic<Clock*> published = nullptr;
    return createOnce(published, creationLock<Clock>, [] {
        makeWindowsTimer();
        return new Clock;
    });
}

Clock::Clock()
{
    constexpr std::int64_t MS_PER_SECOND = 1000;
    std::int64_t ticksPerSecond = 0;
    if (!platform::performanceFrequency(ticksPerSecond))
    {
        failAssertion(LoggerId::NON, TIMER_CONSTRUCTOR, placeHere(), "bSuccess");
    }
    const std::int64_t ticksPerMs = ticksPerSecond / MS_PER_SECOND;
    if (ticksPerMs > std::numeric_limits<std::uint32_t>::max())
    {
        failAssertion(LoggerId::NON, TIMER_CONSTRUCTOR, placeHere(), "freq.HighPart == 0");
    }
    m_ticksPerMs = static_cast<std::uint32_t>(ticksPerMs);
    LogItem(LoggerId::NON, LogLevel::Info, TIMER_CONSTRUCTOR) << " m_ticksPerMs=" << m_ticksPerMs << " " << std::endl;
}

std::int64_t Clock::ticks()
{
    // Loaded before the counter is read: a lower reading then is a step back of the counter. If it was loaded
    // afterwards, another thread could have raised it meanwhile.
    std::int64_t last = m_lastTimestamp.load(std::memory_order_acquire);
    std::int64_t reading = 0;
    if (!platform::performanceCounter(reading))
    {
        failAssertion(LoggerId::NON, READING, placeHere(), "bSuccess");
    }
    if (last != 0 && reading < last)
    {
        return holdStill(reading, last);
    }
    // The first reading is taken whatever it is; later ones only raise m_lastTimestamp.
    while ((last == 0 || last < reading) &&
           !m_lastTimestamp.compare_exchange_weak(last, reading, std::memory_order_acq_rel, std::memory_order_acquire))
    {
    }
    return last == 0 ? reading : std::max(last, reading);
}

/// Logs the step back from the highest reading that the caller had loaded; that may have risen while this thread waited
/// for the lock. Returns the present highest reading.
std::int64_t Clock::holdStill(std::int64_t reading, std::int64_t last)
{
    const MutexGuard guard(m_counterMutex);
    const std::int64_t diff = reading - last;
    LogItem(LoggerId::NON, LogLevel::Error, READING) << "New timestamp is before last timestamp: "
                                                     << " res.QuadPart=" << reading << " "
                                                     << " "
                                                     << " m_lastTimestamp=" << last << " "
                                                     << " "
                                                     << " diff=" << diff << " " << std::endl;
    if (diff < -MINIMUM_ACCEPTABLE_TICKS_DIFF)
    {
        CheckFailure(LoggerId::NON, READING, placeHere(), "diff >= -MINIMUM_ACCEPTABLE_TICKS_DIFF")
            << "New timestamp is more than " << MINIMUM_ACCEPTABLE_TICKS_DIFF << " ticks before last timestamp"
            << std::endl;
    }
    return m_lastTimestamp.load(std::memory_order_acquire);
}

std::int64_t Clock::timestampMs()
{
    const std::int64_t nowMs = readMs();
    if (s_lastTimestampMs.load(std::memory_order_relaxed) != nowMs)
    {
        s_lastTimestampMs.store(nowMs, std::memory_order_relaxed); // once a ms: others read this cache line
    }
    return nowMs;
}

std::int64_t Clock::refreshedTimestampMs()
{
    constexpr std::uint64_t REFRESH_PERIOD_MS = 1000;
    const std::uint64_t tick = platform::tickCountMs();
    if (tick > s_lastRefreshTick.load(std::memory_order_relaxed) + REFRESH_PERIOD_MS)
    {
        s_lastRefreshTick.store(tick, std::memory_order_relaxed);
        instance().timestampMs();
    }
    return lastTimestampMs();
}

std::uint64_t Clock::steadyNs()
{
    constexpr std::int64_t NS_PER_SECOND = 1'000'000'000;
    constexpr std::int64_t USUAL_TICKS_PER_SECOND = 10'000'000; // needs no division
    std::int64_t ticks = 0;
    std::int64_t ticksPerSecond = USUAL_TICKS_PER_SECOND;
    static_cast<void>(platform::performanceCounter(ticks) && platform::performanceFrequency(ticksPerSecond));
    const std::int64_t ns =
        ticksPerSecond == USUAL_TICKS_PER_SECOND
            ? ticks * (NS_PER_SECOND / USUAL_TICKS_PER_SECOND)
            : ticks / ticksPerSecond * NS_PER_SECOND + ticks % ticksPerSecond * NS_PER_SECOND / ticksPerSecond;
    return static_cast<std::uint64_t>(ns);
}

std::int64_t Clock::utcMs() { return platform::utcNow(); }

std::int64_t Clock::relativeMs() { return timestampMs() - m_relativeBaseMs.load(std::memory_order_relaxed); }

void Clock::setRelativeMs(std::int64_t value)
{
    m_relativeBaseMs.store(timestampMs() - value, std::memory_order_relaxed);
}
