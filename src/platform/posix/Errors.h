#pragma once

// Maps errno to the error numbers that the platform reports.

#include "platform/ErrorNumber.h"

#include <string>

namespace platform::posix
{

/// The nearest of Windows' numbers for a value of errno; 0 stays success.
[[nodiscard]] ErrorNumber fromErrno(int error);

/// The system's words for the error.
[[nodiscard]] std::string errorText(ErrorNumber number);

/// For a call on a path, which is in the system's own form: tells a missing folder from a missing file in it.
[[nodiscard]] ErrorNumber fromErrno(int error, const std::string& path);

} // namespace platform::posix
