#include "tools/tavro/LogSummary.h"

#include "tools/tavro/Command.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <iomanip>
#include <span>
#include <sstream>

namespace Tool
{

namespace
{

constexpr std::size_t TOP_CLASSES = 10;
constexpr std::size_t LONGEST_GAPS = 5;
constexpr std::size_t NEWEST_PAUSES = 100;
constexpr std::size_t NEWEST_RUNS = 20;          // of a text for people
constexpr std::int64_t MICROSECONDS = 1'000'000; // of a second
constexpr std::string_view STUCK_TEXT = " is stuck for ";
constexpr std::string_view ASSERTION_TEXT = "Assertion (";
constexpr std::size_t TIME_WIDTH = 24;
constexpr std::size_t NUMBER_WIDTH = 9;

template <class Number> Number numberAt(std::string_view text, std::size_t place, std::size_t length)
{
    Number number = 0;
    const std::string_view digits = text.substr(std::min(place, text.size()), length);
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number;
}

/// The microseconds since the beginning of 1970; none if there is no such time.
std::optional<std::int64_t> microsecondsOf(std::string_view time)
{
    using namespace std::chrono;
    if (time.empty())
    {
        return std::nullopt;
    }
    const year_month_day date(year(numberAt<int>(time, 0, 4)), month(numberAt<unsigned>(time, 5, 2)),
                              day(numberAt<unsigned>(time, 8, 2)));
    if (!date.ok())
    {
        return std::nullopt;
    }
    const auto sinceMidnight =
        hours(numberAt<int>(time, 11, 2)) + minutes(numberAt<int>(time, 14, 2)) + seconds(numberAt<int>(time, 17, 2));
    const std::int64_t sinceBegin = seconds(sys_days(date).time_since_epoch() + sinceMidnight).count();
    std::string fraction(time.substr(std::min<std::size_t>(time.size(), 20), 6));
    fraction.resize(6, '0');
    return sinceBegin * MICROSECONDS + numberAt<std::int64_t>(fraction, 0, 6);
}

std::string secondsText(std::int64_t microseconds)
{
    std::ostringstream text;
    text << microseconds / MICROSECONDS << '.' << std::setw(3) << std::setfill('0')
         << microseconds % MICROSECONDS / 1000;
    return text.str();
}

/// The message in one line, for people.
std::string inOneLine(std::string text)
{
    std::erase(text, '\r');
    std::ranges::replace(text, '\n', ' ');
    return text;
}

/// Writes what write makes of each item, with commas between.
template <class Items, class Write> void writeArray(std::ostream& out, const Items& items, const Write& write)
{
    out << '[';
    const char* separator = "";
    for (const auto& item : items)
    {
        out << separator;
        write(item);
        separator = ",";
    }
    out << ']';
}

template <class Counts> void writeLevels(std::ostream& out, const Counts& levels)
{
    const char* separator = "{";
    for (std::size_t level = 0; level < levels.size(); ++level)
    {
        out << separator << jsonText(LEVEL_NAMES.at(level)) << ':' << levels.at(level);
        separator = ",";
    }
    out << '}';
}

template <class Gap> void writeGap(std::ostream& out, const Gap& gap)
{
    out << R"({"run":)" << gap.run << R"(,"from":)" << jsonText(gap.from) << R"(,"to":)"
        << (gap.to.empty() ? "null" : jsonText(gap.to)) << R"(,"seconds":)"
        << (gap.to.empty() ? "null" : secondsText(gap.microseconds)) << '}';
}

} // namespace

/// The entry of a name; that of OTHERS if there are too many names.
template <class Value> Value& LogSummary::entryOf(ByName<Value>& entries, std::string_view name)
{
    const auto found = entries.find(name);
    if (found != entries.end())
    {
        return found->second;
    }
    return entries[std::string(entries.size() < MAX_NAMES ? name : OTHERS)];
}

void LogSummary::add(const LogRecord& record)
{
    ++m_records;
    m_raw += record.kind == LogRecord::Kind::Raw ? 1 : 0;
    if (m_runs.empty() || m_runs.back().run != record.run)
    {
        m_runs.push_back({.run = record.run, .first = "", .last = ""});
        ++m_runCount;
        if (m_runs.size() > MAX_RUNS)
        {
            m_runs.pop_front();
        }
        m_lastMicroseconds.reset();
    }
    ++m_runs.back().records;
    if (!record.time.empty())
    {
        addTime(record);
    }
    if (record.kind == LogRecord::Kind::Line)
    {
        addLine(record);
    }
    if (record.kind == LogRecord::Kind::Notice)
    {
        ++m_pauseCount;
        m_pauses.push_back({.run = record.run, .from = std::string(record.time), .to = ""});
        if (m_pauses.size() > NEWEST_PAUSES)
        {
            m_pauses.pop_front();
        }
    }
}

void LogSummary::addTime(const LogRecord& record)
{
    Run& run = m_runs.back();
    if (run.first.empty())
    {
        run.first = record.time;
    }
    run.last = record.time;
    if (m_first.empty() || record.time < std::string_view(m_first))
    {
        m_first = record.time;
    }
    if (record.time > std::string_view(m_last))
    {
        m_last = record.time;
    }
    const std::optional<std::int64_t> now = microsecondsOf(record.time);
    if (now && m_lastMicroseconds)
    {
        addGap(record, *now - *m_lastMicroseconds);
    }
    if (now)
    {
        m_lastMicroseconds = now;
        m_lastTime = record.time;
    }
}

void LogSummary::addGap(const LogRecord& record, std::int64_t microseconds)
{
    if (!m_pauses.empty() && m_pauses.back().to.empty() && m_pauses.back().run == record.run)
    {
        m_pauses.back().to = record.time;
        m_pauses.back().microseconds = std::max<std::int64_t>(microseconds, 0); // fractions may be cut
    }
    const bool isLong = microseconds > 0 && (m_gaps.size() < LONGEST_GAPS || microseconds > m_gaps.back().microseconds);
    if (!isLong)
    {
        return;
    }
    const auto place = std::ranges::find_if(m_gaps, [&](const Gap& gap) { return gap.microseconds < microseconds; });
    m_gaps.insert(place, {record.run, m_lastTime, std::string(record.time), microseconds});
    m_gaps.resize(std::min(m_gaps.size(), LONGEST_GAPS));
}

void LogSummary::addLine(const LogRecord& record)
{
    ++m_runs.back().levels.at(record.level);
    ++m_levels.at(record.level);
    if (m_lastCount == nullptr || record.className != m_lastClass)
    {
        m_lastCount = &entryOf(m_classes, record.className);
        m_lastClass = record.className;
    }
    ++*m_lastCount;
    if (record.className == "DlcKeepalive" && record.method == "checkLease")
    {
        addStuck(record);
    }
    if (record.levelName() == "Assert" ||
        (record.levelName() == "Error" && record.message.starts_with(ASSERTION_TEXT) &&
         record.message.find(") failed ") != std::string_view::npos))
    {
        m_failure = Failure{record.run,
                            std::string(record.time),
                            std::string(record.levelName()),
                            std::string(record.thread),
                            std::string(record.className),
                            std::string(record.method),
                            std::string(record.message)};
    }
}

/// "Copier is stuck for 12 sec".
void LogSummary::addStuck(const LogRecord& record)
{
    const std::size_t end = record.message.rfind(STUCK_TEXT);
    if (end == std::string_view::npos)
    {
        return;
    }
    StuckThread& thread = entryOf(m_stuckThreads, record.message.substr(0, end));
    ++thread.lines;
    thread.longestSec =
        std::max(thread.longestSec, numberAt<std::uint64_t>(record.message, end + STUCK_TEXT.size(), 20));
    thread.last = record.time;
}

std::vector<std::pair<std::string_view, std::uint64_t>> LogSummary::sortedClasses() const
{
    std::vector<std::pair<std::string_view, std::uint64_t>> classes(m_classes.begin(), m_classes.end());
    std::ranges::stable_sort(classes, std::greater(), &decltype(classes)::value_type::second);
    return classes;
}

void LogSummary::writeText(std::ostream& out) const
{
    out << "records: " << m_records << ", from " << (m_first.empty() ? "?" : m_first) << " to "
        << (m_last.empty() ? "?" : m_last) << " (UTC)\n";
    if (m_raw != 0)
    {
        out << "raw records, which are no lines of a log: " << m_raw << '\n';
    }
    writeRuns(out);
    out << "\nlines of each class:\n";
    const auto classes = sortedClasses();
    const std::size_t shown = std::min(classes.size(), TOP_CLASSES);
    for (const auto& [name, lines] : std::span(classes).first(shown))
    {
        out << std::right << std::setw(NUMBER_WIDTH) << lines << "  " << (name.empty() ? "(none)" : name) << '\n';
    }
    if (shown != classes.size())
    {
        out << std::setw(NUMBER_WIDTH) << ""
            << "  and " << classes.size() - shown << " more classes with fewer lines\n";
    }
    out << "\nlongest pauses between two lines of a run:\n";
    for (const Gap& gap : m_gaps)
    {
        out << std::setw(NUMBER_WIDTH) << secondsText(gap.microseconds) << " s  run " << gap.run << ", from "
            << gap.from << " to " << gap.to << '\n';
    }
    writeFindings(out);
}

void LogSummary::writeRuns(std::ostream& out) const
{
    const std::size_t left = m_runs.size() - std::min(m_runs.size(), NEWEST_RUNS);
    out << "\nruns: " << m_runCount << (left == 0 ? "" : ", of which the newest are shown") << '\n';
    const auto row = [&](std::string_view run, std::string_view first, std::string_view last, const auto& counts) {
        out << std::right << std::setw(6) << run << "  " << std::left << std::setw(TIME_WIDTH) << first
            << std::setw(TIME_WIDTH) << last << std::right;
        for (const auto& count : counts)
        {
            out << std::setw(NUMBER_WIDTH) << count;
        }
        out << '\n';
    };
    row("run", "first", "last", LEVEL_NAMES);
    std::for_each(m_runs.begin() + static_cast<std::ptrdiff_t>(left), m_runs.end(), [&](const Run& run) {
        row(std::to_string(run.run), run.first.substr(0, TIME_WIDTH - 1), run.last.substr(0, TIME_WIDTH - 1),
            run.levels);
    });
    row("all", "", "", m_levels);
}

void LogSummary::writeFindings(std::ostream& out) const
{
    out << "\npauses of the log for want of memory: " << m_pauseCount << '\n';
    for (const Gap& pause : m_pauses)
    {
        out << "  run " << pause.run << ", from " << pause.from << " to " << (pause.to.empty() ? "the end" : pause.to)
            << ": lines are missing, the log does not tell how many\n";
    }
    out << "\nstuck threads: " << m_stuckThreads.size() << '\n';
    for (const auto& [name, thread] : m_stuckThreads)
    {
        out << "  " << inOneLine(name) << ": " << thread.lines << " lines, longest " << thread.longestSec
            << " s, last at " << thread.last << '\n';
    }
    out << "\nlast failed check or assertion: ";
    if (!m_failure)
    {
        out << "none\n";
        return;
    }
    out << "run " << m_failure->run << '\n'
        << "  " << m_failure->time << ',' << m_failure->level << ',' << m_failure->thread << ',' << m_failure->className
        << ',' << m_failure->method << ',' << inOneLine(m_failure->message) << '\n';
}

void LogSummary::writeJson(std::ostream& out) const
{
    out << R"({"records":)" << m_records << R"(,"raw":)" << m_raw << R"(,"first":)" << jsonText(m_first)
        << R"(,"last":)" << jsonText(m_last) << R"(,"levels":)";
    writeLevels(out, m_levels);
    out << R"(,"runCount":)" << m_runCount << R"(,"runs":)";
    writeArray(out, m_runs, [&](const Run& run) {
        out << R"({"run":)" << run.run << R"(,"first":)" << jsonText(run.first) << R"(,"last":)" << jsonText(run.last)
            << R"(,"records":)" << run.records << R"(,"levels":)";
        writeLevels(out, run.levels);
        out << '}';
    });
    out << R"(,"classes":)";
    writeArray(out, sortedClasses(), [&](const auto& entry) {
        out << R"({"class":)" << jsonText(entry.first) << R"(,"lines":)" << entry.second << '}';
    });
    out << R"(,"gaps":)";
    writeArray(out, m_gaps, [&](const Gap& gap) { writeGap(out, gap); });
    out << R"(,"memoryPauseCount":)" << m_pauseCount << R"(,"memoryPauses":)";
    writeArray(out, m_pauses, [&](const Gap& pause) { writeGap(out, pause); });
    out << R"(,"stuckThreads":)";
    writeArray(out, m_stuckThreads, [&](const auto& entry) {
        const auto& [name, thread] = entry;
        out << R"({"name":)" << jsonText(name) << R"(,"lines":)" << thread.lines << R"(,"longestSeconds":)"
            << thread.longestSec << R"(,"last":)" << jsonText(thread.last) << '}';
    });
    out << R"(,"lastFailure":)";
    if (m_failure)
    {
        out << R"({"run":)" << m_failure->run << R"(,"time":)" << jsonText(m_failure->time) << R"(,"level":)"
            << jsonText(m_failure->level) << R"(,"thread":)" << jsonText(m_failure->thread) << R"(,"class":)"
            << jsonText(m_failure->className) << R"(,"method":)" << jsonText(m_failure->method) << R"(,"message":)"
            << jsonText(m_failure->message) << '}';
    }
    else
    {
        out << "null";
    }
    out << "}\n";
}

} // namespace Tool
