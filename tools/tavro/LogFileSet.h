#pragma once

// Which files a log consists of. A log "app.log" has numbered files, "app.log000001.txt" or "app.log000001.txt.gz", and
// the live file "app.log.txt", which is the newest one.
//
//     for (const LogPath& path : logPathsOf({"C:\\logs", "more.log.txt"})) ...
//
// Nothing is created. Everything here is called on the main thread.

#include <cstdint>
#include <string>
#include <vector>

namespace Tool
{

/// One file of a log.
struct LogPath
{
    static constexpr std::uint64_t COMPRESSED_LIVE = UINT64_MAX - 1; ///< "app.log.txt.gz" without a number
    static constexpr std::uint64_t LIVE = UINT64_MAX;

    std::string path;            ///< "-" is standard input
    std::string base;            ///< "C:\logs\app.log"; the path itself if it is not named like a file of a log
    std::uint64_t number = LIVE; ///< of a numbered file, or one of the constants

    /// Of a live file: the highest number of its log when the file was found. The live file may get a higher one before
    /// it is opened, and is then another file.
    std::uint64_t lastNumber = 0;
};

/// Tells by its name what a file is.
[[nodiscard]] LogPath logPath(const std::string& path);

/// The files in the order in which they were written: those of the first log, of the second and so on. A folder stands
/// for the logs in it; no names at all stand for the log of the checkpoint program. Throws Misuse with the name if
/// there is no such file or no log.
[[nodiscard]] std::vector<LogPath> logPathsOf(const std::vector<std::string>& names);

/// The numbered files of a log, oldest first. Empty if the folder cannot be read.
[[nodiscard]] std::vector<LogPath> numberedFilesOf(const std::string& base);

/// The highest number of them; 0 if there are none.
[[nodiscard]] std::uint64_t highestNumberOf(const std::string& base);

} // namespace Tool
