#pragma once

// Includes the system's main header, and converts its errors and times.

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include "platform/ErrorNumber.h"

namespace platform::windows
{

[[nodiscard]] inline ErrorNumber lastError() noexcept { return static_cast<ErrorNumber>(GetLastError()); }

[[nodiscard]] inline ErrorNumber errorOf(BOOL succeeded) noexcept
{
    return succeeded != FALSE ? ErrorNumber::Success : lastError();
}

/// The function of that name in a library, of the type that its header declares; null if there is none.
template <typename Function> [[nodiscard]] Function* functionOf(HMODULE library, const char* name) noexcept
{
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

/// The value of a FILETIME, which counts units of 100 ns.
[[nodiscard]] inline ULONGLONG toTicks(const FILETIME& time) noexcept
{
    return (static_cast<ULONGLONG>(time.dwHighDateTime) << 32U) | time.dwLowDateTime;
}

} // namespace platform::windows
