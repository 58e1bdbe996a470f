#include "platform/Sync.h"

#include "platform/Spin.h"
#include "platform/Time.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace platform
{

namespace
{

timespec nowPlus(std::uint32_t durationMs)
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    time.tv_sec += static_cast<time_t>(durationMs / 1'000);
    time.tv_nsec += static_cast<long>(durationMs % 1'000) * 1'000'000;
    time.tv_sec += time.tv_nsec / NS_PER_SECOND;
    time.tv_nsec %= NS_PER_SECOND;
    return time;
}

} // namespace

#ifndef __SANITIZE_THREAD__

void NativeMutex::sleepUntilLocked() noexcept
{
    while (m_state.exchange(LOCKED_WITH_SLEEPERS, std::memory_order_acquire) != FREE)
    {
        m_state.wait(LOCKED_WITH_SLEEPERS, std::memory_order_relaxed);
    }
}

#endif

void NativeSemaphore::post() noexcept
{
    if (m_count.fetch_add(1, std::memory_order_release) < 0)
    {
        wakeSleeper();
    }
}

void NativeSemaphore::wakeSleeper() noexcept { sem_post(&m_sleepers); }

bool NativeSemaphore::tryTake() noexcept
{
    std::int64_t count = m_count.load(std::memory_order_relaxed);
    while (count > 0)
    {
        if (m_count.compare_exchange_weak(count, count - 1, std::memory_order_acquire, std::memory_order_relaxed))
        {
            return true;
        }
    }
    return false;
}

/// Two threads that hand a turn back and forth need a tenth of the time with this budget, because neither of them falls
/// asleep.
bool NativeSemaphore::spinUntilTaken() noexcept
{
    constexpr SpinBudget SPIN{.looks = 100};
    return tryTake() || spinUntil([this] { return tryTake(); }, SPIN);
}

void NativeSemaphore::wait() noexcept
{
    if (!spinUntilTaken() && m_count.fetch_sub(1, std::memory_order_acquire) <= 0)
    {
        sleep();
    }
}

bool NativeSemaphore::waitFor(std::uint32_t durationMs) noexcept
{
    if (durationMs == 0)
    {
        return tryTake();
    }
    const timespec deadline = nowPlus(durationMs);
    if (spinUntilTaken() || m_count.fetch_sub(1, std::memory_order_acquire) > 0)
    {
        return true;
    }
    while (sem_clockwait(&m_sleepers, CLOCK_MONOTONIC, &deadline) != 0)
    {
        if (errno == ETIMEDOUT)
        {
            return !leaveSleepers();
        }
    }
    static_cast<void>(m_count.load(std::memory_order_acquire));
    return true;
}

/// For a thread whose deadline has passed: takes it out of the count of sleepers. Returns false if a post has already
/// done so; then the thread has taken that post.
bool NativeSemaphore::leaveSleepers() noexcept
{
    std::int64_t count = m_count.load(std::memory_order_relaxed);
    while (count < 0)
    {
        if (m_count.compare_exchange_weak(count, count + 1, std::memory_order_relaxed))
        {
            return true;
        }
    }
    sleep();
    return false;
}

/// For a thread that has decremented the count below 0. Returns when a post has woken it.
void NativeSemaphore::sleep() noexcept
{
    while (sem_wait(&m_sleepers) != 0) // interrupted by a signal
    {
    }
    static_cast<void>(m_count.load(std::memory_order_acquire)); // pairs with post, also for the thread sanitizer
}

void NativeEvent::set() noexcept
{
    // The count is written even if it stays 1, so that the thread which takes it sees what came before this call.
    std::int64_t count = m_count.load(std::memory_order_relaxed);
    while (!m_count.compare_exchange_weak(count, std::min<std::int64_t>(count + 1, 1), std::memory_order_release,
                                          std::memory_order_relaxed))
    {
    }
    if (count < 0)
    {
        wakeSleeper();
    }
}

} // namespace platform
