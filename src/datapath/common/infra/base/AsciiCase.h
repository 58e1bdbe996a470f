#pragma once

// Compares names without regard to the case of ASCII letters. Other bytes stand for themselves, whatever the locale.
//
//     std::unordered_map<std::string, int, CaseInsensitiveHash, CaseInsensitiveEqual> values;
//
// Any thread may call.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

/// Makes A to Z into a to z and leaves every other byte as it is.
[[nodiscard]] constexpr unsigned char toAsciiLower(char character) noexcept
{
    const auto byte = static_cast<unsigned char>(character);
    return byte >= 'A' && byte <= 'Z' ? static_cast<unsigned char>(byte - 'A' + 'a') : byte;
}

/// Orders names by the first difference of their lower-cased bytes. A prefix of a name is less than the name.
struct CaseInsensitiveLess
{
    [[nodiscard]] constexpr bool operator()(std::string_view left, std::string_view right) const noexcept
    {
        return std::ranges::lexicographical_compare(left, right, {}, toAsciiLower, toAsciiLower);
    }
};

struct CaseInsensitiveEqual
{
    using is_transparent = void; // lets a container be searched without making a string

    [[nodiscard]] constexpr bool operator()(std::string_view left, std::string_view right) const noexcept
    {
        return std::ranges::equal(left, right, {}, toAsciiLower, toAsciiLower);
    }
};

/// The 64-bit FNV-1a hash of the lower-cased bytes: G. Fowler, L. C. Noll, K.-P. Vo, "The FNV Non-Cryptographic Hash
/// Algorithm".
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
