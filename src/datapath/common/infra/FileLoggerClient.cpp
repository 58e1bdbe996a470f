#include "datapath/common/infra/FileLoggerClient.h"

#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/UtcTimestamp.h"

#include <iostream>

FileLoggerClient::FileLoggerClient(const std::string& basePath, std::uint32_t maxMemoryMiB,
                                   const std::string& startInfo)
    : GenFileLogger(basePath, maxMemoryMiB, Writer::NotStarted)
{
    const Tweaks& tweaks = Tweaks::instance();
    m_compressOnRotate = tweaks.longVal("t_FileLoggerCompressOnRotate", 0) != 0;
    m_flushEveryLine = tweaks.longVal("t_FileLoggerFlushEveryLine", 0) != 0;
    m_asyncFlushEveryLine = tweaks.longVal("t_AsyncFileLoggerFlushEveryLine", 0) != 0;
    startWriter();
    if (m_enabled)
    {
        m_enabled = tweaks.longVal("t_FileLoggerEnabled", 1) != 0;
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
