#pragma once

// A named pool of worker threads that execute queued actions, one at a time per thread, in the order in which they were
// enqueued. The workers are watched by the deadlock checker, and reports show how many actions are queued.
//
//     class Flush : public ActiveObject::Action { void execute() override { ... } };
//     ActiveObject writer("Writer", &isWriterVerbose);
//     writer.open();                                                     // once for each worker
//     writer.enqueue(GuardedMemory::create<Flush>({"Flush", SourcePlace::here()}));
//
// Any thread may enqueue, also from within actions and observers of futures. Opening, terminating and destroying belong
// to the owner's thread. A worker holds a keepalive of the deadlock checker that is armed while an action runs: an
// action that takes longer than its timeout ends the process. The object itself never interrupts an action.
//
// An action goes through two places, each with a lock of its own, so that producers and workers seldom meet:
//
//     enqueue --> m_arrivals --(64 at a time, by a worker that finds m_pq empty)--> m_pq --> executed and destroyed
//
// m_pq.itemCount() counts the actions in both places. Both are emptied at shutdown, when all workers have left.
// IdleWorkers.h shows how workers fall asleep and are woken.

#include "datapath/common/infra/ActionArrivals.h"
#include "datapath/common/infra/DeadLockChecker.h"
#include "datapath/common/infra/GuardedPtr.h"
#include "datapath/common/infra/IdleWorkers.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/PriorityQueue.h"
#include "datapath/common/infra/RateMonitor.h"
#include "datapath/common/infra/Semaphore.h"
#include "datapath/common/infra/windows/ThreadWrapper.h"
#include "platform/Atomic.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class ActiveObject : public ThreadWrapper
{
public:
    /// One piece of work, an object of the guarded allocator.
    class Action
    {
    public:
        Action() = default;
        Action(const Action&) = delete;
        Action& operator=(const Action&) = delete;
        virtual ~Action() = default;

        /// Does the work. A worker calls it without a lock of the active object.
        virtual void execute() = 0;

        /// How long execute may take before the process is ended, in seconds.
        [[nodiscard]] virtual std::uint32_t getDlcTimeoutSec() const;

    protected:
        // The worker sets these before it calls execute. They are valid while execute runs.
        std::uint32_t m_priority = 0;        // the action's priority in the queue
        std::uint32_t m_threadIndex = 0;     // the worker's index; the first worker has 1
        DlcKeepalive* m_keepalive = nullptr; // the worker's keepalive; long actions mark it alive

        std::uint32_t m_dlcTimeoutSec = 0; // 0 stands for t_defaultDlcTimeoutSec

    private:
        friend ActiveObject;
    };

    /// The flag, which must outlive the object, turns on its verbose lines; objects of one kind share a flag. A null
    /// name ends the process.
    ActiveObject(const char* name, const platform::Atomic<bool>* forceVerbose);

    /// The object's name, which is also the name of its workers in the log.
    [[nodiscard]] std::string getTypeName() const override { return m_name; }

    /// Terminates the workers. A derived class that overrides onThreadStart has to call terminateAllThreads in its own
    /// destructor.
    ~ActiveObject() override;

    /// The number of workers that have started, less the number of queued actions, plus 1; at least 0.
    [[nodiscard]] virtual std::uint32_t getIdleEstimate() TAVRO_EXCLUDES(m_mutex);

    /// Each worker calls this once, on its own thread, before it looks for work. The first worker's index is 1.
    virtual void onThreadStart(std::uint32_t /*threadIndex*/) {}

    /// The object owns the action from now on. It destroys the action after its execution, or at shutdown, when the
    /// last worker has left. An action that is enqueued after that is neither executed nor destroyed nor written to and
    /// stays the caller's; std::bad_alloc leaves it to the caller, too. The object may be destroyed as soon as a worker
    /// has executed the action, even before this returns.
    [[gnu::hot]] void enqueue(Action* action) TAVRO_EXCLUDES(m_mutex);

    /// Waits until each worker has finished the action that it executes and has left. Then logs and destroys the
    /// actions that are still queued, including those that were enqueued meanwhile.
    void terminateAllThreads() TAVRO_EXCLUDES(m_mutex);

    /// The object owns the monitor, which replaces the one before; null takes it away. Until shutdown is over, the
    /// monitor counts each action as an item, and each period in which actions are queued as a task.
    void attachRateMonitor(GuardedPtr<RateMonitor> monitor) TAVRO_EXCLUDES(m_mutex);

protected:
    [[gnu::hot]] void run() override TAVRO_EXCLUDES(m_mutex);

private:
    static constexpr std::size_t CACHE_LINE = 64; // bytes

    using Queue = PriorityQueue<Action*>;
    using QueuedAction = Queue::Taken; // a null item stands for no action; returned in two registers

    // The functions that producers and workers run for each action are marked hot, which puts them together in memory.
    // Fewer cache lines of code then have to be fetched when actions come after a pause.
    [[gnu::hot]] void addArrival(Action* action) TAVRO_EXCLUDES(m_arrivalsMutex);
    [[nodiscard, gnu::hot]] QueuedAction waitForAction() TAVRO_EXCLUDES(m_mutex, m_arrivalsMutex);
    [[nodiscard, gnu::hot]] QueuedAction takeNext() TAVRO_EXCLUDES(m_mutex, m_arrivalsMutex);
    [[gnu::hot]] void importArrivals(std::uint64_t maxActions) TAVRO_REQUIRES(m_mutex) TAVRO_EXCLUDES(m_arrivalsMutex);
    [[nodiscard, gnu::hot]] QueuedAction extract() TAVRO_REQUIRES(m_mutex);
    [[gnu::hot]] void wakeHelp() TAVRO_EXCLUDES(m_arrivalsMutex);
    [[gnu::hot]] void waitUntilNeeded() TAVRO_EXCLUDES(m_mutex, m_arrivalsMutex);
    [[nodiscard, gnu::hot]] bool isWorkerNeeded() const;
    [[nodiscard, gnu::hot]] bool fallAsleep() TAVRO_EXCLUDES(m_arrivalsMutex);
    [[gnu::hot]] void sleep() TAVRO_EXCLUDES(m_mutex, m_arrivalsMutex);
    [[nodiscard]] bool leaveSleepers() TAVRO_EXCLUDES(m_arrivalsMutex);
    [[gnu::hot]] static void execute(const QueuedAction& queued, std::uint32_t threadIndex, DlcKeepalive& keepalive);
    [[gnu::hot]] static void release(Action* action, void* memory);

    [[nodiscard]] bool isVerbose() const;
    void logTimedOutWait() TAVRO_EXCLUDES(m_mutex);
    void logFailedExtraction() const TAVRO_REQUIRES(m_mutex);
    void monitorEnqueue() TAVRO_REQUIRES(m_mutex);
    void monitorEmptyQueue() TAVRO_REQUIRES(m_mutex);
    void stopWorkers() TAVRO_EXCLUDES(m_mutex, m_arrivalsMutex);
    [[nodiscard]] std::vector<Action*> drain() TAVRO_EXCLUDES(m_mutex, m_arrivalsMutex);
    void logRemaining() const TAVRO_REQUIRES(m_mutex);

    // What producers write with each action, what changes only when a worker falls asleep or wakes, and what workers
    // write with each action lie in different cache lines, so that producers and workers seldom wait for each other.
    Mutex m_arrivalsMutex; // taken inside m_mutex; guards the arrivals and the idle workers, which state exceptions
    ActiveObjectInternal::ActionArrivals<Action> m_arrivals;
    platform::Atomic<bool> m_isMonitored = false;
    [[maybe_unused]] const std::array<char, CACHE_LINE> m_afterProducers{};

    ActiveObjectInternal::IdleWorkers m_idleWorkers;
    platform::Atomic<bool> m_enabled = true; // false from shutdown on; written under both locks
    const platform::Atomic<bool>* const m_forceVerbose;
    const std::string m_name;
    std::uint32_t m_numLeft = 0; // workers that terminateAllThreads has seen leave
    Semaphore m_left{0};         // each worker signals it as the last thing that it does with the object

    Mutex m_mutex; // the workers' lock; free while an action runs or is destroyed
    Queue m_pq;    // guarded by m_mutex, except itemCount
    ActiveObjectInternal::FetchedActions<Action> m_fetched TAVRO_GUARDED_BY(m_mutex); // between m_arrivals and m_pq
    GuardedPtr<RateMonitor> m_rateMonitor TAVRO_GUARDED_BY(m_mutex);
    std::uint32_t m_numStarted TAVRO_GUARDED_BY(m_mutex) = 0; // workers that have entered run
};
