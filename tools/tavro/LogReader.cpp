#include "tools/tavro/LogReader.h"

#include "tools/tavro/Command.h"

#include <algorithm>
#include <cstring>

namespace
{

using Tool::isDigit;

constexpr std::string_view START_TEXT = " -----------------Log Start----------------------";
constexpr std::string_view HEADER = "time,level,thread,logger,method,message,exception";
constexpr std::string_view NOTICE_END = "-pausing logger due to OOM";
constexpr std::string_view TIME_FORM = "0000-00-00 00:00:00"; // a 0 stands for any digit
constexpr std::size_t MAX_FRACTION_DIGITS = 9;
constexpr std::size_t NONE = std::string_view::npos;

/// How many characters have the form of a time: those of TIME_FORM, a point and at most nine digits.
std::size_t timePrefixLength(std::string_view text)
{
    std::size_t length = 0;
    for (; length < TIME_FORM.size(); ++length)
    {
        if (length == text.size() ||
            (TIME_FORM[length] == '0' ? !isDigit(text[length]) : text[length] != TIME_FORM[length]))
        {
            return length;
        }
    }
    if (length == text.size() || text[length] != '.')
    {
        return length;
    }
    const std::size_t limit = std::min(text.size(), length + 1 + MAX_FRACTION_DIGITS);
    do
    {
        ++length;
    } while (length < limit && isDigit(text[length]));
    return length;
}

bool isWholeTime(std::string_view time) { return time.size() >= TIME_FORM.size() && isDigit(time.back()); }

/// Whether the line begins with a time and a comma, as every record does.
bool beginsWithTime(std::string_view line)
{
    const std::size_t time = timePrefixLength(line);
    return time != line.size() && line[time] == ',' && isWholeTime(line.substr(0, time));
}

/// The id of a thread, and a name after a slash if it has one.
bool isThread(std::string_view text)
{
    text.remove_prefix(text.starts_with('-') ? 1 : 0);
    const std::string_view id = text.substr(0, text.find('/'));
    return !id.empty() && std::ranges::all_of(id, isDigit);
}

std::size_t levelOf(std::string_view name)
{
    return static_cast<std::size_t>(std::ranges::find(Tool::LEVEL_NAMES, name) - Tool::LEVEL_NAMES.begin());
}

std::string_view withoutReturn(std::string_view line)
{
    return line.ends_with('\r') ? line.substr(0, line.size() - 1) : line;
}

} // namespace

namespace Tool
{

/// How a line begins. Places are counted from the begin of the line.
struct LogReader::Head
{
    std::optional<LogRecord::Kind> kind; // none: the line begins no record
    std::array<std::size_t, 6> commas{};
    std::size_t level = LogRecord::NO_LEVEL;
    std::size_t message = 0;
};

LogReader::LogReader(std::size_t maxRecord, std::size_t firstRoom)
    : m_maxRecord(maxRecord), m_leastRoom(firstRoom / 2), m_buffer(firstRoom)
{
}

LogReader::Head LogReader::parse(std::string_view line)
{
    Head head;
    if (!beginsWithTime(line))
    {
        return head;
    }
    const std::size_t time = line.find(',');
    head.commas[0] = time;
    head.message = time + 1;
    std::size_t count = 1;
    for (std::size_t at = time; count < head.commas.size() && (at = line.find(',', at + 1)) != NONE; ++count)
    {
        head.commas.at(count) = at;
    }
    const auto field = [&](std::size_t number) {
        return line.substr(head.commas.at(number - 1) + 1, head.commas.at(number) - head.commas.at(number - 1) - 1);
    };
    if (count == head.commas.size() && isThread(field(2)))
    {
        head.level = levelOf(field(1));
        if (head.level != LogRecord::NO_LEVEL)
        {
            head.kind = LogRecord::Kind::Line;
            head.message = head.commas.back() + 1;
            return head;
        }
    }
    const std::string_view rest = line.substr(time + 1);
    if (rest.starts_with(START_TEXT))
    {
        head.kind = LogRecord::Kind::Start;
        ++head.message; // the blank
    }
    else if (rest.ends_with(NOTICE_END))
    {
        head.kind = LogRecord::Kind::Notice;
    }
    return head;
}

/// Whether the line ends before its first six commas, and begins a record as far as it goes.
bool LogReader::isTornHead(std::string_view line)
{
    const std::size_t time = timePrefixLength(line);
    if (time == line.size())
    {
        return !line.empty();
    }
    if (!beginsWithTime(line))
    {
        return false;
    }
    const std::string_view rest = line.substr(time + 1);
    const std::size_t comma = rest.find(',');
    const std::string_view level = rest.substr(0, comma);
    if (comma == NONE)
    {
        return START_TEXT.starts_with(level) ||
               std::ranges::any_of(LEVEL_NAMES, [&](std::string_view name) { return name.starts_with(level); });
    }
    const std::string_view thread = rest.substr(comma + 1, rest.find(',', comma + 1) - comma - 1);
    return levelOf(level) != LogRecord::NO_LEVEL && std::ranges::count(line, ',') < 6 &&
           (thread.empty() || thread == "-" || isThread(thread));
}

std::span<char> LogReader::room()
{
    compact();
    if (m_buffer.size() - m_end < m_leastRoom)
    {
        m_buffer.resize(m_buffer.size() * 2); // next() cuts what is longer than MAX_RECORD
    }
    return std::span(m_buffer).subspan(m_end);
}

/// Moves the bytes that are still needed to the begin of the buffer.
void LogReader::compact()
{
    const std::size_t needed = m_pending ? m_pending->begin : m_line;
    if (needed == 0)
    {
        return;
    }
    std::memmove(m_buffer.data(), m_buffer.data() + needed, m_end - needed);
    m_line -= needed;
    m_end -= needed;
    m_searched = std::max(m_searched, needed) - needed;
    std::erase_if(m_seams, [=](std::size_t seam) { return seam <= needed; });
    std::ranges::for_each(m_seams, [=](std::size_t& seam) { seam -= needed; });
    if (m_pending)
    {
        m_pending->begin = 0;
        m_pending->headLine -= needed;
        m_pending->message -= needed;
        m_pending->messageEnd -= m_pending->messageEnd == 0 ? 0 : needed;
        m_pending->lastLine -= needed;
        m_pending->blanks -= needed;
        std::ranges::for_each(m_pending->commas, [=](std::size_t& comma) { comma -= needed; });
    }
}

bool LogReader::next(LogRecord& record)
{
    while (const std::optional<std::size_t> end = findLineEnd())
    {
        if (takeLine(*end, record))
        {
            return true;
        }
    }
    if (m_pending && m_isEnding && m_line == m_end)
    {
        return endPending(m_end, record);
    }
    m_isEnding = false;
    m_isFileEnd = false;
    return cut(record);
}

void LogReader::endFile()
{
    m_isFileEnd = m_line != m_end;
    m_isInsideLine = m_isInsideLine && m_isFileEnd;
    m_isEnding = m_isEnding || m_isFileEnd;
}

void LogReader::addSeam()
{
    std::erase_if(m_seams, [this](std::size_t seam) { return seam <= m_line; });
    if (m_line != m_end)
    {
        m_seams.push_back(m_end);
    }
}

/// The first seam within the line that ends at that place, if what follows the seam begins a record; else that place.
std::size_t LogReader::endAtSeam(std::size_t end) const
{
    for (std::size_t i = 0; i < m_seams.size(); ++i)
    {
        const std::size_t seam = m_seams[i];
        const std::size_t next = i + 1 == m_seams.size() ? end : std::min(end, m_seams[i + 1]);
        if (seam > m_line && seam < next && parse(withoutReturn(text(seam, next))).kind)
        {
            return seam;
        }
    }
    return end;
}

/// The place after the next line, its line end included.
std::optional<std::size_t> LogReader::findLineEnd()
{
    m_searched = std::max(m_searched, m_line);
    const void* const found = std::memchr(m_buffer.data() + m_searched, '\n', m_end - m_searched);
    if (found != nullptr)
    {
        m_searched = static_cast<std::size_t>(static_cast<const char*>(found) - m_buffer.data()) + 1;
        return m_searched = endAtSeam(m_searched);
    }
    m_searched = m_end;
    return m_isFileEnd && m_line != m_end ? std::optional(m_searched = endAtSeam(m_end)) : std::nullopt;
}

/// Looks at the next line, which ends at that place. Returns whether that ends a record; then the line may have to be
/// looked at again.
bool LogReader::takeLine(std::size_t end, LogRecord& record)
{
    const std::string_view whole = text(m_line, end);
    const bool isEnded = whole.ends_with('\n');
    const std::string_view line = withoutReturn(whole.substr(0, whole.size() - (isEnded ? 1 : 0)));
    const Head head = m_isInsideLine || line.empty() || !isDigit(line[0]) ? Head{} : parse(line);
    const bool isNewRecord = head.kind ? takeHead(head, end, record) : takeOther(line, end, record);
    if (isNewRecord)
    {
        m_searched = m_line; // the end of this line is found once more if the line was not taken
    }
    return isNewRecord;
}

/// Takes a line that begins a record.
bool LogReader::takeHead(const Head& head, std::size_t end, LogRecord& record)
{
    std::size_t rawBegin = m_line;
    if (m_pending && head.kind == LogRecord::Kind::Start)
    {
        if (splitTornLine(record))
        {
            return true;
        }
        rawBegin -= std::min<std::size_t>(m_pending->blankCount, 2) * m_pending->blankLength;
    }
    const bool isEnding = m_pending && endPending(rawBegin, record);
    begin(head, rawBegin);
    m_line = end;
    return isEnding;
}

/// Takes a line that begins no record.
bool LogReader::takeOther(std::string_view line, std::size_t end, LogRecord& record)
{
    using Kind = LogRecord::Kind;
    if (line.empty() && m_pending && !m_isInsideLine)
    {
        addBlank(end);
        m_line = end;
        return false;
    }
    if (m_pending && m_pending->kind == Kind::Start && m_pending->messageEnd == 0 && line == HEADER)
    {
        m_pending->messageEnd = m_line;
        m_pending->blankCount = 0;
        m_line = end;
        return false;
    }
    const bool isTorn = text(m_line, end).back() != '\n' && (isTornHead(line) || beginsWithTime(line));
    const bool isContinuation =
        m_pending && !m_isInsideLine && !isTorn && !line.starts_with('\0') &&
        (m_pending->kind == Kind::Line || (m_pending->kind == Kind::Start && m_pending->messageEnd == 0));
    if (isContinuation)
    {
        m_pending->lastLine = m_line;
        m_pending->blankCount = 0;
        m_line = end;
        return false;
    }
    const bool isEnding = m_pending && endPending(m_line, record);
    begin({.kind = Kind::Raw}, m_line);
    if (line.empty() && !m_isInsideLine)
    {
        addBlank(end);
    }
    m_isInsideLine = false;
    m_line = end;
    return isEnding;
}

void LogReader::addBlank(std::size_t end)
{
    if (m_pending->blankCount++ == 0)
    {
        m_pending->blanks = m_line;
        m_pending->blankLength = end - m_line;
    }
    else if (m_pending->blankLength != end - m_line) // a line end of another kind: only the last ones count
    {
        m_pending->blanks = m_line;
        m_pending->blankCount = 1;
        m_pending->blankLength = end - m_line;
    }
}

/// A start line follows after only one empty line if the line before them has lost its end, because the process was
/// killed while it was written. If that line is the begin of a record, it becomes one of its own.
bool LogReader::splitTornLine(LogRecord& record)
{
    PendingRecord& pending = *m_pending;
    if (pending.blankCount != 1 || pending.lastLine == pending.headLine || pending.kind != LogRecord::Kind::Line)
    {
        return false;
    }
    const std::size_t torn = pending.lastLine;
    if (!isTornHead(withoutReturn(text(torn, pending.blanks - 1))))
    {
        return false;
    }
    const PendingRecord before = pending;
    begin({.kind = LogRecord::Kind::Raw}, torn);
    m_pending->blanks = before.blanks;
    m_pending->blankCount = before.blankCount;
    m_pending->blankLength = before.blankLength;
    makeRecord(before, torn, record);
    return true;
}

void LogReader::begin(const Head& head, std::size_t rawBegin)
{
    PendingRecord& pending = m_pending.emplace();
    pending.kind = *head.kind;
    pending.begin = rawBegin;
    pending.headLine = pending.kind == LogRecord::Kind::Raw ? rawBegin : m_line;
    pending.lastLine = pending.headLine;
    pending.level = head.level;
    pending.message = pending.headLine + head.message;
    pending.blanks = pending.headLine;
    std::transform(head.commas.begin(), head.commas.end(), pending.commas.begin(),
                   [&](std::size_t comma) { return pending.headLine + comma; });
}

/// Ends the record that is pending. Returns false if nothing of it is left: all of it were the empty lines before a
/// start line.
bool LogReader::endPending(std::size_t end, LogRecord& record)
{
    const PendingRecord pending = *m_pending;
    m_pending.reset();
    if (pending.begin == end)
    {
        return false;
    }
    makeRecord(pending, end, record);
    return true;
}

/// Makes a record of what there is, if that is too long.
bool LogReader::cut(LogRecord& record)
{
    if (m_pending && m_line - m_pending->begin > m_maxRecord)
    {
        return endPending(m_line, record);
    }
    if (m_end - m_line <= m_maxRecord)
    {
        return false;
    }
    if (m_pending)
    {
        return endPending(m_line, record);
    }
    begin({.kind = LogRecord::Kind::Raw}, m_line);
    const PendingRecord pending = *m_pending;
    m_pending.reset();
    m_line = m_end;
    m_isInsideLine = true;
    makeRecord(pending, m_end, record);
    record.isCut = true;
    return true;
}

void LogReader::makeRecord(const PendingRecord& pending, std::size_t end, LogRecord& record)
{
    using Kind = LogRecord::Kind;
    record = LogRecord{.kind = pending.kind, .raw = text(pending.begin, end), .level = pending.level};
    std::size_t messageEnd = pending.messageEnd == 0 ? end : pending.messageEnd;
    if (messageEnd > pending.message && m_buffer[messageEnd - 1] == '\n')
    {
        --messageEnd;
    }
    if (messageEnd > pending.message && m_buffer[messageEnd - 1] == '\r')
    {
        --messageEnd;
        record.hasCrLf = true;
    }
    record.message = text(pending.message, messageEnd);
    if (!record.raw.ends_with('\n')) // the lines before the last one tell
    {
        const std::size_t lineEnd = record.message.find('\n');
        record.hasCrLf = record.hasCrLf || (lineEnd != NONE && lineEnd != 0 && record.message[lineEnd - 1] == '\r');
    }
    if (pending.kind != Kind::Raw)
    {
        record.time = text(pending.headLine, pending.commas[0]);
    }
    if (pending.kind == Kind::Line)
    {
        const auto field = [&](std::size_t number) {
            return text(pending.commas.at(number - 1) + 1, pending.commas.at(number));
        };
        record.thread = field(2);
        record.logger = field(3);
        record.className = field(4);
        record.method = field(5);
    }
    countRun(record);
}

void LogReader::countRun(LogRecord& record)
{
    if (m_hasRecords && (m_isNewLog || record.kind == LogRecord::Kind::Start))
    {
        ++m_run;
    }
    m_isNewLog = false;
    m_hasRecords = true;
    record.run = m_run;
}

} // namespace Tool
