#include "datapath/common/infra/LogItem.h"

#include "datapath/common/infra/base/UtcTimestamp.h"
#include "platform/ThreadValue.h"
#include "platform/Threads.h"

#include <algorithm>
#include <array>
#include <cstring>

#ifdef TAVRO_REPORT_UNENDED_LINES
#include <iostream>
#endif

namespace LogItemInternal
{

/// A short piece of the head of a line, with its commas.
class HeadField
{
public:
    static constexpr std::size_t ROOM = 16;

    explicit constexpr HeadField(std::string_view text) : m_length(text.size())
    {
        std::ranges::copy(text, m_room.begin());
    }

    /// Writes at most ROOM bytes and returns the end of the text.
    char* write(char* out) const
    {
        std::memcpy(out, m_room.data(), ROOM); // more than the text, but of a length that the compiler knows
        return out + m_length;
    }

private:
    std::array<char, ROOM> m_room{};
    std::size_t m_length = 0;
};

class LineStore
{
public:
    /// The store of the calling thread, or a new one while that is in use.
    [[nodiscard]] static LineStore& acquire()
    {
        auto* const own = static_cast<LineStore*>(OfThread::get());
        LineStore& store = own != nullptr && !own->m_isInUse ? *own : make(own == nullptr);
        store.m_isInUse = true;
        return store;
    }

    void giveBack()
    {
#ifdef TAVRO_REPORT_UNENDED_LINES
        if (!isSent)
        {
            std::cerr << "A log line was never ended and is lost: " + std::string(text.view()) + "\n";
        }
        isSent = false;
#endif
        text.clear();
        if (line.capacity() > LineText::MAX_KEPT) [[unlikely]]
        {
            line = std::string();
        }
        m_isInUse = false;
        if (!m_isOfThread)
        {
            delete this;
        }
    }

    LineText text{};
    std::string line{}; // for the Logger
#ifdef TAVRO_REPORT_UNENDED_LINES
    bool isSent = false;
#endif
    UtcTimestamp time{};
    const HeadField threadField{std::to_string(static_cast<std::int32_t>(platform::currentThreadId()))};

private:
    struct Owner
    {
        static void release(void* store) { delete static_cast<LineStore*>(store); }
    };
    using OfThread = platform::ThreadValue<Owner>;

    [[gnu::noinline]] static LineStore& make(bool isOfThread)
    {
        auto* const store = new LineStore;
        if (isOfThread)
        {
            OfThread::set(store);
        }
        store->m_isOfThread = isOfThread;
        return *store;
    }

    bool m_isInUse = false;
    bool m_isOfThread = false;
};

} // namespace LogItemInternal

namespace
{

using LogItemInternal::HeadField;

constexpr std::array LEVEL_FIELDS = {HeadField(",Assert,"),  HeadField(",Fatal,"), HeadField(",Error,"),
                                     HeadField(",Warn,"),    HeadField(",Info,"),  HeadField(",Debug,"),
                                     HeadField(",Control,"), HeadField(",Info,")};
constexpr std::array LOGGER_FIELDS = {HeadField(",Invalid,"), HeadField(",OLM,"), HeadField(",KRN,"),
                                      HeadField(",NON,")};

std::string cleaned(std::string methodText)
{
    cleanMethodName(methodText);
    return methodText;
}

} // namespace

LogStringBuf::int_type LogStringBuf::overflow(int_type character)
{
    if (!traits_type::eq_int_type(character, traits_type::eof()))
    {
        const char appended = traits_type::to_char_type(character);
        m_item.m_text.append({&appended, 1});
    }
    return traits_type::not_eof(character);
}

std::streamsize LogStringBuf::xsputn(const char* text, std::streamsize length)
{
    m_item.m_text.append({text, static_cast<std::size_t>(length)});
    return length;
}

int LogStringBuf::sync()
{
    m_item.dispatch();
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
    : m_store(&LogItemInternal::LineStore::acquire()), m_text(m_store->text), m_level(level), m_loggerId(loggerId)
{
    m_store->time.update();
    char* out = m_text.reserve(UtcTimestamp::ROOM + 2 * HeadField::ROOM);
    out = m_store->time.write(out, fractionDigits);
    out = LEVEL_FIELDS[static_cast<std::size_t>(level) % LEVEL_FIELDS.size()].write(out);
    m_text.setEnd(m_store->threadField.write(out));
    if (const Logger& logger = Logger::instance(); logger.hasAsyncThreadNames())
    {
        const std::string name = logger.getAsyncThreadName();
        m_text.append(name.empty() ? "" : "/");
        m_text.append(name);
    }
    out = m_text.reserve(HeadField::ROOM + fields.size() + 1);
    const auto loggerIndex = static_cast<std::size_t>(loggerId);
    out = LOGGER_FIELDS[loggerIndex < LOGGER_FIELDS.size() ? loggerIndex : 0].write(out);
    out = std::copy(fields.begin(), fields.end(), out);
    *out = ',';
    m_text.setEnd(out + 1);
}

void LogItem::GiveBack::operator()(LogItemInternal::LineStore* store) const { store->giveBack(); }

std::ostream& LogItem::makeStream() { return m_stream.emplace(*this).stream; }

void LogItem::endLine()
{
    if (m_stream)
    {
        m_stream->stream << std::endl;
        return;
    }
    m_text.append("\n");
    dispatch();
}

void LogItem::dispatch()
{
    m_store->line = m_text.view();
#ifdef TAVRO_REPORT_UNENDED_LINES
    m_store->isSent = true;
#endif
    Logger::instance().dispatch(m_store->line, m_level, m_loggerId);
}

void logLine(LogLevel level, const MethodText& method, std::string_view message)
{
    LogItem(LoggerId::NON, level, method) << message << std::endl;
}
