#include "datapath/common/infra/LogItem.h"

#include "datapath/common/infra/UtcTimestamp.h"
#include "platform/Threads.h"

namespace
{

constexpr std::size_t USUAL_LINE_LENGTH = 240; // longer lines grow

std::string cleaned(std::string methodText)
{
    cleanMethodName(methodText);
    return methodText;
}

} // namespace

LogStringBuf::LogStringBuf(const LogItem& item) : m_item(item)
{
    m_text.reserve(USUAL_LINE_LENGTH);
}

LogStringBuf::int_type LogStringBuf::overflow(int_type character)
{
    if (!traits_type::eq_int_type(character, traits_type::eof()))
    {
        m_text.push_back(traits_type::to_char_type(character));
    }
    return traits_type::not_eof(character);
}

std::streamsize LogStringBuf::xsputn(const char* characters, std::streamsize count)
{
    m_text.append(characters, static_cast<std::size_t>(count));
    return count;
}

int LogStringBuf::sync()
{
    Logger::instance().dispatch(m_text, m_item.level(), m_item.loggerId());
    return 0;
}

LogItem::LogItem(LoggerId loggerId, LogLevel level, const MethodText& method, int fractionDigits)
    : LogItem(loggerId, level, method.fields, fractionDigits)
{
}

LogItem::LogItem(LoggerId loggerId, LogLevel level, const char* methodText, int fractionDigits)
    : LogItem(loggerId, level, std::string_view(cleaned(methodText)), fractionDigits)
{
}

LogItem::LogItem(LoggerId loggerId, LogLevel level, std::string_view fields, int fractionDigits)
    : Buffer(*this), std::ostream(&buffer), m_level(level), m_loggerId(loggerId)
{
    *this << UtcTimestamp(fractionDigits).view() << "," << logLevelName(level) << ","
          << static_cast<std::int32_t>(platform::currentThreadId());
    if (const std::string name = Logger::instance().getAsyncThreadName(); !name.empty())
    {
        *this << "/" << name;
    }
    *this << "," << loggerName(loggerId) << "," << fields << ",";
}

LogItem& LogItem::operator<<(std::string_view text)
{
    if (isPlain())
    {
        buffer.text().append(text);
    }
    else
    {
        static_cast<std::ostream&>(*this) << text;
    }
    return *this;
}

bool LogItem::isPlain() const
{
    constexpr fmtflags SPECIAL = hex | oct | showpos | boolalpha;
    return width() == 0 && (flags() & SPECIAL) == 0;
}
