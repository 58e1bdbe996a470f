// The first steps of a program: a log file, and a tweak of its own.

#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/ProgramSetup.h"
#include "datapath/common/infra/Tweaks.h"

#include <iostream>

namespace
{

constexpr IntTweak NUM_COPIES{"t_numCopies", 2, "copies", "how many copies are made of each file"};

} // namespace

int main()
{
    const FileLoggerClient& log = ProgramSetup::start("first_steps.log"); // the file is first_steps.log.txt
    if (log.liveFileName().empty())
    {
        std::cerr << "This run has no log file" << std::endl; // and goes on without one
    }

    const std::int32_t copies = Tweaks::instance().value(NUM_COPIES);

    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "copies of each file=" << copies << std::endl;
    LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD) << "cannot copy notes.txt, lastError=" << 5 << std::endl;

    Logger::instance().flushClients(); // the last step: lines that are still in memory are lost with the process
}
