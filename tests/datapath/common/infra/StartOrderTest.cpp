// Each process-wide service is the first thing that a fresh process uses.

#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/Timer.h"
#include "tests/support/Support.h"

#include <gtest/gtest.h>

namespace
{

CHILD_SCENARIO(loggerFirst) { Logger::instance().flushClients(); }
CHILD_SCENARIO(lineFirst) { LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD) << std::endl; }
CHILD_SCENARIO(clockFirst) { Timer::instance().getTimestampMs(); }
CHILD_SCENARIO(reportFirst) { MemWatchedContainerDatabase::instance().printWatchedContainers(); }
CHILD_SCENARIO(containerFirst) { const StlMemShiledContainer<std::set<int>> first("first"); }
CHILD_SCENARIO(misuseFirst) { MemWatchedContainerDatabase::instance().unregisterContainer(nullptr); }

TEST(StartOrder, AnyServiceMayBeTheFirst)
{
    for (const char* const scenario : {"loggerFirst", "lineFirst", "clockFirst", "reportFirst", "containerFirst"})
    {
        EXPECT_EQ(0, runChild(scenario).status) << scenario;
    }
    EXPECT_NE(0, runChild("misuseFirst").status);
}

} // namespace
