#pragma once

// Numbers at the start of a text, read as a standard stream extracts them. Any thread may call.

#include <cstdint>
#include <optional>
#include <string_view>

/// Takes a leading "0x" or "0X" away; returns whether there was one.
bool skipHexPrefix(std::string_view& text);

/// As std::num_get reads: blanks, a sign, in base 16 a prefix, digits; what follows is ignored. Nothing if
/// there is no digit, or if the number needs more than 64 bits.
[[nodiscard]] std::optional<std::int64_t> extractNumber(std::string_view text, int base);
