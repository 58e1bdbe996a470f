#include "datapath/common/infra/MemWatchedContainer.h"

#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/Timer.h"
#include "tests/support/Support.h"

#include <queue>
#include <vector>

#include <gtest/gtest.h>

namespace
{

/// Expects these lines in a report, after those of the Logger's own containers.
void expectReport(Texts lines)
{
    lines.insert(lines.begin(),
                 {"ContainerName = LoggerAsyncThreadNames items = 0", "ContainerName = LoggerThreadNames items = 0"});
    const CapturingClient client;
    MemWatchedContainerDatabase::instance().printWatchedContainers();
    EXPECT_EQ(lines, client.messagesAfter("Info,NON,MemWatchedContainerDatabase,printWatchedContainers,"));
    EXPECT_PRED2(matches, client.lines().back().substr(0, 20), "2~,"); // no fraction of a second
}

TEST(MemWatchedContainers, AReportSumsByNameAndEstimatesMemory)
{
    expectReport({" estimatedTotal=0 in 2 containers"});
    {
        StlMemShiledContainer<std::map<int, int>> timers("Timers");
        StlMemShiledContainer<std::set<int>> moreTimers("Timers");
        StlMemShiledContainer<std::queue<int*>> first("Queue", 8);
        StlMemShiledContainer<std::vector<int>> second("Queue", 0xFFFFFFFF, 3); // added up in 32 bits
        timers.change([](auto& map) { map[1] = map[2] = map[3] = 0; });
        moreTimers.change([](auto& set) { set.insert({1, 2, 3, 4}); });
        EXPECT_THROW(first.change([](auto& queue) { repeat(5, [&] { queue.push(nullptr); }), throw 1; }), int);
        second.change([](auto& vector) { vector.resize(7); });
        expectReport({"ContainerName = Queue items = 12 memory = 54 (max = 40)", "ContainerName = Timers items = 7",
                      " estimatedTotal=54 in 6 containers"});
    }
    expectReport({" estimatedTotal=0 in 2 containers"});
}

TEST(MemWatchedContainers, MisuseEndsTheProcess)
{
    const CapturingClient client;
    const ScopedProcessEnd ending;
    auto& database = MemWatchedContainerDatabase::instance();
    StlMemShiledContainer<std::set<int>> container("Container");
    EXPECT_THROW(database.registerContainer(&container), ProcessEnded);
    database.unregisterContainer(&container);
    EXPECT_THROW(database.unregisterContainer(&container), ProcessEnded);
    database.registerContainer(&container);
    const std::string head = "Error,NON,MemWatchedContainerDatabase,";
    const std::string path = ") failed datapath/common/infra/MemWatchedContainer.cpp ";
    EXPECT_EQ((Texts{head + "registerContainer,Assertion (rt" + path + "31",
                     head + "unregisterContainer,Assertion (iter != m_containers.end()" + path + "39"}),
              client.messages());
}

TEST(MemWatchedContainers, ManyThreadsMayComeAndGoWhileServicesAreMade)
{
    runInThreads(8, [](int index) {
        for (int round = 0; round < 200; ++round)
        {
            const StlMemShiledContainer<std::set<int>> container("Storm");
            Logger::instance().setThreadName("storm");
            LogItem(LoggerId::NON, LogLevel::Info, "storm") << index << Timer::instance().getTimestampMs() << std::endl;
            Logger::instance().removeThreadName();
        }
    });
    expectReport({"ContainerName = Timers items = 0", " estimatedTotal=0 in 3 containers"});
}

} // namespace
