#pragma once

#include <cstdint>

namespace platform
{

/// A lock of the system, which needs no handle and so cannot run out.
class NativeMutex
{
public:
    NativeMutex() = default;
    NativeMutex(const NativeMutex&) = delete;
    NativeMutex& operator=(const NativeMutex&) = delete;
    ~NativeMutex() = default;

    void lock() noexcept;
    [[nodiscard]] bool tryLock() noexcept;
    void unlock() noexcept;

private:
    void* m_lock = nullptr; // an SRWLOCK
};

/// A lock and a condition variable of the system, which need no handle and so cannot run out.
class NativeSemaphore
{
public:
    explicit NativeSemaphore(std::uint32_t count) noexcept : m_count(count) {}
    NativeSemaphore(const NativeSemaphore&) = delete;
    NativeSemaphore& operator=(const NativeSemaphore&) = delete;
    ~NativeSemaphore() = default;

    void post() noexcept;
    void wait() noexcept;

    /// Waits at most durationMs; 0 does not wait. Returns whether it has decremented the count.
    [[nodiscard]] bool waitFor(std::uint32_t durationMs) noexcept;

private:
    void sleep(std::uint32_t durationMs) noexcept;

    void* m_lock = nullptr;   // an SRWLOCK; guards the count
    void* m_posted = nullptr; // a CONDITION_VARIABLE
    std::uint32_t m_count;
};

/// An event of the system. Throws std::system_error if the system cannot create one.
class NativeEvent
{
public:
    NativeEvent();
    NativeEvent(const NativeEvent&) = delete;
    NativeEvent& operator=(const NativeEvent&) = delete;
    ~NativeEvent();

    void set() noexcept;
    void wait() noexcept;

    /// Waits at most durationMs. Returns whether a set has ended the wait.
    [[nodiscard]] bool waitFor(std::uint32_t durationMs) noexcept;

private:
    void* m_handle;
};

} // namespace platform
