#include "tools/tavro/LogFilter.h"

#include "datapath/common/infra/base/AsciiCase.h"
#include "tools/tavro/Command.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>

namespace Tool
{

namespace
{

/// One number of a time: its place in the text, its length and its limits.
struct TimePart
{
    std::size_t place;
    std::size_t length;
    int least;
    int most;
};

constexpr std::string_view TIME_FORM = "0000-00-00 00:00:00.000000000";
constexpr std::size_t POINT = 19;
constexpr std::array TIME_PARTS = {TimePart{0, 4, 0, 9999}, TimePart{5, 2, 1, 12},  TimePart{8, 2, 1, 31},
                                   TimePart{11, 2, 0, 23},  TimePart{14, 2, 0, 59}, TimePart{17, 2, 0, 60}};

bool hasForm(std::string_view text)
{
    return text.size() <= TIME_FORM.size() &&
           std::ranges::equal(text, TIME_FORM.substr(0, text.size()), [](char character, char form) {
               return form == '0' ? isDigit(character) : character == form;
           });
}

bool isInside(std::string_view text, const TimePart& part)
{
    if (text.size() <= part.place)
    {
        return true;
    }
    int number = -1;
    std::from_chars(text.data() + part.place, text.data() + std::min(text.size(), part.place + part.length), number);
    return text.size() >= part.place + part.length && number >= part.least && number <= part.most;
}

/// Whether a text with the parts of a time has a day that the month has, as far as it goes.
bool hasDay(std::string_view text)
{
    constexpr std::size_t DATE = 10;
    if (text.size() < DATE)
    {
        return true;
    }
    const auto number = [&](const TimePart& part) {
        int value = 0;
        std::from_chars(text.data() + part.place, text.data() + part.place + part.length, value);
        return value;
    };
    return std::chrono::year_month_day(std::chrono::year(number(TIME_PARTS[0])),
                                       std::chrono::month(static_cast<unsigned>(number(TIME_PARTS[1]))),
                                       std::chrono::day(static_cast<unsigned>(number(TIME_PARTS[2]))))
        .ok();
}

/// A time of the user in the form of the log.
std::string checkedTime(const std::string& given)
{
    constexpr std::size_t BLANK = 10;
    std::string text = given;
    if (text.size() > BLANK && text[BLANK] == 'T')
    {
        text[BLANK] = ' ';
    }
    if (text.size() > BLANK && text.back() == 'Z')
    {
        text.pop_back();
    }
    if (text.empty() || !hasForm(text) || !isDigit(text.back()) ||
        !std::ranges::all_of(TIME_PARTS, [&](const TimePart& part) { return isInside(text, part); }) || !hasDay(text))
    {
        throw Misuse("\"" + given +
                     "\" is no time: give one such as \"2024-03-05 07:08:09.042\" (UTC), or its begin up to the end of "
                     "a number");
    }
    return text;
}

template <class Names> bool contains(const Names& names, std::string_view name)
{
    return std::ranges::find(names, name) != std::ranges::end(names);
}

} // namespace

void LogFilter::setSince(const std::string& time)
{
    m_since = checkedTime(time);
    if (m_since.size() > POINT) // "09.040" and "09.04" are the same time
    {
        m_since.erase(m_since.find_last_not_of('0') + 1);
        m_since.erase(m_since.size() - (m_since.back() == '.' ? 1 : 0));
    }
}

void LogFilter::setUntil(const std::string& time) { m_until = checkedTime(time); }

void LogFilter::addLevels(const std::string& names)
{
    std::uint32_t levels = m_levels.value_or(0);
    for (std::size_t begin = 0; begin <= names.size();)
    {
        const std::size_t end = std::min(names.find(',', begin), names.size());
        const std::string name = names.substr(begin, end - begin);
        const auto* const found = std::ranges::find_if(
            LEVEL_NAMES, [&](std::string_view known) { return CaseInsensitiveEqual()(known, name); });
        if (found == LEVEL_NAMES.end())
        {
            throw Misuse("\"" + name + "\" is no level: they are Assert, Fatal, Error, Warn, Info, Debug and Control");
        }
        levels |= 1U << static_cast<std::uint32_t>(found - LEVEL_NAMES.begin());
        begin = end + 1;
    }
    m_levels = levels;
}

bool LogFilter::accepts(const LogRecord& record) const
{
    using Kind = LogRecord::Kind;
    const bool isLine = record.kind == Kind::Line;
    return (!m_run || record.run == *m_run) && (!m_levels || (isLine && (*m_levels >> record.level & 1U) != 0)) &&
           acceptsTime(record.time) && (m_classes.empty() || (isLine && contains(m_classes, record.className))) &&
           (m_methods.empty() || (isLine && contains(m_methods, record.method))) &&
           (m_threads.empty() || (isLine && acceptsThread(record.thread))) &&
           (m_contained.empty() || record.message.find(m_contained) != std::string_view::npos);
}

bool LogFilter::acceptsTime(std::string_view time) const
{
    if (m_since.empty() && m_until.empty())
    {
        return true;
    }
    return !time.empty() && time >= m_since && (m_until.empty() || time.substr(0, m_until.size()) <= m_until);
}

bool LogFilter::acceptsThread(std::string_view thread) const
{
    const std::size_t slash = thread.find('/');
    return contains(m_threads, thread) || contains(m_threads, thread.substr(0, slash)) ||
           (slash != std::string_view::npos && contains(m_threads, thread.substr(slash + 1)));
}

} // namespace Tool
