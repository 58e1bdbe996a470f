#pragma once

// Finds threads that have stopped making progress. A thread that wants to be watched holds a DlcKeepalive, arms it
// while it works, and marks it alive from time to time:
//
//     DlcKeepalive keepalive("Writer");          // on the thread's stack
//     keepalive.setTimeoutSec(300);
//     for (;;) { keepalive.setAlive(); ... }
//
// The DeadLockCheckerManager checks every t_deadlockCheckerIntervalSec seconds, on a thread of its own. It reports a
// keepalive that has shown no progress for more than an interval. If there has been none for more than the keepalive's
// timeout, it logs the back traces of all watched threads and ends the process. (t_disableBtPrint leaves the back
// traces out. It has no default: if it is not set, the process ends at that point.)

#include "datapath/common/infra/Future.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/base/RcStatus.h"
#include "datapath/common/infra/base/Singleton.h"
#include "datapath/common/infra/windows/ThreadWrapper.h"
#include "platform/Atomic.h"

#include <cstdint>
#include <limits>
#include <set>
#include <string>

/// Would be asked before a timeout ends the process. Nothing implements it; callers pass null.
class DlcTimeoutListener;

/// Watched from its construction to its destruction. Only the owner calls the setters; any thread may read.
class DlcKeepalive : public FutureInternal::FutureObserver<RcStatus>
{
public:
    /// checkLease returns this when there is nothing to report.
    static constexpr std::uint32_t NOTHING_DUE = std::numeric_limits<std::uint32_t>::max();

    /// Starts armed and alive, with a timeout of t_defaultDlcTimeoutSec. An empty name stands for "pid=" and the
    /// calling thread's id. The first keepalive starts the manager.
    explicit DlcKeepalive(const std::string& name, DlcTimeoutListener* listener = nullptr);
    DlcKeepalive(const DlcKeepalive&) = delete;
    DlcKeepalive& operator=(const DlcKeepalive&) = delete;
    ~DlcKeepalive() override;

    /// As the observer of a future that is set: destroys and releases the keepalive, which must come from the guarded
    /// allocator.
    void update(const RcStatus& value) override;

    /// From now on progress is expected; the call itself counts as progress.
    void arm()
    {
        setAlive(); // before m_armed: a check in between must not find it armed without progress
        m_armed.store(true, std::memory_order_release);
    }
    void disarm() { m_armed.store(false, std::memory_order_relaxed); }
    void setAlive() { m_alive.store(true, std::memory_order_release); }
    void setTimeoutSec(std::uint32_t timeoutSec) { m_timeoutSec.store(timeoutSec, std::memory_order_release); }

    [[nodiscard]] bool isArmed() const { return m_armed.load(std::memory_order_relaxed); }
    [[nodiscard]] std::uint32_t timeoutSec() const { return m_timeoutSec.load(std::memory_order_acquire); }
    [[nodiscard]] const std::string& name() const { return m_name; }

    /// The manager calls this under its lock, with the clock's timestamp in ms. Reports and ends the process as
    /// described above. If it has reported, returns the seconds that are left of the timeout (modulo 2^32), else
    /// NOTHING_DUE.
    std::uint32_t checkLease(std::uint64_t nowMs, std::uint32_t intervalSec);

private:
    static void printThreadsBackTrace();

    platform::Atomic<bool> m_armed = true;
    platform::Atomic<bool> m_alive = true; // there has been progress since the last check
    std::uint64_t m_lastAliveMs = 0;       // timestamp of the last check that found it alive or disarmed
    const std::string m_name;
    platform::Atomic<std::uint32_t> m_timeoutSec;
    DlcTimeoutListener* const m_listener;
};

/// Checks all keepalives, one after another, on a thread of its own. The first keepalive makes it.
class DeadLockCheckerManager final : public Singleton<DeadLockCheckerManager, DeadLockCheckerManager>,
                                     public ThreadWrapper
{
public:
    /// The keepalive is not owned. Registering it twice ends the process.
    void registerChecker(DlcKeepalive* checker) TAVRO_EXCLUDES(m_lock);

    /// Waits for the end of a check that is under way. A keepalive that is not registered ends the process.
    void unregisterChecker(DlcKeepalive* checker) TAVRO_EXCLUDES(m_lock);

private:
    friend Singleton;

    DeadLockCheckerManager() { open(); }
    void run() override TAVRO_EXCLUDES(m_lock);

    // Guards the set, and keeps its keepalives from being destroyed during a check. The locks of MemWatcher, of Tweaks
    // and of log clients are taken inside it.
    Mutex m_lock;
    StlMemShiledContainer<std::set<DlcKeepalive*>> m_lockSet TAVRO_GUARDED_BY(m_lock){"DeadLockCheckers"};
};
