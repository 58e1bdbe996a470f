#pragma once

// Names that are the same without regard to the case of ASCII letters. Other bytes are taken as they
// are, whatever the locale.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

/// A to Z become a to z.
[[nodiscard]] constexpr unsigned char toAsciiLower(char character) noexcept
{
    const auto byte = static_cast<unsigned char>(character);
    return byte >= 'A' && byte <= 'Z' ? static_cast<unsigned char>(byte - 'A' + 'a') : byte;
}

/// Orders by the first difference of the lower-cased bytes; of a name and its prefix the prefix is less.
struct CaseInsensitiveLess
{
    [[nodiscard]] constexpr bool operator()(std::string_view left, std::string_view right) const noexcept
    {
        return std::ranges::lexicographical_compare(left, right, {}, toAsciiLower, toAsciiLower);
    }
};

struct CaseInsensitiveEqual
{
    using is_transparent = void; // containers can be searched without making a string

    [[nodiscard]] constexpr bool operator()(std::string_view left, std::string_view right) const noexcept
    {
        return std::ranges::equal(left, right, {}, toAsciiLower, toAsciiLower);
    }
};

/// FNV-1a with 64 bits over the lower-cased bytes: G. Fowler, L. C. Noll, K.-P. Vo, "The FNV
/// Non-Cryptographic Hash Algorithm".
struct CaseInsensitiveHash
{
    using is_transparent = void;

    [[nodiscard]] constexpr std::size_t operator()(std::string_view text) const noexcept
    {
        std::uint64_t hash = 0xCBF2'9CE4'8422'2325;
        for (const char character : text)
        {
            hash = (hash ^ toAsciiLower(character)) * 0x0000'0100'0000'01B3;
        }
        return hash;
    }
};
