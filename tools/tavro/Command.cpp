#include "tools/tavro/Command.h"

#include "tools/tavro/LogSystem.h"
#include "tools/tavro/SystemFacts.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <unistd.h>

namespace
{

constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD"; // U+FFFD

bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80; }

/// The length of the UTF-8 sequence at the start of the text, or 0 if there is none: an overlong one, a surrogate and
/// what is above U+10FFFF do not count.
std::size_t sequenceLength(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80)
    {
        return 1;
    }
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length)
    {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i)
    {
        if (!isContinuation(text[i]))
        {
            return 0;
        }
    }
    const auto second = static_cast<unsigned char>(text[1]);
    const bool isAllowed = (lead != 0xE0 || second >= 0xA0) && (lead != 0xED || second < 0xA0) &&
                           (lead != 0xF0 || second >= 0x90) && (lead != 0xF4 || second < 0x90);
    return isAllowed ? length : 0;
}

void appendEscaped(std::string& json, char character)
{
    constexpr std::string_view HEX = "0123456789abcdef";
    switch (character)
    {
    case '"':
        json += "\\\"";
        return;
    case '\\':
        json += "\\\\";
        return;
    case '\n':
        json += "\\n";
        return;
    case '\r':
        json += "\\r";
        return;
    case '\t':
        json += "\\t";
        return;
    default:
        json += "\\u00";
        json += HEX[static_cast<unsigned char>(character) / 16U];
        json += HEX[static_cast<unsigned char>(character) % 16U];
    }
}

} // namespace

void Tool::enterFolder(const std::string& folder)
{
    std::error_code error;
    std::filesystem::current_path(pathOf(folder), error);
    if (error)
    {
        throw Misuse(folder + ": " + error.message());
    }
}

std::string Tool::visibleText(std::string_view text)
{
    constexpr std::string_view HEX = "0123456789abcdef";
    std::string visible;
    for (const char character : text)
    {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= ' ' && byte != 0x7F)
        {
            visible += character;
            continue;
        }
        visible += "\\x";
        visible += HEX[byte / 16U];
        visible += HEX[byte % 16U];
    }
    return visible;
}

std::string Tool::jsonText(std::string_view text)
{
    std::string json = "\"";
    while (!text.empty())
    {
        const char character = text[0];
        std::size_t length = 1;
        if (character == '"' || character == '\\' || static_cast<unsigned char>(character) < ' ')
        {
            appendEscaped(json, character);
        }
        else if (length = sequenceLength(text); length != 0)
        {
            json += text.substr(0, length);
        }
        else
        {
            json += REPLACEMENT;
            length = 1;
        }
        text.remove_prefix(length);
    }
    return json + '"';
}

std::string Tool::errorText(platform::ErrorNumber error)
{
    using platform::ErrorNumber;
    switch (error)
    {
    case ErrorNumber::FileNotFound:
        return "there is no such file";
    case ErrorNumber::PathNotFound:
        return "there is no such folder";
    case ErrorNumber::AccessDenied:
        return "access is denied";
    case ErrorNumber::WriteProtect:
        return "the disk can only be read";
    case ErrorNumber::SharingViolation:
        return "another program uses it";
    case ErrorNumber::DiskFull:
        return "the disk is full";
    case ErrorNumber::AlreadyExists:
        return "something has that name already";
    default:
        return "error " + std::to_string(platform::toNumber(error));
    }
}

bool Tool::isStandardOutputTerminal() { return isatty(STDOUT_FILENO) != 0; }

bool Tool::isStandardErrorTerminal() { return isatty(STDERR_FILENO) != 0; }

bool Tool::hasColours()
{
    const char* const noColour = std::getenv("NO_COLOR");
    return (noColour == nullptr || *noColour == '\0') && isStandardOutputTerminal() && enableColours();
}
