#include "platform/simulated/Scheduler.h"

#include "platform/Threads.h"
#include "platform/simulated/SchedulerThread.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <pthread.h>
#include <sched.h>
#include <utility>

namespace platform
{

void relax() noexcept { simulated::Scheduler::instance().switchPoint(true); }

} // namespace platform

namespace platform::simulated
{

namespace
{

constexpr std::int64_t READING_NS = 100;
/// The end of virtual time, after 291 years. A deadline that is set just before it, at most 50 days later, still fits.
constexpr std::int64_t LATEST_NS = std::numeric_limits<std::int64_t>::max() - NS_PER_SECOND * 86'400 * 366;

constinit thread_local Scheduler::Thread* ownThread = nullptr;
constinit thread_local bool hasEnded = false; // code that the system still runs on the thread makes no switch points
constexpr int ENDED_NUMBER = std::numeric_limits<int>::min(); // the number of a thread that has ended

/// Keeps the calling thread, and the threads that it starts, on the processor on which the first caller ran. Handing
/// the turn to a thread on another processor takes three times as long.
void stayOnOneProcessor()
{
    static const cpu_set_t PROCESSOR = [] {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(static_cast<std::size_t>(std::max(sched_getcpu(), 0)), &set);
        return set;
    }();
    sched_setaffinity(0, sizeof PROCESSOR, &PROCESSOR);
}

} // namespace

void switchPoint() noexcept { Scheduler::instance().switchPoint(false); }

Scheduler& Scheduler::instance()
{
    static Scheduler& scheduler = *new Scheduler;
    return scheduler;
}

/// The record of the calling thread. A thread that the floor has not started is adopted, and has the turn on return.
Scheduler::Thread& Scheduler::callingThread(Lock& lock)
{
    if (ownThread == nullptr)
    {
        auto* const thread = new Thread{.number = --m_lastNegativeNumber};
        m_threads.push_back(thread);
        if (m_running == nullptr)
        {
            m_running = thread;
        }
        lock.unlock();
        stayOnOneProcessor();
        enter(thread);
        lock.lock();
        if (m_explorer != nullptr)
        {
            thread->isStopped = true;
            giveTurnTo(endSchedule("a thread that the floor has not started takes part in the schedule"));
            awaitTurn(lock, *thread);
        }
    }
    return *ownThread;
}

Scheduler::Thread* Scheduler::announce()
{
    switchPoint(false);
    const Lock lock(m_lock);
    auto* const thread = new Thread{.number = m_explorer != nullptr ? ++m_lastScheduleNumber : --m_lastNegativeNumber};
    m_threads.push_back(thread);
    return thread;
}

void Scheduler::enter(Thread* thread)
{
    static const pthread_key_t KEY = [] {
        pthread_key_t key = 0;
        pthread_key_create(&key, onThreadEnd);
        return key;
    }();
    ownThread = thread;
    pthread_setspecific(KEY, thread);
    Lock lock(m_lock);
    awaitTurn(lock, *thread);
}

void Scheduler::forget(Thread* thread)
{
    const Lock lock(m_lock);
    std::erase(m_threads, thread);
    delete thread;
}

void Scheduler::onThreadEnd(void* thread)
{
    // The system releases the values of a thread in at most four rounds, as long as releases set new values. The third
    // round is late enough, and there is one after it if another value is released only then.
    constexpr int ROUNDS = 3;
    auto* const self = static_cast<Thread*>(thread);
    if (++self->numReleaseRounds < ROUNDS)
    {
        instance().enter(self); // sets the value again, so that there is a next round
        return;
    }
    instance().leave(self);
}

void Scheduler::leave(Thread* thread)
{
    hasEnded = true;
    const Lock lock(m_lock);
    thread->isStopped = true;
    Thread* const next = chooseNext(*thread, false);
    std::erase(m_threads, thread);
    delete thread;
    giveTurnTo(next);
}

void Scheduler::awaitTurn(Lock& lock, Thread& self)
{
    self.turn.wait(lock, [&] { return m_running == &self; });
}

void Scheduler::giveTurnTo(Thread* thread)
{
    if (thread != nullptr && thread != m_running)
    {
        thread->turn.notify_one();
    }
    m_running = thread;
}

void Scheduler::handOn(Lock& lock, Thread& self, bool isResting)
{
    giveTurnTo(chooseNext(self, isResting));
    awaitTurn(lock, self);
}

void Scheduler::switchPoint(bool isResting)
{
    if (hasEnded)
    {
        return;
    }
    constexpr std::uint32_t MAX_KEPT_TURNS = 1'000;
    Lock lock(m_lock);
    Thread& self = callingThread(lock);
    if (&self == m_explorer)
    {
        return;
    }
    if (isResting)
    {
        setTime(m_nowNs + READING_NS);
    }
    if (m_explorer == nullptr)
    {
        const bool isLong = ++m_numKeptTurns >= MAX_KEPT_TURNS;
        if (isResting || isLong)
        {
            m_numKeptTurns = 0;
            handOn(lock, self, true);
        }
        return;
    }
    countStep(lock);
    handOn(lock, self, isResting);
}

/// Counts a switch point of the schedule. Does not return if it is one more than the schedule may have.
void Scheduler::countStep(Lock& lock)
{
    if (m_explorer == nullptr || ++m_steps <= m_maxSteps)
    {
        return;
    }
    const std::string number = std::to_string(m_maxSteps) + " switch points";
    const std::string waits = describeWaitsLocked();
    const bool hasBegun = m_strategy != nullptr;
    lock.unlock();
    fail(hasBegun ? "not over after " + number + (waits.empty() ? "" : " while " + waits)
                  : "threads that were there before do not rest after " + number);
}

void Scheduler::sleep(std::uint32_t durationMs)
{
    if (durationMs == 0)
    {
        switchPoint(true);
        return;
    }
    Lock lock(m_lock);
    static_cast<void>(callingThread(lock));
    countStep(lock);
    lock.unlock();
    const std::int64_t deadlineNs = nowPlus(durationMs);
    static_cast<void>(waitAt(&deadlineNs, {"time to pass"}, &deadlineNs));
}

bool Scheduler::waitAt(const void* object, WaitReason reason, const std::int64_t* deadlineNs)
{
    Lock lock(m_lock);
    Thread& self = callingThread(lock);
    self.waitsFor = object;
    self.reason = reason;
    self.isLate = false;
    self.deadlineNs.reset();
    if (deadlineNs != nullptr)
    {
        self.deadlineNs = *deadlineNs;
        self.waitNs = *deadlineNs - m_nowNs;
    }
    handOn(lock, self, false);
    return !self.isLate;
}

void Scheduler::wakeAt(const void* object)
{
    const Lock lock(m_lock);
    for (Thread* const thread : m_threads)
    {
        if (thread->waitsFor == object)
        {
            thread->waitsFor = nullptr;
        }
    }
}

int Scheduler::ownNumber()
{
    Lock lock(m_lock);
    return hasEnded ? ENDED_NUMBER : callingThread(lock).number;
}

void Scheduler::setOwnName(std::string name)
{
    Lock lock(m_lock);
    callingThread(lock).name = std::move(name);
}

/// In the order of their start, beginning with self and wrapping around. If self rests, it comes last.
std::vector<Scheduler::Thread*> Scheduler::runnableThreads(const Thread& self, bool isResting)
{
    std::vector<Thread*> threads = m_threads;
    std::rotate(threads.begin(), std::ranges::find(threads, &self), threads.end());
    if (isResting)
    {
        std::rotate(threads.begin(), threads.begin() + 1, threads.end());
    }
    std::erase_if(threads, [](const Thread* thread) { return !thread->canRun(); });
    return threads;
}

Scheduler::Thread* Scheduler::chooseNext(const Thread& self, bool isResting)
{
    std::vector<Thread*> threads = runnableThreads(self, isResting);
    while (threads.empty())
    {
        Thread* const other = whenNobodyCanRun();
        if (other == nullptr || other == m_explorer)
        {
            return other;
        }
        threads = runnableThreads(self, isResting);
    }
    std::size_t chosen = 0;
    if (m_strategy != nullptr && threads.size() > 1)
    {
        Options options{.threads = {}, .firstPreemption = threads.size(), .resting = {}, .step = m_steps};
        std::ranges::transform(threads, std::back_inserter(options.threads), &Thread::number);
        if (self.canRun())
        {
            options.firstPreemption = isResting ? threads.size() - 1 : 1;
            options.resting = isResting ? std::optional(self.number) : std::nullopt;
        }
        chosen = m_strategy->choose(options);
    }
    m_numIdleMoves = threads[chosen]->number > 0 ? 0 : m_numIdleMoves;
    return threads[chosen];
}

/// Moves the time to the next deadline, and returns the thread that it belongs to. Returns the explorer if the schedule
/// is over or fails, and null if no thread has a deadline.
Scheduler::Thread* Scheduler::whenNobodyCanRun()
{
    constexpr std::uint32_t MAX_IDLE_MOVES = 1'000; // services may free the schedule's threads until then
    if (m_explorer != nullptr && isScheduleDone())
    {
        return endSchedule("");
    }
    Thread* earliest = nullptr;
    bool isScheduleWaitingForTime = false;
    for (Thread* const thread : m_threads)
    {
        if (!thread->isStopped && thread->deadlineNs)
        {
            earliest = earliest == nullptr || *thread->deadlineNs < *earliest->deadlineNs ? thread : earliest;
            isScheduleWaitingForTime = isScheduleWaitingForTime || thread->number > 0;
        }
    }
    if (m_explorer != nullptr && !isScheduleWaitingForTime &&
        (earliest == nullptr || ++m_numIdleMoves > MAX_IDLE_MOVES))
    {
        return endSchedule("deadlock: " + describeWaitsLocked());
    }
    if (m_explorer != nullptr && earliest != nullptr && *earliest->deadlineNs > LATEST_NS)
    {
        return endSchedule("the schedules until here have used up the virtual time, 291 years");
    }
    if (earliest != nullptr)
    {
        setTime(*earliest->deadlineNs);
    }
    return earliest;
}

void Scheduler::setTime(std::int64_t nowNs)
{
    m_nowNs = std::max(m_nowNs, nowNs);
    for (Thread* const thread : m_threads)
    {
        if (thread->waitsFor != nullptr && thread->deadlineNs && *thread->deadlineNs <= m_nowNs)
        {
            thread->waitsFor = nullptr;
            thread->isLate = true;
        }
    }
}

std::int64_t Scheduler::now()
{
    const Lock lock(m_lock);
    return m_nowNs;
}

std::int64_t Scheduler::readClock()
{
    const Lock lock(m_lock);
    setTime(m_nowNs + READING_NS);
    return m_nowNs;
}

std::int64_t Scheduler::nowPlus(std::uint32_t durationMs) { return now() + std::int64_t{durationMs} * 1'000'000; }

void Scheduler::advance(std::int64_t durationNs)
{
    Lock lock(m_lock);
    Thread& self = callingThread(lock);
    countStep(lock);
    setTime(m_nowNs + std::min(durationNs, std::max<std::int64_t>(LATEST_NS - m_nowNs, 0)));
    handOn(lock, self, false);
}

std::int64_t Scheduler::readUtc()
{
    const std::int64_t nowNs = readClock();
    const Lock lock(m_lock);
    if (!m_utcOffsetNs)
    {
        using namespace std::chrono;
        m_utcOffsetNs = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count() - nowNs;
    }
    return *m_utcOffsetNs + nowNs;
}

} // namespace platform::simulated
