#pragma once

// A named pool of worker threads that execute queued actions: one at a time per thread, higher priorities first, and
// those of one priority in the order in which they came.
//
//     class Flush : public ActiveObject::Action { void execute() override { ... } };
//     ActiveObject writer("Writer", &isWriterVerbose);
//     writer.open();                                                     // once for each worker
//     writer.enqueue(MemShield::create<Flush>({"Flush", SourcePlace::here()}));
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

#include <atomic>
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
    };

    /// The flag, which must outlive the object, turns on the verbose lines of all objects of one kind. A missing name
    /// ends the process.
    ActiveObject(const char* name, const std::atomic<bool>* forceVerbose);

    /// The name: what the log calls the workers.
    [[nodiscard]] std::string getTypeName() const override { return m_name; }

    /// Terminates the workers. A class that overrides onThreadStart has to do that in its own destructor.
    ~ActiveObject() override;

    /// How many more actions would find a worker free, and one more; 0 if there is work for all.
    [[nodiscard]] virtual std::uint32_t getIdleEstimate() EXCLUDES(m_mutex);

    /// Called once by each worker before it looks for work.
    virtual void onThreadStart(std::uint32_t /*threadIndex*/) {}

    /// The action belongs to the object from now on, which destroys it after it was executed, or at shutdown. One
    /// that comes after the shutdown is left as it is.
    void enqueue(Action* action) EXCLUDES(m_mutex);

    /// Waits until each worker has finished what it executes and has left, then logs and destroys what is still
    /// queued.
    void terminateAllThreads() EXCLUDES(m_mutex);

    /// From now on the monitor, which belongs to the object, counts each action as an item, and each period in which
    /// actions are queued as a task.
    void attachRateMonitor(GuardedPtr<RateMonitor> monitor) EXCLUDES(m_mutex);

protected:
    void run() override EXCLUDES(m_mutex);

private:
    struct Extracted
    {
        Action* action = nullptr;
        std::uint32_t priority = 0;
    };

    /// The actions that workers see, and the number of those that have arrived since.
    class ActionQueue final : public PriorityQueue<Action*>
    {
    public:
        using PriorityQueue::PriorityQueue;

        [[nodiscard]] std::uint64_t itemCount() const override
        {
            return size() + m_numArrived.load(std::memory_order_relaxed);
        }
        void setNumArrived(std::uint64_t count) { m_numArrived.store(count, std::memory_order_relaxed); }

    private:
        std::atomic<std::uint64_t> m_numArrived = 0;
    };

    void addArrival(Action* action) EXCLUDES(m_arrivalsMutex);
    [[nodiscard]] Extracted waitForAction() EXCLUDES(m_mutex);
    [[nodiscard]] bool waitUntilQueued() REQUIRES(m_mutex);
    [[nodiscard]] bool importArrivals() REQUIRES(m_mutex);
    void look() const;
    [[nodiscard]] bool beginSleeping() REQUIRES(m_mutex) EXCLUDES(m_arrivalsMutex);
    [[nodiscard]] bool sleep() EXCLUDES(m_mutex, m_arrivalsMutex);
    [[nodiscard]] bool reserveWorker() REQUIRES(m_arrivalsMutex);
    [[nodiscard]] bool reserveHelp() REQUIRES(m_mutex) EXCLUDES(m_arrivalsMutex);
    [[nodiscard]] bool extract(Extracted& extracted) REQUIRES(m_mutex);
    void logTimedOutWait() const REQUIRES(m_mutex);
    void monitorEnqueue() REQUIRES(m_mutex);
    void monitorEmptyQueue() REQUIRES(m_mutex);
    [[nodiscard]] std::vector<Action*> drain() EXCLUDES(m_mutex);
    static void execute(Action& action, std::uint32_t priority, std::uint32_t threadIndex, DlcKeepalive& keepalive);
    static void release(Action* action);

    Mutex m_mutex;    // of the workers; free while an action is executed or destroyed
    ActionQueue m_pq; // guarded by m_mutex, but for the number of items
    std::vector<Action*> m_imported GUARDED_BY(m_mutex);
    std::atomic<bool> m_enabled = true;                 // until shutdown; written under the lock
    std::uint32_t m_numStarted GUARDED_BY(m_mutex) = 0; // workers that have entered run
    std::uint32_t m_numRunning GUARDED_BY(m_mutex) = 0; // workers inside run
    std::uint32_t m_threadIndexCounter GUARDED_BY(m_mutex) = 0;
    const std::atomic<bool>* const m_forceVerbose;
    const std::string m_name;
    GuardedPtr<RateMonitor> m_rateMonitor GUARDED_BY(m_mutex);
    std::atomic<bool> m_isMonitored = false;

    // What producers share with each other, apart from what the workers share: a worker comes here only when it has
    // nothing else to do, and takes everything at once.
    alignas(64) Mutex m_arrivalsMutex; // taken inside m_mutex
    std::vector<Action*> m_arrivals GUARDED_BY(m_arrivalsMutex);

    // Workers without work. Those that sleep are let go one by one: whoever needs a worker moves one from
    // m_numSleeping to m_numLooking and then signals m_wake, which is the worker's to take. While a worker is looking,
    // no other is needed.
    std::atomic<std::uint32_t> m_numSleeping = 0; // written under m_arrivalsMutex
    std::atomic<std::uint32_t> m_numLooking = 0;  // written by who has looked, and under m_arrivalsMutex
    Semaphore m_wake{0};

    Semaphore m_left{0}; // signalled by each worker as the last thing that it does with the object
};
