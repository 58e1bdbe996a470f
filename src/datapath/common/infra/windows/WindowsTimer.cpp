#include "datapath/common/infra/windows/WindowsTimer.h"

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/DeadLockChecker.h"
#include "datapath/common/infra/LogItem.h"
#include "platform/Random.h"
#include "platform/Threads.h"

#include <algorithm>
#include <array>
#include <numeric>

void makeWindowsTimer() { static_cast<void>(WindowsTimer::instance()); }

WindowsTimer::WindowsTimer(TimerHandle firstHandle) : m_lastHandle(firstHandle - 1) {}

TimerHandle WindowsTimer::addTimer(TimerCallback callback, void* context, std::uint32_t intervalMs, bool oneShot,
                                   TimerHandle handleToReplace)
{
    Clock& clock = Clock::instance(); // made before the lock is taken: its making locks and logs
    const MutexGuard guard(m_timersMutex);
    const auto nowMs = static_cast<std::uint64_t>(clock.readMs());
    Timer* const replaced = handleToReplace == 0 ? nullptr : findTimer(handleToReplace);
    if (replaced != nullptr)
    {
        cancel(*replaced);
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
            << "replacing existing timer handle=" << handleToReplace << std::endl;
    }
    const TimerHandle handle = ++m_lastHandle;
    insert(handle, {.dueMs = nowMs + intervalMs,
                    .callback = callback,
                    .context = context,
                    .completion = nullptr,
                    .periodMs = oneShot ? 0 : intervalMs,
                    .cancelled = false});
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
        << "added timer old=" << handleToReplace << " new=" << handle << std::endl;
    return handle;
}

/// A timer's entry in the order, with the first timestamp at which a pass takes it. Every pass takes cancelled timers.
WindowsTimer::Order::Entry WindowsTimer::orderOf(Timer& timer)
{
    return {.timeMs = timer.second.cancelled ? 0 : timer.second.dueMs + 1, .item = &timer};
}

WindowsTimer::Timer* WindowsTimer::findTimer(TimerHandle handle)
{
    return m_timers.change([=](auto& timers) { return timers.find(handle); });
}

void WindowsTimer::insert(TimerHandle handle, WindowsTimerInfo&& info)
{
    const auto added = m_timers.change([&](auto& timers) { return timers.try_emplace(handle, std::move(info)); });
    Timer* const timer = added.first;
    if (!added.second)
    {
        return;
    }
    try
    {
        m_order.insert(orderOf(*timer));
    }
    catch (...)
    {
        m_timers.change([=](auto& timers) { timers.extract(*timer); });
        throw;
    }
}

void WindowsTimer::cancel(Timer& timer)
{
    if (timer.second.cancelled)
    {
        return;
    }
    const Order::Entry first = {.timeMs = 0, .item = &timer};
    m_order.insert(first); // may throw, and leaves the timer as it was then
    if (!m_order.erase(orderOf(timer)))
    {
        m_order.erase(first); // a pass has taken the timer and will see that it is cancelled
    }
    timer.second.cancelled = true;
}

std::optional<WindowsTimer::Completion> WindowsTimer::completionOf(TimerHandle handle)
{
    auto made = std::make_unique<Completion>(); // without the lock, because it may make the guarded allocator
    const MutexGuard guard(m_timersMutex);
    Timer* const timer = findTimer(handle);
    if (timer == nullptr)
    {
        return std::nullopt;
    }
    std::unique_ptr<Completion>& completion = timer->second.completion;
    if (completion == nullptr)
    {
        completion = std::move(made);
    }
    return *completion;
}

void WindowsTimer::activateTimers()
{
    constexpr std::int64_t LONGEST_CALL_MS = 2'000;
    const MutexGuard guard(m_activationMutex);
    const auto nowMs = static_cast<std::uint64_t>(Clock::instance().readMs());
    takeTimers(nowMs);
    while (!m_taken.empty())
    {
        if (!m_taken.back().wasCancelled)
        {
            const WindowsTimerInfo& info = m_taken.back().timer->second; // the members that are read here never change
            const std::int64_t startMs = Clock::instance().readMs();
            info.callback(info.context);
            if (Clock::instance().readMs() - startMs > LONGEST_CALL_MS)
            {
                LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD)
                    << "timer invocation took more than 1 seconds!" << std::endl;
            }
        }
        endOrReschedule(nowMs);
    }
}

void WindowsTimer::takeTimers(std::uint64_t nowMs)
{
    const MutexGuard guard(m_timersMutex);
    for (TakenTimer& left : m_taken) // what a pass has left in which a callback threw
    {
        left.wasCancelled = left.timer->second.cancelled;
    }
    m_order.takeUntil(nowMs, m_taken);
    sortTaken();
}

/// Sorts in descending order of the handles. Many timers are sorted by one byte of the handle after the other, the
/// lowest first (a radix sort), because comparisons would take a fifth of the time of a pass.
void WindowsTimer::sortTaken()
{
    constexpr std::size_t MANY = 64;
    constexpr std::uint32_t BITS = 8;
    if (m_taken.size() < MANY)
    {
        std::ranges::sort(m_taken, std::ranges::greater(), &TakenTimer::handle);
        return;
    }
    std::uint64_t differing = 0; // 64 bits, because shift reaches 32 below
    for (const TakenTimer& taken : m_taken)
    {
        differing |= taken.handle ^ m_taken.front().handle;
    }
    m_sorted = m_taken;
    for (std::uint32_t shift = 0; differing >> shift != 0; shift += BITS)
    {
        std::array<std::uint32_t, (1U << BITS) + 1> places{};
        const auto rankOf = [shift](TimerHandle handle) { return ~(handle >> shift) & ((1U << BITS) - 1); };
        for (const TakenTimer& taken : m_taken)
        {
            ++places[rankOf(taken.handle) + 1];
        }
        std::partial_sum(places.begin(), places.end(), places.begin());
        for (const TakenTimer& taken : m_taken)
        {
            m_sorted[places[rankOf(taken.handle)]++] = taken;
        }
        m_taken.swap(m_sorted);
    }
}

/// Erases or reschedules the timer at the back of m_taken, which has been called unless it was cancelled.
void WindowsTimer::endOrReschedule(std::uint64_t nowMs)
{
    std::optional<WindowsTimerInfo> ended;
    {
        const MutexGuard guard(m_timersMutex);
        Timer& timer = *m_taken.back().timer;
        WindowsTimerInfo& info = timer.second;
        if (info.cancelled || info.periodMs == 0)
        {
            ended = m_timers.change([&](auto& timers) { return timers.extract(timer); });
        }
        else
        {
            info.dueMs = nowMs + info.periodMs;
            m_order.insert(orderOf(timer));
        }
        m_taken.pop_back();
    }
    // Without the lock, because observers of the completion may add timers.
    if (ended && ended->cancelled && ended->completion != nullptr)
    {
        ended->completion->set(RC_OK);
    }
}

void WindowsTimer::timerThread(void* windowsTimer)
{
    constexpr std::uint32_t PASS_INTERVAL_MS = 100;
    platform::nameThread("timer");
    DlcKeepalive keepalive("timer");
    platform::seedRandom(static_cast<std::uint32_t>(Clock::instance().timestampMs()));
    for (;;)
    {
        platform::sleepMs(PASS_INTERVAL_MS);
        static_cast<WindowsTimer*>(windowsTimer)->activateTimers();
        keepalive.setAlive();
    }
}

bool WindowsTimer::checkInvariants()
{
    const MutexGuard activation(m_activationMutex);
    const MutexGuard guard(m_timersMutex);
    std::vector<Timer*> timers;
    m_timers.change([&](auto& all) { all.forEach([&](Timer& timer) { timers.push_back(&timer); }); });
    std::size_t found = 0;
    for (Timer* const timer : timers)
    {
        const bool isTaken = std::ranges::find(m_taken, timer->first, &TakenTimer::handle) != m_taken.end();
        found += m_order.contains(orderOf(*timer)) != isTaken ? 1U : 0U;
    }
    const std::size_t count = m_order.size() + m_taken.size();
    return found == count && m_order.checkInvariants() && count == m_timers->size() && m_timers.itemCount() == count;
}

void WindowsTimer::setNextHandle(TimerHandle handle)
{
    const MutexGuard guard(m_timersMutex);
    m_lastHandle = handle - 1;
}
