#pragma once

// Reads a number at the start of a text as a standard stream does. Any thread may call.

#include <cstdint>
#include <optional>
#include <string_view>

/// Returns the text after a leading "0x" or "0X", or the whole text if it has no such prefix.
[[nodiscard]] std::string_view withoutHexPrefix(std::string_view text);

/// Skips white space, then reads a sign, a prefix if the base is 16, and digits, as std::num_get does; the rest is
/// ignored. Returns nothing if there is no digit or if the number does not fit into a std::int64_t.
[[nodiscard]] std::optional<std::int64_t> extractNumber(std::string_view text, int base);
