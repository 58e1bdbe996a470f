#include "platform/Utf.h"

#include <cstddef>
#include <cstdint>

namespace platform
{

namespace
{

constexpr char32_t REPLACEMENT = 0xFFFD;
constexpr char32_t FIRST_SUPPLEMENTARY = 0x10000;
constexpr char32_t LAST_CODE_POINT = 0x10FFFF;

constexpr bool isHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }

constexpr bool isLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

void appendUtf8(std::string& out, char32_t codePoint)
{
    const auto continuation = [codePoint](unsigned shift) {
        return static_cast<char>(0x80U | ((codePoint >> shift) & 0x3FU));
    };
    if (codePoint < 0x80)
    {
        out += static_cast<char>(codePoint);
    }
    else if (codePoint < 0x800)
    {
        out += {static_cast<char>(0xC0U | (codePoint >> 6U)), continuation(0)};
    }
    else if (codePoint < FIRST_SUPPLEMENTARY)
    {
        out += {static_cast<char>(0xE0U | (codePoint >> 12U)), continuation(6), continuation(0)};
    }
    else
    {
        out += {static_cast<char>(0xF0U | (codePoint >> 18U)), continuation(12), continuation(6), continuation(0)};
    }
}

void appendUtf16(std::u16string& out, char32_t codePoint)
{
    if (codePoint < FIRST_SUPPLEMENTARY)
    {
        out += static_cast<char16_t>(codePoint);
        return;
    }
    const char32_t offset = codePoint - FIRST_SUPPLEMENTARY;
    out += {static_cast<char16_t>(0xD800U + (offset >> 10U)), static_cast<char16_t>(0xDC00U + (offset & 0x3FFU))};
}

/// Removes the first code point of the text, which is not empty, and returns it.
char32_t takeUtf8(std::string_view& text)
{
    const auto lead = static_cast<unsigned char>(text.front());
    text.remove_prefix(1);
    if (lead < 0x80)
    {
        return lead;
    }
    const std::size_t continuations = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    constexpr char32_t SMALLEST[] = {0, 0x80, 0x800, FIRST_SUPPLEMENTARY}; // smaller ones have a shorter form
    if (lead < 0xC2 || lead > 0xF4)
    {
        return REPLACEMENT;
    }
    char32_t codePoint = lead & (0x3FU >> continuations);
    for (std::size_t i = 0; i < continuations; ++i)
    {
        if (text.empty() || (static_cast<unsigned char>(text.front()) & 0xC0U) != 0x80)
        {
            return REPLACEMENT;
        }
        codePoint = (codePoint << 6U) | (static_cast<unsigned char>(text.front()) & 0x3FU);
        text.remove_prefix(1);
    }
    const bool isValid = codePoint >= SMALLEST[continuations] && codePoint <= LAST_CODE_POINT &&
                         !isHighSurrogate(codePoint) && !isLowSurrogate(codePoint);
    return isValid ? codePoint : REPLACEMENT;
}

} // namespace

std::string utf16ToUtf8(std::u16string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        const char32_t unit = text[i];
        if (isHighSurrogate(unit) && i + 1 < text.size() && isLowSurrogate(text[i + 1]))
        {
            const char32_t low = text[++i];
            appendUtf8(out, FIRST_SUPPLEMENTARY + ((unit - 0xD800U) << 10U) + (low - 0xDC00U));
            continue;
        }
        appendUtf8(out, isHighSurrogate(unit) || isLowSurrogate(unit) ? REPLACEMENT : unit);
    }
    return out;
}

std::u16string utf8ToUtf16(std::string_view text)
{
    std::u16string out;
    out.reserve(text.size());
    while (!text.empty())
    {
        appendUtf16(out, takeUtf8(text));
    }
    return out;
}

} // namespace platform
