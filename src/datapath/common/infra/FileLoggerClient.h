#pragma once

// The log client that writes lines into rotated files. Tweaks choose its modes when it is made.
//
//     Logger::instance().registerClient(new FileLoggerClient("C:\\logs\\app.log", 3, ""), Logger::ALL_LEVELS);
//
// Each run begins with two empty lines, a start line and the header of the columns. A client that could not open
// its file, or that is switched off, takes lines and drops them.

#include "datapath/common/infra/GenFileLogger.h"
#include "datapath/common/infra/Log.h"

#include <cstdint>
#include <string>

class FileLoggerClient final : public LoggerClient
{
public:
    /// basePath: the path of the files without ".txt", see LogFiles. maxMemoryMiB: the budget of the lines that wait
    /// to be written. startInfo: a text for the start line.
    FileLoggerClient(const std::string& basePath, std::uint32_t maxMemoryMiB, const std::string& startInfo);

    /// Unregisters itself first, if it is registered. Afterwards everything that it took is in the file.
    ~FileLoggerClient() override;

    void log(const std::string& line) override;

    /// Waits until the system has every line taken so far, as far as the budget and the disk had room. Gives up
    /// after t_OlmFlushFileMaxPeriodMs (0: never) with a line on standard error, and one later flush then ends at once.
    void flush() override;

    /// The path of the live file; empty while lines are dropped, or if there is no such file any more.
    [[nodiscard]] std::string liveFileName() const;

private:
    GenFileLogger m_logger;
    bool m_isEnabled = false;
};
