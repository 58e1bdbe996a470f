#include "platform/Sync.h"

#include "platform/windows/System.h"

#include <algorithm>
#include <chrono>
#include <system_error>

namespace platform
{

namespace
{

using Clock = std::chrono::steady_clock;

// The header includes no header of the system, so it declares each of these as the pointer that it consists of.
SRWLOCK& lockIn(void*& storage) { return reinterpret_cast<SRWLOCK&>(storage); }
CONDITION_VARIABLE& conditionIn(void*& storage) { return reinterpret_cast<CONDITION_VARIABLE&>(storage); }
static_assert(sizeof(SRWLOCK) == sizeof(void*) && sizeof(CONDITION_VARIABLE) == sizeof(void*));

class ExclusiveGuard
{
public:
    explicit ExclusiveGuard(SRWLOCK& lock) : m_lock(lock) { AcquireSRWLockExclusive(&m_lock); }
    ExclusiveGuard(const ExclusiveGuard&) = delete;
    ExclusiveGuard& operator=(const ExclusiveGuard&) = delete;
    ~ExclusiveGuard() { ReleaseSRWLockExclusive(&m_lock); }

private:
    SRWLOCK& m_lock;
};

/// Rounded up; 0 if the deadline has passed.
DWORD msUntil(Clock::time_point deadline)
{
    const std::int64_t left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<DWORD>(std::clamp<std::int64_t>(left, 0, INFINITE - 1));
}

/// Runs between two checks if the system fails to wait.
void pause() { Sleep(1); }

} // namespace

void NativeMutex::lock() noexcept { AcquireSRWLockExclusive(&lockIn(m_lock)); }
bool NativeMutex::tryLock() noexcept { return TryAcquireSRWLockExclusive(&lockIn(m_lock)) != FALSE; }
void NativeMutex::unlock() noexcept { ReleaseSRWLockExclusive(&lockIn(m_lock)); }

void NativeSemaphore::post() noexcept
{
    const ExclusiveGuard guard(lockIn(m_lock));
    ++m_count;
    WakeConditionVariable(&conditionIn(m_posted)); // under the lock, because the waiter may destroy this object
}

void NativeSemaphore::wait() noexcept
{
    const ExclusiveGuard guard(lockIn(m_lock));
    while (m_count == 0)
    {
        sleep(INFINITE);
    }
    --m_count;
}

bool NativeSemaphore::waitFor(std::uint32_t durationMs) noexcept
{
    const ExclusiveGuard guard(lockIn(m_lock));
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(durationMs);
    while (m_count == 0)
    {
        const DWORD leftMs = msUntil(deadline);
        if (leftMs == 0)
        {
            return false;
        }
        sleep(leftMs);
    }
    --m_count;
    return true;
}

/// Returns when the count may have changed. Releases the lock meanwhile.
void NativeSemaphore::sleep(std::uint32_t durationMs) noexcept
{
    if (SleepConditionVariableSRW(&conditionIn(m_posted), &lockIn(m_lock), durationMs, 0) == FALSE &&
        GetLastError() != ERROR_TIMEOUT)
    {
        ReleaseSRWLockExclusive(&lockIn(m_lock));
        pause();
        AcquireSRWLockExclusive(&lockIn(m_lock));
    }
}

NativeEvent::NativeEvent() : m_handle(CreateEventA(nullptr, FALSE, FALSE, nullptr))
{
    if (m_handle == nullptr)
    {
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "CreateEventA");
    }
}

NativeEvent::~NativeEvent() { CloseHandle(m_handle); }

void NativeEvent::set() noexcept { SetEvent(m_handle); }

void NativeEvent::wait() noexcept
{
    while (WaitForSingleObject(m_handle, INFINITE) != WAIT_OBJECT_0)
    {
        pause();
    }
}

bool NativeEvent::waitFor(std::uint32_t durationMs) noexcept
{
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(durationMs);
    for (DWORD leftMs = durationMs;; pause())
    {
        const DWORD result = WaitForSingleObject(m_handle, leftMs);
        if (result != WAIT_FAILED)
        {
            return result == WAIT_OBJECT_0;
        }
        leftMs = msUntil(deadline);
        if (leftMs == 0)
        {
            return false;
        }
    }
}

} // namespace platform
