#include "datapath/common/infra/MemWatchedContainer.h"

#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/Timer.h"
#include "tests/support/Support.h"

#include <queue>
#include <vector>

#include <gtest/gtest.h>

namespace
{

/// The report without what the Logger itself keeps.
std::vector<std::string> report(const CapturingClient& client)
{
    const std::size_t before = client.messages().size();
    MemWatchedContainerDatabase::instance().printWatchedContainers();
    std::vector<std::string> lines = client.messages();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    for (std::string& line : lines)
    {
        const std::string head = "Info,NON,MemWatchedContainerDatabase,printWatchedContainers,";
        EXPECT_TRUE(line.starts_with(head));
        line = line.substr(head.size());
    }
    EXPECT_EQ("ContainerName = LoggerAsyncThreadNames items = 0", lines.at(0));
    EXPECT_EQ("ContainerName = LoggerThreadNames items = 0", lines.at(1));
    lines.erase(lines.begin(), lines.begin() + 2);
    return lines;
}

TEST(MemWatchedContainers, AReportSumsByNameAndEstimatesMemory)
{
    static CapturingClient client;
    EXPECT_EQ(std::vector<std::string>{" estimatedTotal=0 in 2 containers"}, report(client));
    {
        StlMemShiledContainer<std::map<int, int>> timers("Timers");
        StlMemShiledContainer<std::set<int>> moreTimers("Timers");
        StlMemShiledContainer<std::queue<int*>> first("Queue", 8);
        StlMemShiledContainer<std::vector<int>> second("Queue", 0xFFFFFFFF, 3); // added up in 32 bits
        timers[1] = timers[2] = timers[3] = 0;
        moreTimers.insert({1, 2, 3, 4});
        for (int i = 0; i < 5; ++i)
        {
            first.push(nullptr);
        }
        second.resize(7);
        EXPECT_EQ((std::vector<std::string>{"ContainerName = Queue items = 12 memory = 54 (max = 40)",
                                            "ContainerName = Timers items = 7", " estimatedTotal=54 in 6 containers"}),
                  report(client));
    }
    EXPECT_EQ(std::vector<std::string>{" estimatedTotal=0 in 2 containers"}, report(client));
    EXPECT_EQ('2', client.lines().back()[0]);
    EXPECT_EQ(',', client.lines().back()[19]); // no fraction of a second
}

TEST(MemWatchedContainers, MisuseEndsTheProcess)
{
    static CapturingClient client;
    const ScopedProcessEnd ending;
    auto& database = MemWatchedContainerDatabase::instance();
    StlMemShiledContainer<std::set<int>> container("Container");
    EXPECT_THROW(database.registerContainer(&container), ProcessEnded);
    database.unregisterContainer(&container);
    EXPECT_THROW(database.unregisterContainer(&container), ProcessEnded);
    database.registerContainer(&container);
    const std::string head = "Error,NON,MemWatchedContainerDatabase,";
    const std::string path = ") failed datapath/common/infra/MemWatchedContainer.cpp ";
    EXPECT_EQ(
        (std::vector<std::string>{head + "registerContainer,Assertion (rt" + path + "31",
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
    static CapturingClient client;
    EXPECT_EQ(std::vector<std::string>{" estimatedTotal=0 in 2 containers"}, report(client));
}

} // namespace
