#pragma once

#include <cstdint>

namespace platform
{

// Each operation of the three classes begins with a switch point, and a thread that waits hands on the turn. Their
// members need no lock, because only the thread that has the turn uses them. A schedule fails when it destroys an
// object that a thread holds or waits for.

class NativeMutex
{
public:
    NativeMutex() = default;
    NativeMutex(const NativeMutex&) = delete;
    NativeMutex& operator=(const NativeMutex&) = delete;
    ~NativeMutex();

    void lock() noexcept;
    [[nodiscard]] bool tryLock() noexcept;
    void unlock() noexcept;

private:
    int m_owner = 0; // the scheduler's number of the thread that holds the mutex; 0 if it is free
    std::uint32_t m_waiters = 0;
};

class NativeSemaphore
{
public:
    explicit NativeSemaphore(std::uint32_t count) noexcept : m_count(count) {}
    NativeSemaphore(const NativeSemaphore&) = delete;
    NativeSemaphore& operator=(const NativeSemaphore&) = delete;
    ~NativeSemaphore();

    void post() noexcept;
    void wait() noexcept;

    /// Waits at most durationMs of virtual time; 0 does not wait. Returns whether it has decremented the count.
    [[nodiscard]] bool waitFor(std::uint32_t durationMs) noexcept;

private:
    std::uint32_t m_count;
    std::uint32_t m_waiters = 0;
};

class NativeEvent
{
public:
    NativeEvent() = default;
    NativeEvent(const NativeEvent&) = delete;
    NativeEvent& operator=(const NativeEvent&) = delete;
    ~NativeEvent();

    void set() noexcept;
    void wait() noexcept;

    /// Waits at most durationMs of virtual time; 0 does not wait. Returns whether a set has ended the wait.
    [[nodiscard]] bool waitFor(std::uint32_t durationMs) noexcept;

private:
    /// No deadline means no limit. If isLate, it does not wait.
    bool waitUntil(const std::int64_t* deadlineNs, bool isLate) noexcept;

    std::uint32_t m_passes = 0;  // sets that have not ended a wait yet: at most one for each waiter, and one more
    std::uint32_t m_waiters = 0; // threads inside wait or waitFor
};

} // namespace platform
