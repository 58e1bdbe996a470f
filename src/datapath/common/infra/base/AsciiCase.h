#pragma once

// Compares names without regard to the case of ASCII letters. Other bytes stand for themselves, whatever the locale.
//
//     std::ranges::sort(names, CaseInsensitiveLess());
//     if (CaseInsensitiveEqual()(name, "t_maxFiles")) ...
//
// Any thread may call.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

/// Makes A to Z into a to z and leaves every other byte as it is.
[[nodiscard]] constexpr unsigned char toAsciiLower(char character) noexcept
{
    const auto byte = static_cast<unsigned char>(character);
    return byte >= 'A' && byte <= 'Z' ? static_cast<unsigned char>(byte - 'A' + 'a') : byte;
}

/// toAsciiLower for each of eight bytes at once.
[[nodiscard]] constexpr std::uint64_t toAsciiLower(std::uint64_t bytes) noexcept
{
    constexpr std::uint64_t EACH = 0x0101'0101'0101'0101; // times a byte: that byte in each place
    const std::uint64_t lowBits = bytes & (EACH * 0x7F);
    const std::uint64_t fromA = lowBits + EACH * (0x80 - 'A');      // the highest bit of a byte: it is at least 'A'
    const std::uint64_t afterZ = lowBits + EACH * (0x80 - 'Z' - 1); // the highest bit of a byte: it is after 'Z'
    const std::uint64_t isUpper = (fromA ^ afterZ) & ~bytes & (EACH * 0x80);
    return bytes | isUpper >> 2U; // from 0x80 to the difference of the cases, 0x20
}

/// Orders names by the first difference of their lower-cased bytes. A prefix of a name is less than the name.
struct CaseInsensitiveLess
{
    [[nodiscard]] constexpr bool operator()(std::string_view left, std::string_view right) const noexcept
    {
        return std::ranges::lexicographical_compare(left, right, {}, toLower, toLower);
    }

private:
    static constexpr unsigned char toLower(char character) noexcept { return toAsciiLower(character); }
};

namespace AsciiCaseInternal
{

/// Calls visit with the position of each piece of eight bytes. The last piece overlaps the one before it if the length
/// is no multiple of eight. The length is at least eight.
template <class Visit> void visitPieces(std::size_t length, const Visit& visit)
{
    std::size_t place = 0;
    for (; place + 8 < length; place += 8)
    {
        visit(place);
    }
    visit(length - 8);
}

/// Eight bytes in lower case.
[[nodiscard]] inline std::uint64_t lowerPiece(const char* text) noexcept
{
    std::uint64_t piece = 0;
    std::memcpy(&piece, text, sizeof piece);
    return toAsciiLower(piece);
}

/// Fewer than eight bytes in lower case, the missing ones as zeros.
[[nodiscard]] inline std::uint64_t lowerRest(std::string_view text) noexcept
{
    std::uint64_t piece = 0;
    for (const char character : text)
    {
        piece = piece << 8U | static_cast<unsigned char>(character);
    }
    return toAsciiLower(piece);
}

} // namespace AsciiCaseInternal

/// Whether two texts are equal if ASCII letters count as the same in both cases.
struct CaseInsensitiveEqual
{
    [[nodiscard]] bool operator()(std::string_view left, std::string_view right) const noexcept
    {
        using namespace AsciiCaseInternal;
        if (left.size() != right.size())
        {
            return false;
        }
        if (left.size() < 8)
        {
            return lowerRest(left) == lowerRest(right);
        }
        std::uint64_t differences = 0;
        visitPieces(left.size(), [&](std::size_t place) {
            differences |= lowerPiece(left.data() + place) ^ lowerPiece(right.data() + place);
        });
        return differences == 0;
    }
};

/// A hash of the lower-cased bytes, eight at a time: each piece is added and mixed by a multiplication with an odd
/// number whose bits are those of the golden ratio, and by a shift (D. E. Knuth, The Art of Computer Programming,
/// volume 3, section 6.4).
struct CaseInsensitiveHash
{
    [[nodiscard]] std::uint64_t operator()(std::string_view text) const noexcept
    {
        using namespace AsciiCaseInternal;
        std::uint64_t hash = text.size();
        const auto add = [&](std::uint64_t piece) {
            hash = (hash ^ piece) * 0x9E37'79B9'7F4A'7C15;
            hash ^= hash >> 32U;
        };
        if (text.size() < 8)
        {
            add(lowerRest(text));
        }
        else
        {
            visitPieces(text.size(), [&](std::size_t place) { add(lowerPiece(text.data() + place)); });
        }
        return hash;
    }
};
