#pragma once

// Maps values of errno to the error numbers that the platform reports, and describes these.

#include "platform/ErrorNumber.h"

#include <string>

namespace platform::posix
{

/// The Windows error number nearest to a value of errno; Success for 0.
[[nodiscard]] ErrorNumber fromErrno(int error);

/// The system's description of the error.
[[nodiscard]] std::string errorText(ErrorNumber number);

/// The same for a call on a path: PathNotFound if the path's folder is missing, FileNotFound if only the file is.
[[nodiscard]] ErrorNumber fromErrno(int error, const std::string& path);

} // namespace platform::posix
