#pragma once

// Maps errno to the error numbers that the platform reports.

#include "platform/ErrorNumber.h"

#include <string>

namespace platform::posix
{

/// The nearest of Windows' numbers for a value of errno; 0 stays success.
[[nodiscard]] ErrorNumber fromErrno(int error);

/// The system's words for it.
[[nodiscard]] std::string errorText(ErrorNumber number);

/// Of a call on a path (as the system wants it): tells a missing folder from a missing file in it.
[[nodiscard]] ErrorNumber fromErrno(int error, const std::string& path);

} // namespace platform::posix
