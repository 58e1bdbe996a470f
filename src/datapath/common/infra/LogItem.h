#pragma once

// One log line. The constructor writes the head (time, level, thread, logger, class, method), the
// caller streams the message, and the end of line hands the whole line to the Logger.
//
//     LogItem(LoggerId::NON, LogLevel::Warn, TAVRO_METHOD) << "slow disk, waited ms=" << waitedMs << std::endl;
//
// A line is "2024-03-05 07:08:09.042,Warn,4711,NON,Class,method,slow disk, waited ms=12\n". Nothing
// is quoted or escaped and nothing is cut. An item belongs to the thread that made it.
//
// An item that never ends its line sends nothing: neither "\n" nor the end of the statement ends it. Compilers warn
// (-Wunused-result, which is on by default) about a statement that begins with LogItem(...) or CheckFailure(...) and
// does not close with std::endl or another manipulator. They cannot see whether an item with a name ends its line. So
// builds of the library for debugging, with sanitizers or on the simulated floor write what an item has kept for
// itself to standard error.
//
// An item accepts what a narrow output stream accepts, and converts to one; stream() has the members of a stream.
// Making a std::ostream takes longer than a whole line of texts and integers, so the item makes it when it is needed
// for the first time: for any other type, for manipulators but std::endl, or for code that takes a stream. Everything
// goes into the same line, in order.

#include "datapath/common/infra/Log.h"
#include "datapath/common/infra/base/LineText.h"
#include "datapath/common/infra/base/MethodText.h"

#include <concepts>
#include <memory>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

class LogItem;

/// Lets a stream write into the line of an item. A flush sends the line to the Logger.
class LogStringBuf : public std::streambuf
{
public:
    explicit LogStringBuf(LogItem& item) : m_item(item) {}

protected:
    int_type overflow(int_type character) override;
    std::streamsize xsputn(const char* text, std::streamsize length) override;

    /// Always succeeds. Does not empty the line, because each item is flushed once.
    int sync() override;

private:
    LogItem& m_item;
};

namespace LogItemInternal
{

template <class T, class... Others>
concept OneOf = (std::same_as<T, Others> || ...);

template <class T>
concept Integer =
    OneOf<T, bool, short, unsigned short, int, unsigned, long, unsigned long, long long, unsigned long long>;

/// A string, a string literal, a zero-terminated text or a single character.
template <class T>
concept Text =
    OneOf<T, const char*, char*, std::string, std::string_view> || std::same_as<char, std::remove_extent_t<T>>;

/// The types that are appended without the help of a stream.
template <class T>
concept Simple = Integer<T> || Text<T>;

template <class T>
concept Streamed =
    !Simple<std::remove_const_t<std::remove_reference_t<T>>> && requires(std::ostream & stream, T&& value)
{
    stream << std::forward<T>(value);
};

/// The memory of one line, and what the head of a thread's lines has in common. Each thread keeps one until it ends; an
/// item that is made while the thread has another one has a store of its own.
class LineStore;

} // namespace LogItemInternal

class LogItem
{
public:
    static constexpr int DEFAULT_FRACTION_DIGITS = 3;
    static constexpr int NO_FRACTION = 0;

    /// fractionDigits: 0 to 3 digits of a second's fraction in the time field.
    [[nodiscard("end the line: << std::endl")]] LogItem(LoggerId loggerId, LogLevel level, const MethodText& method,
                                                        int fractionDigits = DEFAULT_FRACTION_DIGITS);

    /// For a method text that is only known at run time: "Tweaks::Tweak::longVal", "wWinMain".
    [[nodiscard("end the line: << std::endl")]] LogItem(LoggerId loggerId, LogLevel level, const char* methodText,
                                                        int fractionDigits = DEFAULT_FRACTION_DIGITS);

    LogItem(const LogItem&) = delete;
    LogItem& operator=(const LogItem&) = delete;
    ~LogItem() = default;

    [[nodiscard]] LogLevel level() const { return m_level; }
    [[nodiscard]] LoggerId loggerId() const { return m_loggerId; }

    /// A stream that writes into this line. It lives as long as the item.
    [[nodiscard]] std::ostream& stream() { return m_stream ? m_stream->stream : makeStream(); }
    operator std::ostream&() { return stream(); }
    std::ostream& flush() { return stream().flush(); }
    std::ostream& put(char character) { return stream().put(character); }
    std::ostream& write(const char* text, std::streamsize length) { return stream().write(text, length); }
    std::streamsize width(std::streamsize characters) { return stream().width(characters); }
    std::streamsize precision(std::streamsize digits) { return stream().precision(digits); }
    char fill(char character) { return stream().fill(character); }
    std::ios_base::fmtflags setf(std::ios_base::fmtflags flags) { return stream().setf(flags); }

    /// Inserts as the stream would, but faster if the formatting is the default one. Only for operator<<.
    template <class T> void insert(const T& value)
    {
        if (!isPlain() || isNull(value))
        {
            stream() << value;
        }
        else if constexpr (LogItemInternal::Integer<T>)
        {
            m_text.append(static_cast<std::conditional_t<std::same_as<T, bool>, int, T>>(value));
        }
        else
        {
            m_text.append(asText(value));
        }
    }

    /// std::endl, without a stream if there is none. Only for operator<<.
    void endLine();

private:
    friend class LogStringBuf;

    struct Stream
    {
        explicit Stream(LogItem& item) : buffer(item), stream(&buffer) {}

        LogStringBuf buffer;
        std::ostream stream;
    };

    LogItem(LoggerId loggerId, LogLevel level, std::string_view fields, int fractionDigits);

    std::ostream& makeStream();
    void dispatch();

    [[nodiscard]] bool isPlain() const
    {
        constexpr std::ios_base::fmtflags SPECIAL = std::ios_base::hex | std::ios_base::oct | std::ios_base::showpos |
                                                    std::ios_base::boolalpha | std::ios_base::unitbuf;
        return !m_stream ||
               (m_stream->stream.good() && m_stream->stream.width() == 0 && (m_stream->stream.flags() & SPECIAL) == 0);
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

    struct GiveBack
    {
        void operator()(LogItemInternal::LineStore* store) const;
    };

    const std::unique_ptr<LogItemInternal::LineStore, GiveBack> m_store;
    LineText& m_text; // of the store
    std::optional<Stream> m_stream;
    const LogLevel m_level;
    const LoggerId m_loggerId;
};

/// A LogItem or an object of a derived class.
template <class T>
concept AnyLogItem = std::derived_from<std::remove_reference_t<T>, LogItem>;

/// An item to which several statements may add.
template <class T>
concept NamedLogItem = AnyLogItem<T> && std::is_lvalue_reference_v<T>;

/// An item for one statement, which makes the whole line.
template <class T>
concept UnnamedLogItem = AnyLogItem<T> && !std::is_lvalue_reference_v<T>;

/// Integers and texts, which need no stream.
template <NamedLogItem Item, LogItemInternal::Simple T> LogItem& operator<<(Item&& item, const T& value)
{
    item.insert(value);
    return static_cast<LogItem&>(item); // a name of an rvalue is one itself when returned, from C++23 on
}

/// Whatever else a narrow output stream accepts.
template <NamedLogItem Item, LogItemInternal::Streamed T> LogItem& operator<<(Item&& item, T&& value)
{
    item.stream() << std::forward<T>(value);
    return static_cast<LogItem&>(item); // a name of an rvalue is one itself when returned, from C++23 on
}

/// std::endl and its like.
template <NamedLogItem Item> LogItem& operator<<(Item&& item, std::ostream& (*manipulator)(std::ostream&))
{
    if (manipulator == static_cast<std::ostream& (*)(std::ostream&)>(std::endl))
    {
        item.endLine();
    }
    else
    {
        item.stream() << manipulator;
    }
    return static_cast<LogItem&>(item); // a name of an rvalue is one itself when returned, from C++23 on
}

/// std::hex and its like.
template <NamedLogItem Item> LogItem& operator<<(Item&& item, std::ios_base& (*manipulator)(std::ios_base&))
{
    item.stream() << manipulator;
    return static_cast<LogItem&>(item); // a name of an rvalue is one itself when returned, from C++23 on
}

/// Manipulators of a std::ios.
template <NamedLogItem Item> LogItem& operator<<(Item&& item, std::ios& (*manipulator)(std::ios&))
{
    item.stream() << manipulator;
    return static_cast<LogItem&>(item); // a name of an rvalue is one itself when returned, from C++23 on
}

/// A statement whose last operator is one of these never ends the line.
template <UnnamedLogItem Item, LogItemInternal::Simple T>
[[nodiscard("end the line: << std::endl")]] LogItem&& operator<<(Item&& item, const T& value)
{
    item << value;
    return std::forward<Item>(item);
}

/// Whatever else a narrow output stream accepts; does not end the line.
template <UnnamedLogItem Item, LogItemInternal::Streamed T>
[[nodiscard("end the line: << std::endl")]] LogItem&& operator<<(Item&& item, T&& value)
{
    item << std::forward<T>(value);
    return std::forward<Item>(item);
}

/// std::hex and its like; does not end the line.
template <UnnamedLogItem Item>
[[nodiscard("end the line: << std::endl")]] LogItem&& operator<<(Item&& item,
                                                                 std::ios_base& (*manipulator)(std::ios_base&))
{
    item << manipulator;
    return std::forward<Item>(item);
}

/// Manipulators of a std::ios; does not end the line.
template <UnnamedLogItem Item>
[[nodiscard("end the line: << std::endl")]] LogItem&& operator<<(Item&& item, std::ios& (*manipulator)(std::ios&))
{
    item << manipulator;
    return std::forward<Item>(item);
}

/// std::endl and its like, which may come last in a statement.
template <UnnamedLogItem Item> LogItem&& operator<<(Item&& item, std::ostream& (*manipulator)(std::ostream&))
{
    item << manipulator;
    return std::forward<Item>(item);
}
