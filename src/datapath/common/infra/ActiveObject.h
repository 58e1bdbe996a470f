#pragma once

// A named pool of worker threads that execute queued actions: one at a time per thread, higher priorities first, and
// those of one priority in the order in which they came.
//
//     class Flush : public ActiveObject::Action { void execute() override { ... } };
//     ActiveObject writer("Writer", &isWriterVerbose);
//     writer.open();                                                     // once for each worker
//     writer.enqueue(GuardedMemory::create<Flush>({"Flush", SourcePlace::here()}));
//
// Any thread may enqueue, actions and observers of futures included. Opening, terminating and destroying belong to
// the owner's thread. A worker holds a keepalive of the deadlock checker that is armed while an action runs: one that
// takes longer than its timeout ends the process. The object itself never interrupts an action.

#include "datapath/common/infra/DeadLockChecker.h"
#include "datapath/common/infra/GuardedPtr.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/PriorityQueue.h"
#include "datapath/common/infra/RateMonitor.h"
#include "datapath/common/infra/Semaphore.h"
#include "datapath/common/infra/windows/ThreadWrapper.h"
#include "platform/Atomic.h"
#include "platform/Sync.h"

#include <cstdint>
#include <string>
#include <vector>

class ActiveObject : public ThreadWrapper
{
public:
    /// One piece of work: an object of the guarded allocator.
    class Action
    {
    public:
        Action() = default;
        Action(const Action&) = delete;
        Action& operator=(const Action&) = delete;
        virtual ~Action() = default;

        /// The work itself, on a worker, without a lock of the active object.
        virtual void execute() = 0;

        /// How long execute may take before the process is ended, in seconds.
        [[nodiscard]] virtual std::uint32_t getDlcTimeoutSec() const;

    protected:
        // Set by the worker before it calls execute, and valid while that runs.
        std::uint32_t m_priority = 0;        // that it was queued at
        std::uint32_t m_threadIndex = 0;     // of the worker, from 1 on
        DlcKeepalive* m_keepalive = nullptr; // of the worker: to be marked alive by long actions

        std::uint32_t m_dlcTimeoutSec = 0; // 0 for t_defaultDlcTimeoutSec

    private:
        friend ActiveObject;

        Action* m_next = nullptr; // of those that have arrived and are not queued yet
    };

    /// The flag, which must outlive the object, turns on the verbose lines of all objects of one kind. A missing name
    /// ends the process.
    ActiveObject(const char* name, const platform::Atomic<bool>* forceVerbose);

    /// The name: what the log calls the workers.
    [[nodiscard]] std::string getTypeName() const override { return m_name; }

    /// Terminates the workers. A class that overrides onThreadStart has to do that in its own destructor.
    ~ActiveObject() override;

    /// How many more actions would find a worker free, and one more; 0 if there is work for all.
    [[nodiscard]] virtual std::uint32_t getIdleEstimate() EXCLUDES(m_mutex);

    /// Called once by each worker before it looks for work.
    virtual void onThreadStart(std::uint32_t /*threadIndex*/) {}

    /// The action belongs to the object from now on, which destroys it after it was executed, or at shutdown, when the
    /// last worker has left. One that comes after that is left alone: it is neither executed nor destroyed nor written
    /// to, and stays the caller's.
    [[gnu::hot]] void enqueue(Action* action) EXCLUDES(m_mutex);

    /// Waits until each worker has finished what it executes and has left, then logs and destroys what is still
    /// queued, also what has come meanwhile.
    void terminateAllThreads() EXCLUDES(m_mutex);

    /// From now on the monitor, which belongs to the object, counts each action as an item, and each period in which
    /// actions are queued as a task, until the shutdown is over.
    void attachRateMonitor(GuardedPtr<RateMonitor> monitor) EXCLUDES(m_mutex);

protected:
    [[gnu::hot]] void run() override EXCLUDES(m_mutex);

private:
    struct Extracted
    {
        Action* action = nullptr;
        std::uint32_t priority = 0;
    };

    // The paths of a producer and of a worker. They lie together in memory: after a rest, code has to be fetched too.
    [[gnu::hot]] void addArrival(Action* action) EXCLUDES(m_arrivalsMutex);
    [[nodiscard, gnu::hot]] bool reserveWorker() REQUIRES(m_arrivalsMutex);
    [[nodiscard, gnu::hot]] Extracted waitForAction() EXCLUDES(m_mutex);
    [[nodiscard, gnu::hot]] bool waitUntilQueued() REQUIRES(m_mutex);
    [[gnu::hot]] void look() const;
    [[nodiscard, gnu::hot]] bool beginSleeping() REQUIRES(m_mutex) EXCLUDES(m_arrivalsMutex);
    [[gnu::hot]] void sleep() EXCLUDES(m_mutex, m_arrivalsMutex);
    [[gnu::hot]] void importArrivals(std::uint64_t most) REQUIRES(m_mutex) EXCLUDES(m_arrivalsMutex);
    [[nodiscard, gnu::hot]] bool extract(Extracted& extracted) REQUIRES(m_mutex);
    [[nodiscard, gnu::hot]] bool reserveHelp() REQUIRES(m_mutex) EXCLUDES(m_arrivalsMutex);
    [[gnu::hot]] static void execute(Action& action, std::uint32_t priority, std::uint32_t threadIndex,
                                     DlcKeepalive& keepalive);
    [[gnu::hot]] static void release(Action* action, void* memory);

    [[nodiscard]] bool isVerbose() const;
    void logTimedOutWait() EXCLUDES(m_mutex);
    void logFailedExtraction() const REQUIRES(m_mutex);
    void monitorEnqueue() REQUIRES(m_mutex);
    void monitorEmptyQueue() REQUIRES(m_mutex);
    [[nodiscard]] std::vector<Action*> drain() EXCLUDES(m_mutex);
    void logRemaining() const REQUIRES(m_mutex);

    // What producers share, apart from what workers share: a worker comes here only when it has nothing else to do, and
    // takes all that has arrived. Together in as few cache lines as can be: after a rest each one has to be fetched.
    Mutex m_arrivalsMutex; // taken inside m_mutex

    // Workers without work. Whoever needs one takes it from those that sleep and posts m_wake, which is one worker's to
    // take. While one is looking, no other is needed: it does not fall asleep without a last look under both locks.
    // More fall asleep only under both locks, so that under m_mutex alone it is certain when none sleeps.
    platform::Atomic<std::uint32_t> m_numSleeping = 0; // written under m_arrivalsMutex
    platform::Atomic<std::uint32_t> m_numLooking = 0;
    platform::NativeSemaphore m_wake{0};
    Action* m_firstArrival GUARDED_BY(m_arrivalsMutex) = nullptr;
    Action* m_lastArrival GUARDED_BY(m_arrivalsMutex) = nullptr;
    platform::Atomic<std::uint64_t> m_numArrived = 0;     // ever; written under m_arrivalsMutex
    bool m_isDrained GUARDED_BY(m_arrivalsMutex) = false; // what comes is left alone; written under both locks
    platform::Atomic<bool> m_isMonitored = false;
    platform::Atomic<bool> m_enabled = true; // until shutdown; written under both locks

    // Seldom used: these keep the two sides out of each other's cache lines.
    const platform::Atomic<bool>* const m_forceVerbose;
    const std::string m_name;
    std::uint32_t m_numLeft = 0; // of the workers, as terminateAllThreads knows
    Semaphore m_left{0};         // signalled by each worker as the last thing that it does with the object

    Mutex m_mutex;               // of the workers; free while an action is executed or destroyed
    PriorityQueue<Action*> m_pq; // guarded by m_mutex, but for the number of items
    Action* m_nextArrival GUARDED_BY(m_mutex) = nullptr; // of those that a worker has fetched, and the rest after it
    GuardedPtr<RateMonitor> m_rateMonitor GUARDED_BY(m_mutex);
    std::uint32_t m_numStarted GUARDED_BY(m_mutex) = 0; // workers that have entered run
    std::uint32_t m_numRunning GUARDED_BY(m_mutex) = 0; // workers inside run
    std::uint32_t m_threadIndexCounter GUARDED_BY(m_mutex) = 0;
};
