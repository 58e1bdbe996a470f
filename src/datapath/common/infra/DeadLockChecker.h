#pragma once

// Finds threads that have stopped making progress. A thread that wants to be watched holds a DlcKeepalive, arms it
// while it works, and marks it alive from time to time:
//
//     DlcKeepalive keepalive("Writer");          // on the thread's stack
//     keepalive.setTimeoutSec(300);
//     for (;;) { keepalive.setAlive(); ... }
//
// The DeadLockCheckerManager looks every t_deadlockCheckerIntervalSec seconds, on a thread of its own. A keepalive
// without progress for more than an interval is reported; one without progress for more than its timeout ends the
// process, after the back traces of all watched threads (unless t_disableBtPrint is set; it has no default, so a
// missing one ends the process too).

#include "datapath/common/infra/Future.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/RcStatus.h"
#include "datapath/common/infra/Singleton.h"
#include "datapath/common/infra/windows/ThreadWrapper.h"
#include "platform/Atomic.h"

#include <cstdint>
#include <limits>
#include <set>
#include <string>

/// To be asked before a timeout ends the process. Nothing implements it yet: pass null.
class DlcTimeoutListener;

/// Watched from its construction to its destruction, by any thread. The setters are the owner's.
class DlcKeepalive : public FutureInternal::FutureObserver<RcStatus>
{
public:
    /// What checkLease returns when there is nothing to report.
    static constexpr std::uint32_t NOTHING_DUE = std::numeric_limits<std::uint32_t>::max();

    /// Armed and alive. Without a name it is called "pid=" and the calling thread's id. The timeout is
    /// t_defaultDlcTimeoutSec. The first keepalive starts the manager.
    explicit DlcKeepalive(const std::string& name, DlcTimeoutListener* listener = nullptr);
    DlcKeepalive(const DlcKeepalive&) = delete;
    DlcKeepalive& operator=(const DlcKeepalive&) = delete;
    ~DlcKeepalive() override;

    /// For a keepalive of the guarded allocator that lasts until a future is set: destroys and releases it.
    void update(const RcStatus& value) override;

    /// Progress is expected from now on, and there has been some just now.
    void arm()
    {
        setAlive(); // first: a check in between must not see an armed keepalive without progress
        m_armed.store(true, std::memory_order_release);
    }
    void disarm() { m_armed.store(false, std::memory_order_relaxed); }
    void setAlive() { m_alive.store(true, std::memory_order_release); }
    void setTimeoutSec(std::uint32_t timeoutSec) { m_timeoutSec.store(timeoutSec, std::memory_order_release); }

    [[nodiscard]] bool isArmed() const { return m_armed.load(std::memory_order_relaxed); }
    [[nodiscard]] std::uint32_t timeoutSec() const { return m_timeoutSec.load(std::memory_order_acquire); }
    [[nodiscard]] const std::string& name() const { return m_name; }

    /// The manager's check, under its lock: nowMs on the clock's timestamps. Reports, and ends the process, as told
    /// above. Returns the seconds that are left of the timeout (modulo 2^32) if it reported, else NOTHING_DUE.
    std::uint32_t checkLease(std::uint64_t nowMs, std::uint32_t intervalSec);

private:
    static void printThreadsBackTrace();

    platform::Atomic<bool> m_armed = true;
    platform::Atomic<bool> m_alive = true; // until the next check
    std::uint64_t m_lastAliveMs = 0;       // the last check that found it alive or disarmed
    const std::string m_name;
    platform::Atomic<std::uint32_t> m_timeoutSec;
    DlcTimeoutListener* const m_listener;
};

class DeadLockCheckerManager final : public Singleton<DeadLockCheckerManager, DeadLockCheckerManager>,
                                     public ThreadWrapper
{
public:
    /// The keepalive is not owned. One that is registered already ends the process.
    void registerChecker(DlcKeepalive* checker) EXCLUDES(m_lock);

    /// Waits while a check is under way. A keepalive that is not registered ends the process.
    void unregisterChecker(DlcKeepalive* checker) EXCLUDES(m_lock);

private:
    friend Singleton;

    DeadLockCheckerManager() { open(); }
    void run() override EXCLUDES(m_lock);

    // Guards the set, and keeps what is in it from being destroyed during a check. Taken inside it: the lock of the
    // watched threads and what log clients take.
    Mutex m_lock;
    StlMemShiledContainer<std::set<DlcKeepalive*>> m_lockSet GUARDED_BY(m_lock){"DeadLockCheckers"};
};
