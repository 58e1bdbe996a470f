// The contract of clocks, counters and the shell's folders.

#include "platform/Counters.h"
#include "platform/Shell.h"
#include "platform/Text.h"
#include "platform/Threads.h"
#include "platform/Time.h"

#include <array>
#include <chrono>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

TEST(Time, UtcIsTheSystemClocksMoment)
{
    using namespace std::chrono;
    const auto before = floor<milliseconds>(system_clock::now());
    const sys_time<milliseconds> moment{milliseconds(utcNow())};
    EXPECT_GE(moment, before - milliseconds(20)); // a system may advance its calendar clock in steps
    EXPECT_LE(moment, system_clock::now());
}

TEST(Time, CountersAdvanceAtTheirFrequency)
{
    std::int64_t frequency = 0;
    std::int64_t start = 0;
    std::int64_t end = 0;
    ASSERT_TRUE(performanceFrequency(frequency));
    ASSERT_TRUE(performanceCounter(start));
    const std::uint64_t startMs = tickCountMs();
    sleepMs(50);
    ASSERT_TRUE(performanceCounter(end));
    const std::int64_t elapsedMs = (end - start) * 1000 / frequency;
    EXPECT_GE(elapsedMs, 49);
    EXPECT_LT(elapsedMs, 60'000);
    EXPECT_GE(tickCountMs() - startMs, 30U);
    EXPECT_GE(processorCount(), 1U);

    const std::uint64_t userTime = processCpuTime().value().user;
    while (processCpuTime().value().user == userTime)
    {
    }
    EXPECT_LT(processCpuTime().value().user - userTime, 600'000'000U); // 100-ns units: under a minute
}

TEST(Counters, OwnMemoryAndTheMachinesIdleTimeAreRead)
{
    const ProcessHandle self = openOwnProcess();
    ASSERT_NE(ProcessHandle::Invalid, self);
    ProcessMemory memory = {};
    ASSERT_TRUE(processMemory(self, memory));
    EXPECT_GT(memory.workingSet, 100'000U);
    EXPECT_GE(memory.peakWorkingSet, memory.workingSet);
    EXPECT_GT(memory.pageFile, 100'000U);
    EXPECT_LT(memory.pageFile, 300'000'000U); // not the address space
    EXPECT_GE(memory.peakPageFile, memory.pageFile);
    closeProcess(self);

    const CpuCounter counter = openCpuCounter();
    CpuTicks ticks = {.idle = -1, .total = -1};
    const bool isKept = readCpuCounter(counter, ticks) == 0;
    EXPECT_EQ(isKept, ticks.total > 0);
    EXPECT_LE(ticks.idle, ticks.total);
    closeCpuCounter(counter);
}

TEST(Shell, PathsAreJoinedWithOneSeparatorAndNeverOverrunTheBuffer)
{
    std::array<char, PATH_BUFFER_SIZE> path{};
    const auto joined = [&path](const std::string& start, const std::string& more) {
        std::strcpy(path.data(), start.c_str());
        return appendToPath(path.data(), more.c_str()) ? std::string(path.data()) : "";
    };
    const std::string separator(1, PATH_SEPARATOR);
    const std::string data = separator + "data";
    const std::string expected = data + separator + "Tavro";
    EXPECT_EQ(expected, joined(data, "Tavro"));
    EXPECT_EQ(expected, joined(data + separator, "Tavro"));
    EXPECT_EQ(expected, joined(data, separator + "Tavro"));
    EXPECT_EQ("", joined(data, std::string(PATH_BUFFER_SIZE, 'x')));

    ASSERT_EQ(0, commonAppDataFolder(path.data()));
    EXPECT_NE(std::string::npos, std::string(path.data()).find(PATH_SEPARATOR));
}

} // namespace
