#pragma once

// One log line. The constructor writes the head (time, level, thread, logger, class, method), the
// caller streams the message, and the end of line hands the whole line to the Logger.
//
//     LogItem(LoggerId::NON, LogLevel::Warn, THIS_METHOD) << "slow disk, waited ms=" << waitedMs << std::endl;
//
// A line is "2024-03-05 07:08:09.042,Warn,4711,NON,Class,method,slow disk, waited ms=12\n". Nothing
// is quoted or escaped and nothing is cut. An item belongs to the thread that made it. An item that
// never ends its line sends nothing.

#include "datapath/common/infra/Log.h"
#include "datapath/common/infra/base/MethodText.h"

#include <array>
#include <charconv>
#include <concepts>
#include <cstring>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <type_traits>

class LogItem;

/// Collects a line without limit and sends it to the Logger when it is flushed.
class LogStringBuf : public std::streambuf
{
public:
    explicit LogStringBuf(const LogItem& item);

    void append(std::string_view text)
    {
        if (text.size() > static_cast<std::size_t>(epptr() - pptr()))
        {
            sputn(text.data(), static_cast<std::streamsize>(text.size()));
            return;
        }
        std::memcpy(pptr(), text.data(), text.size());
        pbump(static_cast<int>(text.size()));
    }

protected:
    int_type overflow(int_type character) override;

    /// Always succeeds. Does not empty the buffer, because each item is flushed once.
    int sync() override;

private:
    [[nodiscard]] std::size_t length() const { return static_cast<std::size_t>(pptr() - pbase()); }
    void resize(std::size_t size);

    const LogItem& m_item;
    std::string m_text; // the put area: its length is the room for the line, not the length of the line
};

namespace LogItemInternal
{

/// A base class of LogItem, so that the buffer exists before the stream that writes to it.
struct Buffer
{
    explicit Buffer(const LogItem& item) : buffer(item) {}

    LogStringBuf buffer;
};

template <class T, class... Others>
concept OneOf = (std::same_as<T, Others> || ...);

template <class T>
concept Integer =
    OneOf<T, bool, short, unsigned short, int, unsigned, long, unsigned long, long long, unsigned long long>;

/// A string, a string literal, a zero-terminated text or a single character.
template <class T>
concept Text =
    OneOf<T, const char*, char*, std::string, std::string_view> || std::same_as<char, std::remove_extent_t<T>>;

/// The types that are appended without the help of the stream.
template <class T>
concept Simple = Integer<T> || Text<T>;

} // namespace LogItemInternal

class LogItem : private LogItemInternal::Buffer, public std::ostream
{
public:
    static constexpr int DEFAULT_FRACTION_DIGITS = 3;
    static constexpr int NO_FRACTION = 0;

    /// fractionDigits: 0 to 3 digits of a second's fraction in the time field.
    LogItem(LoggerId loggerId, LogLevel level, const MethodText& method, int fractionDigits = DEFAULT_FRACTION_DIGITS);

    /// For a method text that is only known at run time: "Tweaks::Tweak::longVal", "wWinMain".
    LogItem(LoggerId loggerId, LogLevel level, const char* methodText, int fractionDigits = DEFAULT_FRACTION_DIGITS);

    [[nodiscard]] LogLevel level() const { return m_level; }
    [[nodiscard]] LoggerId loggerId() const { return m_loggerId; }

    /// Inserts as the stream would, but faster if the formatting is the default one. Only for operator<<.
    template <class T> void insert(const T& value)
    {
        if (!isPlain() || isNull(value))
        {
            static_cast<std::ostream&>(*this) << value;
        }
        else if constexpr (LogItemInternal::Integer<T>)
        {
            appendNumber(value);
        }
        else
        {
            buffer.append(asText(value));
        }
    }

private:
    LogItem(LoggerId loggerId, LogLevel level, std::string_view fields, int fractionDigits);

    [[nodiscard]] bool isPlain() const
    {
        constexpr fmtflags SPECIAL = hex | oct | showpos | boolalpha;
        return width() == 0 && (flags() & SPECIAL) == 0;
    }

    static std::string_view asText(const char& character) { return {&character, 1}; }
    static std::string_view asText(std::string_view text) { return text; }

    template <class T> static bool isNull(const T& value)
    {
        if constexpr (std::is_pointer_v<T>)
        {
            return value == nullptr;
        }
        return false;
    }

    template <class T> void appendNumber(T value)
    {
        using Printed = std::conditional_t<std::same_as<T, bool>, int, T>;
        std::array<char, 24> digits;
        const auto result = std::to_chars(digits.begin(), digits.end(), static_cast<Printed>(value));
        buffer.append({digits.begin(), result.ptr});
    }

    LogLevel m_level;
    LoggerId m_loggerId;
};

template <class T>
concept AnyLogItem = std::derived_from<std::remove_reference_t<T>, LogItem>;

/// For the simple types. The stream itself inserts every other type that a narrow stream accepts.
template <AnyLogItem Item, LogItemInternal::Simple T> LogItem& operator<<(Item&& item, const T& value)
{
    item.insert(value);
    return item;
}
