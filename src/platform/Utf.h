#pragma once

// Conversions between UTF-8 and UTF-16.
//
//     const std::string name = utf16ToUtf8(u"nightly");
//
// Pure functions that any thread may call. They never fail: what is not well-formed (a lone surrogate, a stray byte)
// becomes U+FFFD, the replacement character.

#include <string>
#include <string_view>

namespace platform
{

/// The same text in UTF-8.
[[nodiscard]] std::string utf16ToUtf8(std::u16string_view text);

/// The same text in UTF-16, in the byte order of the machine.
[[nodiscard]] std::u16string utf8ToUtf16(std::string_view text);

} // namespace platform
