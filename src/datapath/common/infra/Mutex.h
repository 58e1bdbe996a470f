#pragma once

// Mutual exclusion between threads of this process.
//
//     const MutexGuard guard(m_mutex);
//
// Any thread may call. A Mutex belongs to the thread that locked it, and that thread must not lock
// it again before it has unlocked it.

#include "datapath/common/infra/ThreadSafety.h"
#include "platform/Threads.h"

#include <mutex>

class CAPABILITY("mutex") IMutex
{
public:
    virtual void lock() ACQUIRES() = 0;
    virtual void unlock() RELEASES() = 0;
    virtual ~IMutex() = default;
};

/// A non-recursive mutex of the standard library.
class CAPABILITY("mutex") Mutex final : public IMutex
{
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Waits for the mutex. Throws std::system_error if the system refuses.
    void lock() ACQUIRES() override
    {
        if (!m_mutex.try_lock())
        {
            lockContended();
        }
    }
    void unlock() RELEASES() override { m_mutex.unlock(); }

private:
    /// Most locks are held for less time than falling asleep takes.
    void lockContended()
    {
        // With longer and longer rests: each look takes the lock's cache line from whoever holds it.
        constexpr int LONGEST_REST = 64;
        for (int rest = 2; rest <= LONGEST_REST; rest *= 2)
        {
            for (int i = 0; i < rest; ++i)
            {
                platform::relax();
            }
            if (m_mutex.try_lock())
            {
                return;
            }
        }
        m_mutex.lock();
    }

    std::mutex m_mutex;
};

/// Locks for its own lifetime. Over an IMutex it calls what is behind it; over a known class it calls
/// that one directly.
template <class Lockable> class SCOPED_CAPABILITY MutexGuard
{
public:
    explicit MutexGuard(Lockable& mutex) ACQUIRES(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    ~MutexGuard() RELEASES() { m_mutex.unlock(); }

private:
    Lockable& m_mutex;
};
