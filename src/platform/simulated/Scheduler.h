#pragma once

// Decides which thread goes on. All threads that use this floor are real ones, but exactly one of them has the turn and
// runs; at a switch point it may leave the turn to another, and whoever waits leaves it in any case. Time is virtual:
// it moves when no thread can run, to the next moment that one waits for, and a little with each reading.
//
// Threads:
//   - The floor starts a thread at startThread; it runs when it is given the turn. It ends when the system has released
//     its values (ThreadValue), so that what these do is part of the order too.
//   - The main thread, and any other that the floor has not started, is adopted at its first operation, where it waits
//     for its turn.
//   - All stay on the processor on which the first one began, because one runs at a time.
//   - Whoever has the turn must not wait for another thread by other means than this floor's: std::thread::join,
//     std::future or a std::mutex that is held at a switch point would keep the turn for ever. The first use of a
//     static object of a function must not make a switch point either, because the compiler's lock for it is none of
//     the floor's.
//   - Which thread goes on while nothing is explored is fixed: whoever has the turn keeps it until it waits, rests
//     (relax) or has passed many switch points, and then it is the next one's that can go on.
//
// Any thread may call. Numbers of threads are positive for those of a schedule, in the order of their start from 1 on,
// and negative for all others.

#include "platform/simulated/SwitchPoint.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace platform::simulated
{

/// What there is to decide at a switch point: which of these threads goes on.
struct Options
{
    std::vector<int> threads; ///< the first goes on unless there is a reason for another; at least two
    std::size_t firstCostly;  ///< those from this one on preempt a thread that could go on, or let one that rests go on
    std::optional<int> rester; ///< who rests here (relax)
    std::uint64_t step;        ///< switch points of the schedule until here
};

class Strategy
{
public:
    virtual ~Strategy() = default;
    /// Returns the place in options.threads of who goes on. Called by whichever thread has the turn; it uses nothing
    /// of the floor.
    virtual std::size_t choose(const Options& options) = 0;
    /// The schedule until here, for reports.
    [[nodiscard]] virtual const std::string& text() const = 0;
};

/// For reports.
struct WaitReason
{
    const char* what;
    int owner = 0; ///< the number of the thread that has it, if it is one's
};

class Scheduler
{
public:
    [[nodiscard]] static Scheduler& instance();

    void pass(bool isResting);

    /// The calling thread leaves the turn until wakeAt was called for the object, or until the deadline. Returns
    /// whether it was woken. Others may be woken for the same: look again.
    [[nodiscard]] bool waitAt(const void* object, WaitReason reason, const std::int64_t* deadlineNs);
    void wakeAt(const void* object);

    [[nodiscard]] int ownNumber();
    void setOwnName(std::string name);

    /// Virtual time in ns. readClock moves it by 100 ns.
    [[nodiscard]] std::int64_t now();
    [[nodiscard]] std::int64_t readClock();
    [[nodiscard]] std::int64_t nowPlus(std::uint32_t durationMs);
    void advance(std::int64_t durationNs);
    /// 0 ms: rests as relax does.
    void sleep(std::uint32_t durationMs);
    /// UTC in ns since 1970; a fixed moment at the start of each schedule.
    [[nodiscard]] std::int64_t readUtc();

    struct Thread;
    /// A thread that is about to be started by the calling one. It calls enter first; forget takes it back.
    [[nodiscard]] Thread* announce();
    void enter(Thread* thread);
    void forget(Thread* thread);

    /// The calling thread runs one schedule: it lets all others come to rest, then the first thread that it starts, and
    /// whatever threads come from that, are the schedule's. waitForEnd returns when all of them have ended and the
    /// others rest again, or at a failure, whose text it returns. The threads of a failed schedule stand still for
    /// ever. A thread that keeps the turn for 10 s of real time is told on standard error.
    void beginSchedule(std::uint64_t maxSteps);
    [[nodiscard]] std::optional<std::string> waitForEnd(Strategy& strategy);

    [[nodiscard]] std::uint64_t stepsOfSchedule() const { return m_steps; } ///< by the thread that has run it

    /// What each thread of the schedule waits for that waits; empty if none does.
    [[nodiscard]] std::string describeWaits();

    /// The schedule ends here with this failure. Returns only if there is none.
    void fail(const std::string& text);

private:
    using Lock = std::unique_lock<std::mutex>;

    Scheduler() = default;
    Thread& adopted(Lock& lock);
    void leave(Thread* thread);
    static void onThreadEnd(void* thread);

    void awaitTurn(Lock& lock, Thread& self);
    void countStep(Lock& lock);
    void handOn(Lock& lock, Thread& self, bool isResting);
    void giveTurnTo(Thread* thread);
    [[nodiscard]] Thread* chooseNext(const Thread& self, bool isResting);
    [[nodiscard]] Thread* whenNobodyCanRun();
    [[nodiscard]] std::vector<Thread*> thoseWhoCanRun(const Thread& self, bool isResting);
    void setTime(std::int64_t nowNs);
    [[nodiscard]] Thread* endSchedule(std::string failure);
    [[nodiscard]] std::string nameOf(int number) const;
    [[nodiscard]] std::string waits() const;
    [[nodiscard]] bool isScheduleDone() const;

    std::mutex m_lock; // guards everything
    std::vector<Thread*> m_threads;
    Thread* m_running = nullptr; // who has the turn
    std::int64_t m_nowNs = 3'600'000'000'000;
    std::optional<std::int64_t> m_utcOffsetNs;
    std::uint32_t m_passesInARow = 0;
    int m_lastNumberOfOthers = 0;

    // What belongs to the schedule that is being run.
    Thread* m_explorer = nullptr; // who runs it
    Strategy* m_strategy = nullptr;
    std::optional<std::string> m_failure;
    std::uint64_t m_steps = 0;
    std::uint64_t m_maxSteps = 0;
    std::uint32_t m_idleMoves = 0; // of time, since a thread of the schedule ran
    int m_lastNumber = 0;
};

} // namespace platform::simulated
