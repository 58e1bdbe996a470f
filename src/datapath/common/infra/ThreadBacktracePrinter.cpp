#include "datapath/common/infra/ThreadBacktracePrinter.h"

#include "datapath/common/infra/LogItem.h"

void ThreadBacktracePrinter::print(std::uint32_t threadId, std::uint64_t threadData)
{
    const std::string name = Logger::instance().getThreadName(static_cast<std::int32_t>(threadId));
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << " threadName=" << name << " pid=" << threadId << std::endl;
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "currently not Implemented in windows"
                                                         << " threadId=" << threadId << " "
                                                         << " threadData=" << threadData << " "
                                                         << " threadName=" << name << " " << std::endl;
}
