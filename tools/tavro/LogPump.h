#pragma once

// Reads the files of logs from the first to the last, and hands their records to a function.
//
//     LogPump pump(logPathsOf(names), [&](const LogRecord& record) { output.write(record); });
//     pump.run();
//     return pump.hasFound() ? FOUND : FINE;
//
// Not for several threads at once.

#include "tools/tavro/LogFile.h"
#include "tools/tavro/LogFileSet.h"
#include "tools/tavro/LogReader.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Tool
{

/// Tells on standard error how much of the work is done, once a second has passed.
class LogProgress
{
public:
    explicit LogProgress(bool isWanted) : m_isWanted(isWanted) {}
    LogProgress(const LogProgress&) = delete;
    LogProgress& operator=(const LogProgress&) = delete;

    /// Removes the text from the terminal.
    ~LogProgress();

    void setTotal(std::uint64_t bytes) { m_total = bytes; }
    void show(std::uint64_t bytes);

private:
    using Clock = std::chrono::steady_clock;

    const bool m_isWanted;
    bool m_isShown = false;
    std::uint64_t m_total = 0;
    Clock::time_point m_due = Clock::now() + std::chrono::seconds(1);
};

class LogPump
{
public:
    using Sink = std::function<void(const LogRecord&)>;

    LogPump(std::vector<LogPath> files, Sink sink) : m_files(std::move(files)), m_sink(std::move(sink)) {}

    /// Reads all files to their ends. A file that cannot be read is told on standard error and left there. hasProgress:
    /// shows the progress on standard error. What the sink throws passes through.
    void run(bool hasProgress);

    /// As run, and then goes on with what the last file gets, which must be the live file of a log, and with the files
    /// that come after it when it is renamed. Calls idle before each wait. Returns only by what the sink or idle
    /// throws, or by Misuse if the last file cannot be opened.
    [[noreturn]] void follow(const std::function<void()>& idle);

    /// Whether anything was found that a log should not have: a raw record, or a file that could not be read.
    [[nodiscard]] bool hasFound() const { return m_hasFound; }

    /// How many runs the records had.
    [[nodiscard]] std::uint64_t runs() const { return m_runs; }

private:
    enum class Patience
    {
        Some,   // a file that stays away is told
        Endless // a file that stays away is waited for
    };

    void readLog(std::vector<LogPath> files, LogProgress& progress);
    void read(const LogPath& path, LogProgress& progress);
    void readOpen(const LogPath& path, LogFile& file, LogProgress& progress);
    void beginFile(const LogPath& path);
    [[nodiscard]] bool readPiece(LogFile& file);
    void endFile(const std::string& path, const LogFile& file);
    void takeRecords();
    void openLive(std::vector<LogPath>& files, Patience patience);
    void readLive(const LogPath& live, const std::function<void()>& idle);
    [[nodiscard]] std::optional<LogFile> successor(const LogPath& live);

    std::vector<LogPath> m_files;
    const Sink m_sink;
    LogReader m_reader;
    LogRecord m_record;
    bool m_hasFound = false;
    std::uint64_t m_runs = 0;
    std::uint64_t m_done = 0; // bytes of the files before the present one

    std::string m_base; // of the log that is being read

    // Of the live file:
    LogFile m_current;
    std::uint64_t m_lastNumber = 0; // of the newest numbered file that is older than this one
};

} // namespace Tool
