#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include <semaphore.h>

namespace platform
{

#ifdef __SANITIZE_THREAD__

/// The thread sanitizer knows this class and finds mutexes that are taken in two orders.
class NativeMutex
{
public:
    void lock() { m_mutex.lock(); }
    [[nodiscard]] bool tryLock() { return m_mutex.try_lock(); }
    void unlock() { m_mutex.unlock(); }

private:
    std::mutex m_mutex;
};

#else

/// One word that waits as std::atomic does. Locking and unlocking take three quarters of the time of a std::mutex,
/// which calls into the C library for both. Source: Drepper, "Futexes Are Tricky", its third mutex.
///
///     FREE                  to  LOCKED                by tryLock
///     any state             to  LOCKED_WITH_SLEEPERS  by a waiting thread, which sleeps unless the state was FREE
///     LOCKED                to  FREE                  by unlock, which wakes nobody
///     LOCKED_WITH_SLEEPERS  to  FREE                  by unlock, which wakes one sleeper
class NativeMutex
{
public:
    void lock() noexcept
    {
        if (!tryLock())
        {
            sleepUntilLocked();
        }
    }

    [[nodiscard]] bool tryLock() noexcept
    {
        // Read first, because a failing exchange would take the cache line from the thread that holds the lock.
        std::uint32_t state = m_state.load(std::memory_order_relaxed);
        return state == FREE && m_state.compare_exchange_strong(state, LOCKED, std::memory_order_acquire);
    }

    void unlock() noexcept
    {
        if (m_state.exchange(FREE, std::memory_order_release) == LOCKED_WITH_SLEEPERS)
        {
            m_state.notify_one();
        }
    }

private:
    static constexpr std::uint32_t FREE = 0;
    static constexpr std::uint32_t LOCKED = 1;
    static constexpr std::uint32_t LOCKED_WITH_SLEEPERS = 2; // LOCKED, and other threads may sleep

    void sleepUntilLocked() noexcept;

    std::atomic<std::uint32_t> m_state = FREE;
};

#endif

/// A count in front of the C library's semaphore, which is called only if a thread has to wait or to be woken.
///
///     m_count      meaning
///     n >= 0       n waits can end at once; nobody sleeps
///     -n < 0       n threads sleep, or are about to, in m_sleepers
///
/// A wait takes one off the count, and sleeps if the count was not positive. A post adds one, and posts m_sleepers if
/// the count was negative. A sleeper returns only after that post of m_sleepers, which is the last step of the call
/// that makes it, so the last waiter may destroy the object. A wait whose deadline passes adds its one again if the
/// count is still negative. If it is not, a post of m_sleepers is under way for this thread, and it takes that one.
class NativeSemaphore
{
public:
    explicit NativeSemaphore(std::uint32_t count) noexcept : m_count(count) { sem_init(&m_sleepers, 0, 0); }
    NativeSemaphore(const NativeSemaphore&) = delete;
    NativeSemaphore& operator=(const NativeSemaphore&) = delete;
    ~NativeSemaphore() { sem_destroy(&m_sleepers); }

    void post() noexcept;
    void wait() noexcept;

    /// Waits at most durationMs; 0 does not wait. Returns whether it has decremented the count.
    [[nodiscard]] bool waitFor(std::uint32_t durationMs) noexcept;

protected:
    void wakeSleeper() noexcept;

private:
    [[nodiscard]] bool tryTake() noexcept;
    [[nodiscard]] bool spinUntilTaken() noexcept;
    [[nodiscard]] bool leaveSleepers() noexcept;
    void sleep() noexcept;

    sem_t m_sleepers; // first: the count, which is used more often, then lies beside the owner's next member

protected:
    std::atomic<std::int64_t> m_count;
};

/// A semaphore whose count never exceeds 1.
class NativeEvent : private NativeSemaphore
{
public:
    NativeEvent() noexcept : NativeSemaphore(0) {}

    void set() noexcept;
    using NativeSemaphore::wait;
    using NativeSemaphore::waitFor;
};

} // namespace platform
