#pragma once

// The one place that brings in the system's headers, and its error number in our terms.

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

/// The calling thread's last error.
[[nodiscard]] inline ErrorNumber lastError() noexcept { return static_cast<ErrorNumber>(GetLastError()); }

/// Success for a call that succeeded, else the last error.
[[nodiscard]] inline ErrorNumber errorOf(BOOL succeeded) noexcept
{
    return succeeded != FALSE ? ErrorNumber::Success : lastError();
}

/// The 100-ns count of a FILETIME.
[[nodiscard]] inline ULONGLONG toTicks(const FILETIME& time) noexcept
{
    return (static_cast<ULONGLONG>(time.dwHighDateTime) << 32U) | time.dwLowDateTime;
}

} // namespace platform::windows
