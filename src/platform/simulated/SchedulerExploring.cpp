// The part of the scheduler that runs one schedule, until it ends or fails.

#include "platform/simulated/Scheduler.h"
#include "platform/simulated/SchedulerThread.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>

namespace platform::simulated
{

namespace
{

constexpr std::int64_t UTC_OF_SCHEDULES_NS = 1'767'225'600 * NS_PER_SECOND; // the first moment of 2026

} // namespace

void Scheduler::beginSchedule(std::uint64_t maxSteps)
{
    constexpr std::uint64_t MAX_STEPS_UNTIL_REST = 10'000'000; // switch points
    Lock lock(m_lock);
    Thread& self = callingThread(lock);
    m_explorer = &self;
    m_failure.reset();
    m_steps = 0;
    m_maxSteps = MAX_STEPS_UNTIL_REST;
    m_lastScheduleNumber = 0;
    self.waitsFor = this;
    self.reason = {"the schedule"};
    self.deadlineNs.reset();
    handOn(lock, self, false); // returns when the others rest
    m_steps = 0;
    m_maxSteps = maxSteps;
    m_nowNs = (m_nowNs / NS_PER_SECOND + 1) * NS_PER_SECOND;
    m_utcOffsetNs = UTC_OF_SCHEDULES_NS - m_nowNs;
    for (Thread* const thread : m_threads)
    {
        if (thread->deadlineNs)
        {
            thread->deadlineNs = m_nowNs + thread->waitNs; // each schedule begins at the start of this wait
        }
    }
}

std::optional<std::string> Scheduler::waitForEnd(Strategy& strategy)
{
    Lock lock(m_lock);
    m_strategy = &strategy;
    m_explorer->waitsFor = this;
    giveTurnTo(chooseNext(*m_explorer, false));
    std::uint64_t stepsBefore = m_steps;
    while (!m_explorer->turn.wait_for(lock, std::chrono::seconds(10), [&] { return m_running == m_explorer; }))
    {
        if (std::exchange(stepsBefore, m_steps) == m_steps)
        {
            static_cast<void>(std::fprintf(stderr,
                                           "%s has had the turn for 10 seconds: does it wait for a thread by other "
                                           "means than the floor's, such as "
                                           "std::thread::join?\nto replay: \"%s\"\n",
                                           nameOf(m_running->number).c_str(), strategy.text().c_str()));
        }
    }
    m_strategy = nullptr;
    m_explorer = nullptr;
    return m_failure;
}

Scheduler::Thread* Scheduler::endSchedule(std::string failure)
{
    if (!failure.empty())
    {
        m_failure = std::move(failure);
        for (Thread* const thread : m_threads)
        {
            thread->isStopped = thread->isStopped || thread->number > 0;
        }
    }
    m_explorer->waitsFor = nullptr;
    return m_explorer;
}

void Scheduler::fail(const std::string& text)
{
    Lock lock(m_lock);
    Thread& self = callingThread(lock);
    if (m_explorer == nullptr)
    {
        return;
    }
    self.isStopped = true;
    giveTurnTo(endSchedule(text));
    awaitTurn(lock, self); // for ever
}

std::string Scheduler::describeWaits()
{
    const Lock lock(m_lock);
    return describeWaitsLocked();
}

std::string Scheduler::nameOf(int number) const
{
    const auto thread = std::ranges::find_if(m_threads, [number](const Thread* other) {
        return other->number == number && !other->isStopped; // threads of failed schedules have the same numbers
    });
    const bool isNamed = thread != m_threads.end() && !(*thread)->name.empty();
    return isNamed ? (*thread)->name : "thread " + std::to_string(number);
}

std::string Scheduler::describeWaitsLocked() const
{
    std::string text;
    for (const Thread* const thread : m_threads)
    {
        if (thread->number > 0 && !thread->canRun() && !thread->isStopped)
        {
            text += (text.empty() ? "" : ", ") + nameOf(thread->number) + " waits for " + thread->reason.what;
            text += thread->reason.owner != 0 ? " that " + nameOf(thread->reason.owner) + " has" : "";
        }
    }
    return text;
}

bool Scheduler::isScheduleDone() const
{
    return std::ranges::none_of(m_threads,
                                [](const Thread* thread) { return thread->number > 0 && !thread->isStopped; });
}

} // namespace platform::simulated
