#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>

namespace platform
{

#ifdef __SANITIZE_THREAD__

/// The thread sanitizer knows this one, and finds mutexes that are taken in two orders.
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

/// Over a futex. Source: Drepper, "Futexes Are Tricky", its third mutex.
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
        // Looked at first: a failing exchange would take the cache line from whoever holds the lock.
        std::uint32_t state = m_state.load(std::memory_order_relaxed);
        return state == FREE && m_state.compare_exchange_strong(state, LOCKED, std::memory_order_acquire);
    }

    void unlock() noexcept
    {
        if (m_state.exchange(FREE, std::memory_order_release) == LOCKED_AND_WAITED_FOR)
        {
            wakeOne();
        }
    }

private:
    static constexpr std::uint32_t FREE = 0;
    static constexpr std::uint32_t LOCKED = 1;
    static constexpr std::uint32_t LOCKED_AND_WAITED_FOR = 2; // perhaps

    void sleepUntilLocked() noexcept;
    void wakeOne() noexcept;

    std::atomic<std::uint32_t> m_state = FREE;
};

#endif

/// Over a futex. Count and waiters share one word, so that a post reads nothing of the object after
/// the moment from which a waiter may destroy it. Source: Drepper, "Futexes Are Tricky", and the
/// semaphores of glibc since 2.21.
class NativeSemaphore
{
public:
    explicit NativeSemaphore(std::uint32_t count) noexcept : m_state(count) {}

    void post() noexcept;
    void wait() noexcept;

    /// Waits at most durationMs, 0 for not at all. Returns whether it took one.
    [[nodiscard]] bool waitFor(std::uint32_t durationMs) noexcept;

protected:
    static constexpr std::uint64_t WAITER = std::uint64_t{1} << 32U;
    static constexpr std::uint64_t COUNT_MASK = WAITER - 1;

    void wakeOne() noexcept;

    std::atomic<std::uint64_t> m_state; // the count in the low half, the waiters in the high half

private:
    bool tryTake() noexcept;
    bool takeBefore(const timespec* deadline) noexcept;
};

class NativeEvent : private NativeSemaphore
{
public:
    NativeEvent() noexcept : NativeSemaphore(0) {}

    void set() noexcept;
    using NativeSemaphore::wait;
    using NativeSemaphore::waitFor;
};

} // namespace platform
