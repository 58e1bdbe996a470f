#pragma once

// The files of one log: the live file, which texts are appended to, and the numbered files. A live file that has grown
// past 10 MiB gets the next number before the next text is written, and the oldest numbered files beyond a limit are
// removed.
//
//     LogFiles files({.basePath = "C:\\logs\\app.log", .maxFiles = 20});
//     if (files.open())                                  // C:\logs\app.log.txt
//     {
//         files.write("a line\n");
//         files.flush();
//     }
//
// Failures are reported on standard output and standard error, never to the Logger, and logging goes on. Not for
// several threads at once, and not for two programs with the same base path: they would race for the numbers.

#include "datapath/common/infra/LogFileStream.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class LogFiles
{
public:
    /// Where the files are and how many are kept.
    struct Settings
    {
        /// The path of all files without number and ".txt", narrow and in the system's own form: a backslash separates
        /// on Windows, a slash on Linux ("/var/log/app.log"). On Windows a path with slashes, or with ".\" before the
        /// name, is written to, but its numbered files are not found.
        std::string basePath;
        std::uint32_t maxFiles = 1000; ///< numbered files that are kept
    };

    explicit LogFiles(Settings settings);

    /// Continues the live file, or creates it. Creates its folder too, but not the folders above that one. Returns
    /// whether the file is open.
    [[nodiscard]] bool open();

    /// Whether files that are numbered from now on are named ".txt.gz"; their content stays plain text. Off
    /// at first.
    void setCompressOnRotate(bool compressOnRotate) { m_compressOnRotate = compressOnRotate; }

    /// Appends a text or, one after the other, the parts of a text; all parts go to the same file. Dropped while no
    /// file is open.
    void write(std::string_view part, bool isFirst = true, bool isLast = true)
    {
        // Flushed first: a file is not moved away while the end of one of its texts is still to be written.
        if (isFirst && m_stream.isLongerThan(MAX_FILE_LENGTH) && m_stream.flush())
        {
            rotate();
        }
        m_stream.write(part, isFirst, isLast);
    }

    /// Hands every whole text on to the system.
    void flush() { m_stream.flush(); }

    [[nodiscard]] static std::string liveFile(const std::string& basePath);

private:
    static constexpr std::uint64_t MAX_FILE_LENGTH = 10'485'760; // bytes; a longer live file is numbered

    [[nodiscard]] bool openLiveFile();
    void rotate();
    [[nodiscard]] std::string rotatedFileName(std::int64_t number) const;
    [[nodiscard]] std::optional<std::vector<std::string>> listLogDirectory() const;

    const Settings m_settings;
    const std::string m_directory; // the folder of all files
    bool m_compressOnRotate = false;
    LogFileStream m_stream;
};
