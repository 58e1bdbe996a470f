#include "platform/Sync.h"

#include "platform/windows/System.h"

#include <algorithm>
#include <chrono>
#include <system_error>

namespace platform
{

void NativeSemaphore::post()
{
    const std::lock_guard guard(m_mutex);
    ++m_count;
    m_posted.notify_one(); // inside: the waiter may destroy this object
}

void NativeSemaphore::wait()
{
    std::unique_lock guard(m_mutex);
    m_posted.wait(guard, [this] { return m_count != 0; });
    --m_count;
}

bool NativeSemaphore::waitFor(std::uint32_t durationMs)
{
    using Clock = std::chrono::steady_clock;
    // The library sleeps on the calendar clock here. In short slices a clock that is set back cannot
    // lengthen the wait.
    constexpr Clock::duration SLICE = std::chrono::seconds(1);
    std::unique_lock guard(m_mutex);
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(durationMs);
    while (m_count == 0)
    {
        const Clock::time_point now = Clock::now();
        if (now >= deadline)
        {
            return false;
        }
        m_posted.wait_for(guard, std::min(deadline - now, SLICE));
    }
    --m_count;
    return true;
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

void NativeEvent::wait() noexcept { WaitForSingleObject(m_handle, INFINITE); }

bool NativeEvent::waitFor(std::uint32_t durationMs) noexcept
{
    return WaitForSingleObject(m_handle, durationMs) == WAIT_OBJECT_0;
}

} // namespace platform
