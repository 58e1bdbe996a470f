#pragma once

// What a log has in it, in short: its runs, its levels and classes, and what went wrong.
//
//     LogSummary summary;
//     summary.add(record);                // each one
//     summary.writeText(std::cout);
//
// Memory: some bytes for each of the newest MAX_RUNS runs, and for each name of a class or a stuck thread, of which at
// most MAX_NAMES are told apart. Not for several threads at once.

#include "tools/tavro/LogReader.h"

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace Tool
{

class LogSummary
{
public:
    static constexpr std::size_t MAX_NAMES = 10'000; ///< what has another name counts as OTHERS
    static constexpr std::size_t MAX_RUNS = 1'000;   ///< older ones count in the totals alone
    static constexpr std::string_view OTHERS = "(others)";

    void add(const LogRecord& record);

    /// For people, in columns.
    void writeText(std::ostream& out) const;

    /// One object for programs.
    void writeJson(std::ostream& out) const;

private:
    using LevelCounts = std::array<std::uint64_t, LEVEL_NAMES.size()>;
    template <class Value> using ByName = std::map<std::string, Value, std::less<>>;

    struct Run
    {
        std::uint64_t run = 0;
        std::string first; // times; empty if no record has one
        std::string last;
        std::uint64_t records = 0;
        LevelCounts levels{};
    };

    /// A time in which a run has logged nothing.
    struct Gap
    {
        std::uint64_t run = 0;
        std::string from;
        std::string to;
        std::int64_t microseconds = 0;
    };

    /// What the deadlock checker has told about one thread.
    struct StuckThread
    {
        std::uint64_t lines = 0;
        std::uint64_t longestSec = 0;
        std::string last; // time
    };

    /// A line with which the process has ended itself.
    struct Failure
    {
        std::uint64_t run = 0;
        std::string time;
        std::string level;
        std::string thread;
        std::string className;
        std::string method;
        std::string message;
    };

    template <class Value> [[nodiscard]] static Value& entryOf(ByName<Value>& entries, std::string_view name);

    void addTime(const LogRecord& record);
    void addGap(const LogRecord& record, std::int64_t microseconds);
    void addLine(const LogRecord& record);
    void addStuck(const LogRecord& record);
    [[nodiscard]] std::vector<std::pair<std::string_view, std::uint64_t>> sortedClasses() const;
    void writeRuns(std::ostream& out) const;
    void writeFindings(std::ostream& out) const;

    std::deque<Run> m_runs; // the newest ones
    std::uint64_t m_runCount = 0;
    LevelCounts m_levels{}; // of all runs
    std::string m_first;    // times of the whole log
    std::string m_last;
    std::uint64_t m_records = 0;
    std::uint64_t m_raw = 0;
    ByName<std::uint64_t> m_classes;      // lines
    std::uint64_t* m_lastCount = nullptr; // in m_classes, of the class of the last line
    std::string m_lastClass;
    std::vector<Gap> m_gaps;                        // the longest ones, longest first
    std::optional<std::int64_t> m_lastMicroseconds; // the time of the last line of this run that has one
    std::string m_lastTime;
    std::uint64_t m_pauseCount = 0;
    std::deque<Gap> m_pauses; // for memory, the newest ones; "to" is empty until the next line is there
    ByName<StuckThread> m_stuckThreads;
    std::optional<Failure> m_failure; // the last one
};

} // namespace Tool
