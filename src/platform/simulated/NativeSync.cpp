#include "platform/Sync.h"

#include "platform/simulated/Scheduler.h"

#include <algorithm>
#include <string>

namespace platform
{

using simulated::Scheduler;
using simulated::switchPoint;

namespace
{

void failIfUsed(bool isUsed, const char* what)
{
    if (isUsed)
    {
        Scheduler::instance().fail(std::string(what) + " is destroyed that a thread has or waits for");
    }
}

} // namespace

NativeMutex::~NativeMutex() { failIfUsed(m_owner != 0 || m_waiters != 0, "a mutex"); }

void NativeMutex::lock() noexcept
{
    switchPoint();
    ++m_waiters;
    while (m_owner != 0)
    {
        static_cast<void>(Scheduler::instance().waitAt(this, {"a mutex", m_owner}, nullptr));
    }
    --m_waiters;
    m_owner = Scheduler::instance().ownNumber();
}

bool NativeMutex::tryLock() noexcept
{
    switchPoint();
    if (m_owner != 0)
    {
        return false;
    }
    m_owner = Scheduler::instance().ownNumber();
    return true;
}

void NativeMutex::unlock() noexcept
{
    switchPoint();
    if (m_owner != Scheduler::instance().ownNumber())
    {
        Scheduler::instance().fail("a mutex is unlocked by a thread that does not have it");
    }
    m_owner = 0;
    Scheduler::instance().wakeAt(this);
}

NativeSemaphore::~NativeSemaphore() { failIfUsed(m_waiters != 0, "a semaphore"); }

void NativeSemaphore::post() noexcept
{
    switchPoint();
    ++m_count;
    Scheduler::instance().wakeAt(this);
}

void NativeSemaphore::wait() noexcept
{
    switchPoint();
    ++m_waiters;
    while (m_count == 0)
    {
        static_cast<void>(Scheduler::instance().waitAt(this, {"a semaphore"}, nullptr));
    }
    --m_waiters;
    --m_count;
}

bool NativeSemaphore::waitFor(std::uint32_t durationMs) noexcept
{
    switchPoint();
    const std::int64_t deadlineNs = Scheduler::instance().nowPlus(durationMs);
    ++m_waiters;
    for (bool isLate = durationMs == 0; m_count == 0 && !isLate;)
    {
        isLate = !Scheduler::instance().waitAt(this, {"a semaphore"}, &deadlineNs);
    }
    --m_waiters;
    const bool isTaken = m_count != 0;
    m_count -= isTaken ? 1 : 0;
    return isTaken;
}

NativeEvent::~NativeEvent() { failIfUsed(m_waiters != 0, "an event"); }

void NativeEvent::set() noexcept
{
    switchPoint();
    m_passes = std::min(m_passes + 1, m_waiters + 1);
    Scheduler::instance().wakeAt(this);
}

void NativeEvent::wait() noexcept { static_cast<void>(waitUntil(nullptr, false)); }

bool NativeEvent::waitFor(std::uint32_t durationMs) noexcept
{
    const std::int64_t deadlineNs = Scheduler::instance().nowPlus(durationMs);
    return waitUntil(&deadlineNs, durationMs == 0);
}

bool NativeEvent::waitUntil(const std::int64_t* deadlineNs, bool isLate) noexcept
{
    switchPoint();
    ++m_waiters;
    while (m_passes == 0 && !isLate)
    {
        isLate = !Scheduler::instance().waitAt(this, {"an event"}, deadlineNs);
    }
    --m_waiters;
    const bool hasPass = m_passes != 0;
    m_passes -= hasPass ? 1 : 0;
    return hasPass;
}

} // namespace platform
