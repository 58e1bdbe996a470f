#pragma once

#include <string_view>

namespace platform
{

inline constexpr std::string_view LINE_END = "\r\n";
inline constexpr char PATH_SEPARATOR = '\\';

constexpr bool endsText(char byte) noexcept { return byte == '\x1A'; }

} // namespace platform
