#pragma once

// Maps errno to the error numbers that the platform reports.

#include "platform/ErrorNumber.h"

namespace platform::posix
{

/// The nearest of Windows' numbers for a value of errno; 0 stays success.
[[nodiscard]] ErrorNumber fromErrno(int error);

} // namespace platform::posix
