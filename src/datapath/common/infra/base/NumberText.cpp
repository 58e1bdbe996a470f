#include "datapath/common/infra/base/NumberText.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <system_error>

std::string_view withoutHexPrefix(std::string_view text)
{
    return text.substr(text.starts_with("0x") || text.starts_with("0X") ? 2 : 0);
}

std::optional<std::int64_t> extractNumber(std::string_view text, int base)
{
    const auto isBlank = [](unsigned char character) { return std::isspace(character) != 0; };
    text.remove_prefix(static_cast<std::size_t>(std::ranges::find_if_not(text, isBlank) - text.begin()));
    const bool isNegative = text.starts_with('-');
    text.remove_prefix(isNegative || text.starts_with('+') ? 1 : 0);
    if (base == 16)
    {
        text = withoutHexPrefix(text);
    }
    std::uint64_t magnitude = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), magnitude, base).ec != std::errc())
    {
        return std::nullopt;
    }
    constexpr std::uint64_t LARGEST = std::numeric_limits<std::int64_t>::max();
    if (magnitude > LARGEST + (isNegative ? 1 : 0))
    {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(isNegative ? 0 - magnitude : magnitude);
}
