#include "datapath/common/infra/FileLoggerClient.h"

#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/base/UtcTimestamp.h"

#include <iostream>

namespace
{

GenFileLogger::Settings clientSettings(const std::string& basePath, std::uint32_t maxMemoryMiB)
{
    GenFileLogger::Settings settings = GenFileLogger::tweakedSettings(basePath, maxMemoryMiB);
    settings.threadType = "class FileLoggerClient";
    return settings;
}

GenFileLogger::Modes tweakedModes()
{
    const Tweaks& tweaks = Tweaks::instance();
    GenFileLogger::Modes modes;
    modes.compressOnRotate = tweaks.value(FILE_LOGGER_COMPRESS_ON_ROTATE);
    modes.flushEveryLine = tweaks.value(FILE_LOGGER_FLUSH_EVERY_LINE);
    modes.asyncFlushEveryLine = tweaks.value(ASYNC_FILE_LOGGER_FLUSH_EVERY_LINE);
    return modes;
}

} // namespace

FileLoggerClient::FileLoggerClient(const std::string& basePath, std::uint32_t maxMemoryMiB,
                                   const std::string& startInfo)
    : m_logger(clientSettings(basePath, maxMemoryMiB))
{
    // The modes are read after the file was opened: if a value ends the process, the log file is there already.
    m_logger.setModes(tweakedModes());
    m_isEnabled = m_logger.isOpen() && Tweaks::instance().value(FILE_LOGGER_ENABLED);
    log("\n\n");
    log(UtcTimestamp::now(3) + ", -----------------Log Start---------------------- " + startInfo +
        " ----------------------\n");
    log("time,level,thread,logger,method,message,exception\n");
}

FileLoggerClient::~FileLoggerClient() { Logger::instance().unregisterClient(this); }

void FileLoggerClient::log(const std::string& line)
{
    if (m_isEnabled)
    {
        m_logger.write(line.data(), static_cast<std::uint32_t>(line.size()));
    }
}

void FileLoggerClient::flush()
{
    if (m_isEnabled && !m_logger.flush())
    {
        std::cerr << "Flush is not completed t_OlmFlushFileMaxPeriodMs=" << m_logger.settings().flushMaxPeriodMs << " "
                  << std::endl;
    }
}

std::string FileLoggerClient::liveFileName() const { return m_isEnabled ? m_logger.liveFileName() : ""; }
