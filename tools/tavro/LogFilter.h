#pragma once

// Which records of a log are wanted.
//
//     LogFilter filter;
//     filter.setSince("2024-03-05 07:08");
//     filter.addLevels("Error,Warn");
//     if (filter.accepts(record)) ...
//
// Not for several threads at once.

#include "tools/tavro/LogReader.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tool
{

/// A record must pass every part that is set. One that lacks the field, such as a start line without a level, does not
/// pass. The operations that take texts of the user throw Misuse if a text is wrong.
class LogFilter
{
public:
    /// Times are UTC, and may be the begin of one: "2024-03-05 07" is the whole hour. Both ends are included. A T may
    /// stand in place of the blank, and a Z at the end.
    void setSince(const std::string& time);
    void setUntil(const std::string& time);

    /// Names of levels that are wanted, separated by commas, in any case.
    void addLevels(const std::string& names);

    /// Sets the classes, methods or threads of which a record must have one. A thread is given by its id, its name or
    /// both: "4711", "reader", "4711/reader".
    void setClasses(std::vector<std::string> names) { m_classes = std::move(names); }
    void setMethods(std::vector<std::string> names) { m_methods = std::move(names); }
    void setThreads(std::vector<std::string> names) { m_threads = std::move(names); }

    /// The message must contain the text.
    void setContained(std::string text) { m_contained = std::move(text); }

    void setRun(std::uint64_t run) { m_run = run; }

    [[nodiscard]] bool accepts(const LogRecord& record) const;

private:
    [[nodiscard]] bool acceptsTime(std::string_view time) const;
    [[nodiscard]] bool acceptsThread(std::string_view thread) const;

    std::string m_since;
    std::string m_until;
    std::optional<std::uint32_t> m_levels; // bit n is set if level n is wanted
    std::vector<std::string> m_classes;    // all if empty
    std::vector<std::string> m_methods;
    std::vector<std::string> m_threads;
    std::string m_contained;
    std::optional<std::uint64_t> m_run;
};

} // namespace Tool
