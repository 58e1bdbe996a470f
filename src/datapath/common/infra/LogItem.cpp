#include "datapath/common/infra/LogItem.h"

#include "datapath/common/infra/base/UtcTimestamp.h"
#include "platform/Threads.h"

#include <algorithm>
#include <limits>

namespace
{

constexpr std::size_t USUAL_LINE_LENGTH = 240; // characters; the buffer grows for longer lines

std::string cleaned(std::string methodText)
{
    cleanMethodName(methodText);
    return methodText;
}

} // namespace

LogStringBuf::LogStringBuf(const LogItem& item) : m_item(item), m_text(USUAL_LINE_LENGTH, '\0')
{
    setp(m_text.data(), m_text.data() + m_text.size());
}

void LogStringBuf::resize(std::size_t size)
{
    std::size_t kept = std::min(length(), size);
    m_text.resize(size);
    setp(m_text.data(), m_text.data() + size);
    for (constexpr std::size_t MAX_STEP = std::numeric_limits<int>::max(); kept > 0;)
    {
        const std::size_t step = std::min(kept, MAX_STEP);
        pbump(static_cast<int>(step));
        kept -= step;
    }
}

LogStringBuf::int_type LogStringBuf::overflow(int_type character)
{
    resize(2 * m_text.size());
    if (!traits_type::eq_int_type(character, traits_type::eof()))
    {
        sputc(traits_type::to_char_type(character));
    }
    return traits_type::not_eof(character);
}

int LogStringBuf::sync()
{
    resize(length());
    Logger::instance().dispatch(m_text, m_item.level(), m_item.loggerId());
    return 0;
}

LogItem::LogItem(LoggerId loggerId, LogLevel level, const MethodText& method, int fractionDigits)
    : LogItem(loggerId, level, method.fields(), fractionDigits)
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

void logLine(LogLevel level, const MethodText& method, std::string_view message)
{
    LogItem(LoggerId::NON, level, method) << message << std::endl;
}
