// In one fresh process each, every process-wide service is the first thing that is used.

#include "datapath/common/infra/DynamicTweaks.h"
#include "datapath/common/infra/FileLoggerClient.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemoryReport.h"
#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/Tweaks.h"
#include "tests/support/Support.h"

#include <gtest/gtest.h>

namespace
{

CHILD_SCENARIO(loggerFirst) { Logger::instance().flushClients(); }
CHILD_SCENARIO(lineFirst) { LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD) << std::endl; }
CHILD_SCENARIO(clockFirst) { Timer::instance().getTimestampMs(); }
CHILD_SCENARIO(timerFirst) { Timer::instance().addTimer(nullptr, nullptr, 1'000, true); }
CHILD_SCENARIO(reportFirst) { MemWatchedContainerDatabase::instance().printWatchedContainers(); }
CHILD_SCENARIO(containerFirst) { const StlMemShiledContainer<std::set<int>> first("first"); }
CHILD_SCENARIO(tweaksFirst) { Tweaks::instance().print(); }
CHILD_SCENARIO(dynamicTweaksFirst) { DynamicTweaks::instance().refresh(); }
CHILD_SCENARIO(logFileFirst) { FileLoggerClient("app.log", 3, "").log("line\n"); }
CHILD_SCENARIO(memShieldFirst) { MemoryReport::printAllocations(); }
CHILD_SCENARIO(misuseFirst) { MemWatchedContainerDatabase::instance().unregisterContainer(nullptr); }

TEST(StartOrder, AnyServiceMayBeTheFirst)
{
    const ScratchFolder folder;
    for (const char* const scenario :
         {"loggerFirst", "lineFirst", "clockFirst", "timerFirst", "reportFirst", "containerFirst", "tweaksFirst",
          "logFileFirst", "memShieldFirst", "dynamicTweaksFirst"})
    {
        EXPECT_EQ(0, runChild(scenario).status) << scenario;
    }
    EXPECT_NE(0, runChild("misuseFirst").status);
}

} // namespace
