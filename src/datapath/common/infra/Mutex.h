#pragma once

// Mutual exclusion between threads of this process.
//
//     const MutexGuard guard(m_mutex);
//
// Any thread may call. A Mutex belongs to the thread that has locked it; that thread must not lock it again before it
// has unlocked it.

#include "datapath/common/infra/base/ThreadSafety.h"
#include "platform/Atomic.h"
#include "platform/Spin.h"
#include "platform/Sync.h"
#include "platform/Threads.h"

#include <cstdint>

/// What can be locked and unlocked.
class TAVRO_CAPABILITY("mutex") IMutex
{
public:
    virtual void lock() TAVRO_ACQUIRES() = 0;
    virtual void unlock() TAVRO_RELEASES() = 0;
    virtual ~IMutex() = default;
};

/// A non-recursive mutex that nothing has to construct or destroy: for static objects that are used before and after
/// main.
class TAVRO_CAPABILITY("mutex") StaticMutex
{
public:
    void lock() TAVRO_ACQUIRES()
    {
        if (!m_mutex.tryLock())
        {
            lockContended();
        }
    }
    void unlock() TAVRO_RELEASES() { m_mutex.unlock(); }

private:
    /// Most locks are held for less time than falling asleep takes. Each look is preceded by many spin-wait hints,
    /// because it takes the cache line of the lock from the thread that holds it. Between two looks that thread can
    /// lock and unlock several times.
    static constexpr platform::SpinBudget SPIN{.looks = 2, .hintsPerLook = 96};

    void lockContended()
    {
        if (!platform::spinUntil([this] { return m_mutex.tryLock(); }, SPIN))
        {
            m_mutex.lock();
        }
    }

    platform::NativeMutex m_mutex;
};

/// A non-recursive mutex.
class TAVRO_CAPABILITY("mutex") Mutex final : public IMutex
{
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() TAVRO_ACQUIRES() override { m_mutex.lock(); }
    void unlock() TAVRO_RELEASES() override { m_mutex.unlock(); }

private:
    StaticMutex m_mutex;
};

/// A Mutex that knows its owner: for a lock under which lines are logged, because a log client may call the code that
/// took the lock.
class TAVRO_CAPABILITY("mutex") OwnedMutex final : public IMutex
{
public:
    OwnedMutex() = default;
    OwnedMutex(const OwnedMutex&) = delete;
    OwnedMutex& operator=(const OwnedMutex&) = delete;

    void lock() TAVRO_ACQUIRES() override
    {
        m_mutex.lock();
        m_owner.store(platform::currentThreadId(), std::memory_order_relaxed);
    }
    void unlock() TAVRO_RELEASES() override
    {
        m_owner.store(0, std::memory_order_relaxed);
        m_mutex.unlock();
    }

    [[nodiscard]] bool isMine() const
    {
        const std::uint32_t owner = m_owner.load(std::memory_order_relaxed);
        return owner != 0 && owner == platform::currentThreadId();
    }

    /// Tells the thread-safety analysis what isMine has found.
    void assertLocked() const TAVRO_ASSERTS_HELD(this) {}

private:
    Mutex m_mutex;
    platform::Atomic<std::uint32_t> m_owner = 0; // the id of the thread that has the lock, or 0
};

/// Locks for its own lifetime. With IMutex the calls are virtual; with a final class such as Mutex they are direct.
template <class Lockable> class TAVRO_SCOPED_CAPABILITY MutexGuard
{
public:
    explicit MutexGuard(Lockable& mutex) TAVRO_ACQUIRES(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    ~MutexGuard() TAVRO_RELEASES() { m_mutex.unlock(); }

private:
    Lockable& m_mutex;
};
