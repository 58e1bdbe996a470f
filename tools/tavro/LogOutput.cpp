#include "tools/tavro/LogOutput.h"

#include "tools/tavro/Command.h"
#include "tools/tavro/LogSystem.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

namespace Tool
{

namespace
{

constexpr std::size_t BUFFER_SIZE = std::size_t{256} << 10U; // bytes
constexpr std::string_view RESET = "\x1B[0m";
// Of the levels in their order: bold red, red, red, yellow, none, grey, cyan.
constexpr std::array<std::string_view, LEVEL_NAMES.size()> COLOURS = {"\x1B[1;31m", "\x1B[31m", "\x1B[31m", "\x1B[33m",
                                                                      "",           "\x1B[90m", "\x1B[36m"};

/// The highest bit of each of eight bytes tells whether the byte is special in JSON: a quote, a backslash, a control
/// character or a byte beyond ASCII.
std::uint64_t specialBytes(std::uint64_t bytes)
{
    constexpr std::uint64_t EACH = 0x0101'0101'0101'0101; // times a byte: that byte in each place
    constexpr std::uint64_t HIGHEST = EACH * 0x80;
    const auto isZero = [](std::uint64_t value) { return (value - EACH) & ~value; };
    const std::uint64_t isControl = (bytes - EACH * ' ') & ~bytes;
    return (isZero(bytes ^ EACH * '"') | isZero(bytes ^ EACH * '\\') | isControl | bytes) & HIGHEST;
}

bool isSpecial(char character)
{
    return static_cast<unsigned char>(character) < ' ' || static_cast<unsigned char>(character) >= 0x80 ||
           character == '"' || character == '\\';
}

/// How many bytes at the begin need no escape in JSON.
std::size_t plainLength(std::string_view text)
{
    std::size_t length = 0;
    for (std::uint64_t bytes = 0; length + sizeof bytes <= text.size(); length += sizeof bytes)
    {
        std::memcpy(&bytes, text.data() + length, sizeof bytes);
        if (specialBytes(bytes) != 0)
        {
            break;
        }
    }
    while (length < text.size() && !isSpecial(text[length]))
    {
        ++length;
    }
    return length;
}

/// Whether a field of a CSV file that has the character must stand in quotes.
bool mustBeQuoted(char character)
{
    return character == ',' || character == '"' || character == '\r' || character == '\n';
}

/// Whether the thread column is a number as JSON writes one.
bool isJsonNumber(std::string_view text)
{
    const std::string_view digits = text.substr(text.starts_with('-') ? 1 : 0);
    return !digits.empty() && (digits[0] != '0' || digits.size() == 1) &&
           std::ranges::all_of(digits, [](char character) { return character >= '0' && character <= '9'; });
}

} // namespace

LogOutput::LogOutput(LogForm form, platform::FileHandle file, bool hasColours)
    : m_form(form), m_file(file), m_hasColours(hasColours)
{
}

void LogOutput::begin()
{
    if (m_form == LogForm::Csv)
    {
        m_buffer += "run,time,level,thread,logger,class,method,message\n";
    }
}

void LogOutput::write(const LogRecord& record)
{
    switch (m_form)
    {
    case LogForm::Text:
        writeText(record);
        break;
    case LogForm::Csv:
        writeCsv(record);
        break;
    case LogForm::Json:
        writeJson(record);
        break;
    }
    if (m_buffer.size() >= BUFFER_SIZE)
    {
        flush();
    }
}

void LogOutput::flush()
{
    std::string_view rest = m_buffer;
    while (!rest.empty())
    {
        const auto [bytes, error] = platform::writeFile(m_file, rest.data(), rest.size());
        if (bytes == 0)
        {
            if (isPipeClosed(error))
            {
                throw PipeClosed();
            }
            throw Misuse("the output cannot be written: " + errorText(error));
        }
        rest.remove_prefix(bytes);
    }
    m_buffer.clear();
}

void LogOutput::writeText(const LogRecord& record)
{
    const std::string_view raw = record.raw;
    if (m_hasColours && record.level != LogRecord::NO_LEVEL)
    {
        const std::size_t level = record.time.size() + 1;
        const std::size_t length = record.levelName().size();
        m_buffer.append(raw, 0, level).append(COLOURS.at(record.level)).append(raw, level, length);
        m_buffer.append(COLOURS.at(record.level).empty() ? "" : RESET).append(raw, level + length);
    }
    else
    {
        m_buffer.append(raw);
    }
    if (!raw.ends_with('\n') && !record.isCut)
    {
        m_buffer += '\n';
    }
}

void LogOutput::writeCsv(const LogRecord& record)
{
    appendNumber(record.run);
    for (const std::string_view field : {record.time, record.levelName(), record.thread, record.logger,
                                         record.className, record.method, messageOf(record)})
    {
        m_buffer += ',';
        appendCsv(field);
    }
    m_buffer += '\n';
}

void LogOutput::writeJson(const LogRecord& record)
{
    m_buffer += R"({"run":)";
    appendNumber(record.run);
    m_buffer += R"(,"time":")";
    m_buffer.append(record.time).append(R"(","level":")").append(record.levelName()).append(R"(","thread":)");
    if (isJsonNumber(record.thread))
    {
        m_buffer += record.thread;
        m_buffer += R"(,"logger":")";
    }
    else
    {
        m_buffer += '"';
        appendJson(record.thread);
        m_buffer += R"(","logger":")";
    }
    appendJson(record.logger);
    m_buffer += R"(","class":")";
    appendJson(record.className);
    m_buffer += R"(","method":")";
    appendJson(record.method);
    m_buffer += R"(","message":")";
    appendJson(messageOf(record));
    m_buffer += "\"}\n";
}

void LogOutput::appendCsv(std::string_view text)
{
    if (std::ranges::none_of(text, mustBeQuoted))
    {
        m_buffer += text;
        return;
    }
    m_buffer += '"';
    for (std::size_t quote = text.find('"'); quote != std::string_view::npos; quote = text.find('"'))
    {
        m_buffer.append(text, 0, quote).append("\"\"");
        text.remove_prefix(quote + 1);
    }
    m_buffer.append(text) += '"';
}

/// Appends the text of a JSON string without its quotes.
void LogOutput::appendJson(std::string_view text)
{
    while (!text.empty())
    {
        const std::size_t plain = plainLength(text);
        m_buffer.append(text, 0, plain);
        text.remove_prefix(plain);
        if (text.empty())
        {
            return;
        }
        if (text[0] == '"' || text[0] == '\\')
        {
            m_buffer += '\\';
            m_buffer += text[0];
            text.remove_prefix(1);
            continue;
        }
        const auto* const end = std::ranges::find_if(
            text, [](char character) { return !isSpecial(character) || character == '"' || character == '\\'; });
        const auto length = static_cast<std::size_t>(end - text.begin());
        const std::string quoted = jsonText(text.substr(0, length));
        m_buffer.append(quoted, 1, quoted.size() - 2);
        text.remove_prefix(length);
    }
}

void LogOutput::appendNumber(std::uint64_t number)
{
    std::array<char, 20> digits{};
    m_buffer.append(digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr);
}

/// The message with line feeds alone between its lines.
std::string_view LogOutput::messageOf(const LogRecord& record)
{
    std::string_view text = record.message;
    std::size_t end = record.hasCrLf ? text.find("\r\n") : std::string_view::npos;
    if (end == std::string_view::npos)
    {
        return text;
    }
    m_message.clear();
    for (; end != std::string_view::npos; end = text.find("\r\n"))
    {
        m_message.append(text, 0, end) += '\n';
        text.remove_prefix(end + 2);
    }
    return m_message.append(text);
}

} // namespace Tool
