#include "platform/ThreadValue.h"

#include "platform/windows/System.h"

#include <system_error>

namespace platform::windows
{

std::uint32_t allocateThreadValue(void (*release)(void* value))
{
    // The system calls release with the value as its only argument, and not for null.
    const DWORD index = FlsAlloc(reinterpret_cast<PFLS_CALLBACK_FUNCTION>(release));
    if (index == FLS_OUT_OF_INDEXES)
    {
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "FlsAlloc");
    }
    return index;
}

void* threadValue(std::uint32_t index) noexcept
{
    const DWORD error = GetLastError(); // FlsGetValue clears it, and a log line that quotes it begins with this call
    void* const value = FlsGetValue(index);
    SetLastError(error);
    return value;
}

void setThreadValue(std::uint32_t index, void* value) noexcept { FlsSetValue(index, value); }

} // namespace platform::windows
