#pragma once

// Decides which thread goes on. All threads that use this floor are real ones, but exactly one of them has the turn and
// runs; each of the others sleeps on a condition variable of its own. At a switch point the turn may be handed on; a
// thread that waits always hands it on.
//
//     startThread               gets the turn
//     -----------> can run -----------------------> has the turn -----> stopped: the thread has ended, or
//                     ^    <-----------------------     |               its schedule has failed
//                     |      hands on the turn          | waits
//                     +----------- waiting <------------+
//                        wakeAt, or the deadline passes
//
// Time is virtual. It moves to the next deadline when no thread can run, and by 100 ns with each reading and each rest.
//
//   - A thread ends when the system has released its values (ThreadValue), so that what the releases do is explored.
//   - The main thread, and any other that this floor has not started, is adopted at its first operation, where it waits
//     for the turn.
//   - All threads stay on the processor on which the first one began, because only one runs at a time.
//   - The thread that has the turn must not wait for another one by other means than this floor's: std::thread::join,
//     std::future or a std::mutex that is held at a switch point would keep the turn for ever. Nor may the
//     initialization of a function's static object make a switch point: the floor does not know the compiler's lock.
//   - The order is fixed while nothing is explored: a thread keeps the turn until it waits, rests (relax) or has passed
//     1,000 switch points. Then the next thread that can run gets it.
//
// Any thread may call. The threads of a schedule have the numbers 1, 2, ... in the order of their start; all others
// have negative numbers.

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

/// The threads of which one goes on after a switch point.
struct Options
{
    std::vector<int> threads; ///< their numbers, at least two; the first one goes on in the usual course
    /// Choosing from this place on counts as a preemption: a thread that could go on does not, or one that rests does.
    std::size_t firstPreemption;
    std::optional<int> resting; ///< the thread that rests at this switch point (relax)
    std::uint64_t step;         ///< the number of switch points of the schedule so far
};

class Strategy
{
public:
    virtual ~Strategy() = default;
    /// Returns the place in options.threads of the thread that goes on. Any thread calls it, under the scheduler's
    /// lock; it must not use this floor.
    virtual std::size_t choose(const Options& options) = 0;
    /// The schedule so far, for reports.
    [[nodiscard]] virtual const std::string& text() const = 0;
};

/// What a thread waits for, for reports.
struct WaitReason
{
    const char* what;
    int owner = 0; ///< the number of the thread that holds it; 0 if none does
};

class Scheduler
{
public:
    [[nodiscard]] static Scheduler& instance();

    /// Another thread may go on here. If isResting, the other threads that can run come first.
    void switchPoint(bool isResting);

    /// Waits until wakeAt is called for the object, or until the deadline in virtual time; null means no limit. Returns
    /// whether it was woken. wakeAt wakes all threads that wait for the object, so the caller must look again.
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
    /// Makes the record of a thread that the calling one is about to start. The new thread calls enter first. If it
    /// could not be started, forget deletes the record.
    [[nodiscard]] Thread* announce();
    void enter(Thread* thread);
    void forget(Thread* thread);

    /// The calling thread, the explorer, runs one schedule. beginSchedule returns when all other threads rest. The
    /// thread that the explorer starts next, and all threads that are started after it, belong to the schedule.
    /// waitForEnd returns when these have ended and the others rest again, or when the schedule fails; then it returns
    /// the failure. The threads of a failed schedule stand still for ever. A thread that keeps the turn for 10 s of
    /// real time is reported on standard error.
    void beginSchedule(std::uint64_t maxSteps);
    [[nodiscard]] std::optional<std::string> waitForEnd(Strategy& strategy);

    /// The switch points of the last schedule; for its explorer.
    [[nodiscard]] std::uint64_t stepsOfSchedule() const { return m_steps; }

    /// Which threads of the schedule wait, and for what; empty if none waits.
    [[nodiscard]] std::string describeWaits();

    /// Ends the schedule with this failure and does not return. Returns if there is no schedule.
    void fail(const std::string& text);

private:
    using Lock = std::unique_lock<std::mutex>;

    Scheduler() = default;
    Thread& callingThread(Lock& lock);
    void leave(Thread* thread);
    static void onThreadEnd(void* thread);

    void awaitTurn(Lock& lock, Thread& self);
    void countStep(Lock& lock);
    void handOn(Lock& lock, Thread& self, bool isResting);
    void giveTurnTo(Thread* thread);
    [[nodiscard]] Thread* chooseNext(const Thread& self, bool isResting);
    [[nodiscard]] Thread* whenNobodyCanRun();
    [[nodiscard]] std::vector<Thread*> runnableThreads(const Thread& self, bool isResting);
    void setTime(std::int64_t nowNs);
    [[nodiscard]] Thread* endSchedule(std::string failure);
    [[nodiscard]] std::string nameOf(int number) const;
    [[nodiscard]] std::string describeWaitsLocked() const;
    [[nodiscard]] bool isScheduleDone() const;

    std::mutex m_lock;              // guards everything
    std::vector<Thread*> m_threads; // in the order of their start
    Thread* m_running = nullptr;    // the thread that has the turn
    std::int64_t m_nowNs = 3'600'000'000'000;
    std::optional<std::int64_t> m_utcOffsetNs; // UTC less virtual time
    std::uint32_t m_numKeptTurns = 0;          // switch points at which the turn was kept while nothing was explored
    int m_lastNegativeNumber = 0;

    // The schedule that is being run.
    Thread* m_explorer = nullptr; // null while nothing is explored
    Strategy* m_strategy = nullptr;
    std::optional<std::string> m_failure;
    std::uint64_t m_steps = 0;
    std::uint64_t m_maxSteps = 0;
    std::uint32_t m_numIdleMoves = 0; // how often the time has moved since a thread of the schedule ran last
    int m_lastScheduleNumber = 0;
};

} // namespace platform::simulated
