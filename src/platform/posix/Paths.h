#pragma once

// Paths have backslashes above the platform and slashes below it.

#include <string>
#include <string_view>

namespace platform::posix
{

/// The path as the system wants it.
[[nodiscard]] std::string toNative(std::string_view path);

/// The path as the program wants it.
[[nodiscard]] std::string fromNative(std::string_view path);

} // namespace platform::posix
