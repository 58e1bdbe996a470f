#pragma once

#include <cstdint>

namespace platform
{

/// All three: a switch point before each operation, and whoever waits leaves the turn to others. What they hold is
/// read and written by the thread whose turn it is. A schedule goes wrong when one is destroyed that a thread has or
/// waits for.
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
    int m_owner = 0; // the scheduler's number of the thread that has it
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

    /// Waits at most durationMs of virtual time, 0 for not at all. Returns whether it took one.
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

    /// Waits at most durationMs of virtual time, 0 for not at all. Returns whether it was let pass.
    [[nodiscard]] bool waitFor(std::uint32_t durationMs) noexcept;

private:
    bool passBefore(const std::int64_t* deadlineNs, bool isLate) noexcept;

    std::uint32_t m_passes = 0;  // that sets have left
    std::uint32_t m_waiters = 0; // each of which a set of its own can let pass
};

} // namespace platform
