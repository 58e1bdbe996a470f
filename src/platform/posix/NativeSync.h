#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

namespace platform
{

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
