#include "platform/Sync.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform
{

namespace
{

constexpr long NS_PER_SECOND = 1'000'000'000;

// Futexes look at the first half of a semaphore's word, the count.
static_assert(std::endian::native == std::endian::little);

timespec nowPlus(std::uint32_t durationMs)
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    time.tv_sec += static_cast<time_t>(durationMs / 1000);
    time.tv_nsec += static_cast<long>(durationMs % 1000) * 1'000'000;
    time.tv_sec += time.tv_nsec / NS_PER_SECOND;
    time.tv_nsec %= NS_PER_SECOND;
    return time;
}

bool isBefore(const timespec& left, const timespec& right)
{
    return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec : left.tv_nsec < right.tv_nsec;
}

void wakeOneAt(void* futex) { syscall(SYS_futex, futex, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0); }

/// Returns when it is worth while to look at the state again; true if the deadline has passed.
bool sleepWhile(std::uint32_t state, void* futex, const timespec* deadline)
{
    if (syscall(SYS_futex, futex, FUTEX_WAIT_BITSET_PRIVATE, state, deadline, nullptr, FUTEX_BITSET_MATCH_ANY) == 0 ||
        errno == EAGAIN || errno == EINTR)
    {
        return false;
    }
    if (errno == ETIMEDOUT)
    {
        return true;
    }
    timespec until = nowPlus(1); // the system refuses to wait here: look from time to time
    if (deadline != nullptr && isBefore(*deadline, until))
    {
        until = *deadline;
    }
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    return deadline != nullptr && !isBefore(nowPlus(0), *deadline);
}

} // namespace

#ifndef __SANITIZE_THREAD__

void NativeMutex::sleepUntilLocked() noexcept
{
    while (m_state.exchange(LOCKED_AND_WAITED_FOR, std::memory_order_acquire) != FREE)
    {
        sleepWhile(LOCKED_AND_WAITED_FOR, &m_state, nullptr);
    }
}

void NativeMutex::wakeOne() noexcept { wakeOneAt(&m_state); }

#endif

void NativeSemaphore::wakeOne() noexcept { wakeOneAt(&m_state); }

void NativeSemaphore::post() noexcept
{
    if (m_state.fetch_add(1, std::memory_order_release) >= WAITER)
    {
        wakeOne();
    }
}

bool NativeSemaphore::tryTake() noexcept
{
    std::uint64_t state = m_state.load(std::memory_order_relaxed);
    while ((state & COUNT_MASK) != 0)
    {
        if (m_state.compare_exchange_weak(state, state - 1, std::memory_order_acquire, std::memory_order_relaxed))
        {
            return true;
        }
    }
    return false;
}

void NativeSemaphore::wait() noexcept { static_cast<void>(takeBefore(nullptr)); }

bool NativeSemaphore::waitFor(std::uint32_t durationMs) noexcept
{
    if (durationMs == 0)
    {
        return tryTake();
    }
    const timespec deadline = nowPlus(durationMs);
    return takeBefore(&deadline);
}

bool NativeSemaphore::takeBefore(const timespec* deadline) noexcept
{
    // What is waited for is often near: a few looks are cheaper than falling asleep.
    constexpr int LOOKS = 16;
    constexpr int LOOKS_WITHOUT_YIELDING = 12;
    for (int look = 0; look < LOOKS; ++look)
    {
        if (tryTake())
        {
            return true;
        }
        if (look < LOOKS_WITHOUT_YIELDING)
        {
            __builtin_ia32_pause();
        }
        else
        {
            sched_yield();
        }
    }
    std::uint64_t state = m_state.fetch_add(WAITER, std::memory_order_relaxed) + WAITER;
    for (bool isLate = false;;)
    {
        // Whoever is late leaves only when there is nothing to take: what has let it go must not be left behind by it.
        while (isLate || (state & COUNT_MASK) != 0)
        {
            const std::uint64_t taken = std::min<std::uint64_t>(state & COUNT_MASK, 1);
            if (m_state.compare_exchange_weak(state, state - taken - WAITER, std::memory_order_acquire,
                                              std::memory_order_relaxed))
            {
                return taken != 0;
            }
        }
        isLate = sleepWhile(0, &m_state, deadline); // looks at the half of the word that counts
        state = m_state.load(std::memory_order_relaxed);
    }
}

void NativeEvent::set() noexcept
{
    // Each sleeper can be let go by a set of its own, and one more set stays for the next wait. The word is
    // written in any case, so that whoever passes sees what came before this call.
    const auto afterSet = [](std::uint64_t state) {
        return (state & ~COUNT_MASK) | std::min((state & COUNT_MASK) + 1, state / WAITER + 1);
    };
    std::uint64_t state = m_state.load(std::memory_order_relaxed);
    while (!m_state.compare_exchange_weak(state, afterSet(state), std::memory_order_release, std::memory_order_relaxed))
    {
    }
    if (state >= WAITER)
    {
        wakeOne();
    }
}

} // namespace platform
