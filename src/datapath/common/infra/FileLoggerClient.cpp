#include "datapath/common/infra/FileLoggerClient.h"

#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/UtcTimestamp.h"

#include <iostream>

FileLoggerClient::FileLoggerClient(const std::string& basePath, std::uint32_t maxMemoryMiB,
                                   const std::string& startInfo)
    : GenFileLogger(basePath, maxMemoryMiB, Writer::NotStarted)
{
    const Tweaks& tweaks = Tweaks::instance();
    m_compressOnRotate = tweaks.value(FILE_LOGGER_COMPRESS_ON_ROTATE);
    m_flushEveryLine = tweaks.value(FILE_LOGGER_FLUSH_EVERY_LINE);
    m_asyncFlushEveryLine = tweaks.value(ASYNC_FILE_LOGGER_FLUSH_EVERY_LINE);
    startWriter();
    if (m_enabled)
    {
        m_enabled = tweaks.value(FILE_LOGGER_ENABLED);
    }
    log("\n\n");
    log(std::string(UtcTimestamp(3).view()) + ", -----------------Log Start---------------------- " + startInfo +
        " ----------------------\n");
    log("time,level,thread,logger,method,message,exception\n");
}

FileLoggerClient::~FileLoggerClient()
{
    Logger::instance().unregisterClient(this); // the writer logs its end
    stopWriter();
}

void FileLoggerClient::log(const std::string& line) { write(line.data(), static_cast<std::uint32_t>(line.size())); }

void FileLoggerClient::flush()
{
    if (m_flushEveryLine || !m_enabled)
    {
        return;
    }
    if (isWriter())
    {
        writeQueue(); // nobody else would
        return;
    }
    if (!flushAndWait())
    {
        std::cerr << "Flush is not completed t_OlmFlushFileMaxPeriodMs=" << m_flushMaxPeriodMs << " " << std::endl;
    }
}
