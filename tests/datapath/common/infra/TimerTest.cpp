// The clock over a replaced performance counter.

#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/windows/WindowsTimer.h"
#include "platform/Process.h"
#include "platform/Time.h"
#include "tests/support/Support.h"

#include <chrono>
#include <iostream>

#include <gtest/gtest.h>

namespace
{

std::int64_t counterTicks = 0;
std::uint64_t tickCount = 0;

/// A counter of 1000 ticks a millisecond that shows what the test says.
void replaceClock(std::int64_t ticks)
{
    counterTicks = ticks;
    platform::timeCalls.performanceFrequency = [](std::int64_t& frequency) {
        frequency = 1'000'999; // cut to 1000 a millisecond
        return true;
    };
    platform::timeCalls.performanceCounter = [](std::int64_t& value) {
        value = counterTicks;
        return true;
    };
    platform::timeCalls.tickCountMs = [] {
        return tickCount;
    };
}

std::int64_t ticks()
{
    std::int64_t value = 0;
    WindowsTimer::instance().getPerformanceCounter(value);
    return value;
}

struct LettingGo : LogAssertHook
{
    bool onAssert(const std::string&) override { return true; }
} lettingGo;

TEST(WindowsTimer, HoldsStillWhenTheCounterStepsBack)
{
    static CapturingClient client;
    Logger::instance().setAssertHook(&lettingGo);
    replaceClock(-5'000);
    EXPECT_EQ(-5'000, ticks()); // the first reading is taken whatever it is
    const std::string method = "NON,WindowsTimer,";
    EXPECT_EQ("Info," + method + "WindowsTimer, m_ticksPerMs=1000 ", client.messages().at(0));
    counterTicks = 5'000;
    EXPECT_EQ(5'000, ticks());
    EXPECT_EQ(5'000, ticks());
    EXPECT_EQ(1U, client.messages().size());
    for (const std::int64_t step : {1, 100, 101})
    {
        const std::size_t linesBefore = client.messages().size();
        counterTicks = 5'000 - step;
        EXPECT_EQ(5'000, ticks());
        const std::vector<std::string> lines = client.messages();
        ASSERT_EQ(linesBefore + (step > 100 ? 2 : 1), lines.size());
        EXPECT_EQ("Error," + method + "getPerformanceCounter,New timestamp is before last timestamp:  res.QuadPart=" +
                      std::to_string(5'000 - step) + "   m_lastTimestamp=5000   diff=-" + std::to_string(step) + " ",
                  lines.at(linesBefore));
    }
    const std::string assertLine = client.messages().back();
    EXPECT_TRUE(assertLine.starts_with("Assert," + method +
                                       "getPerformanceCounter, datapath/common/infra/windows/WindowsTimer.cpp "));
    EXPECT_TRUE(assertLine.ends_with(": diff >= -MINIMUM_ACCEPTABLE_TICKS_DIFF failed. New timestamp is more than 100 "
                                     "ticks before last timestamp"));
    counterTicks = 5'001;
    EXPECT_EQ(5'001, ticks());
}

/// Makes the clock with a counter that always fails; ticks of 0 a second: so does its frequency.
void exitWithLastLine(std::int64_t frequency, bool reads)
{
    static CapturingClient client;
    static std::int64_t ticksPerSecond;
    ticksPerSecond = frequency;
    platform::processCalls.endProcess = [] {
        std::cout << client.messages().back() << std::flush;
        std::_Exit(42);
    };
    platform::timeCalls.performanceFrequency = [](std::int64_t& value) {
        value = ticksPerSecond;
        return ticksPerSecond > 0;
    };
    platform::timeCalls.performanceCounter = [](std::int64_t&) {
        return false;
    };
    WindowsTimer& timer = WindowsTimer::instance();
    if (reads)
    {
        std::int64_t value = 0;
        timer.getPerformanceCounter(value);
    }
}

CHILD_SCENARIO(counterFails)
{
    exitWithLastLine(1'000'000, true);
}
CHILD_SCENARIO(frequencyFails)
{
    exitWithLastLine(0, false);
}
CHILD_SCENARIO(frequencyTooLarge)
{
    exitWithLastLine(4'294'967'296'000, false);
}
CHILD_SCENARIO(frequencyLargest)
{
    exitWithLastLine(4'294'967'295'999, false);
}

TEST(WindowsTimer, FaultsOfTheCounterEndTheProcess)
{
    const auto expectEnd = [](const std::string& scenario, const std::string& method, const std::string& condition) {
        const ChildResult child = runChild(scenario);
        EXPECT_EQ(42, child.status);
        EXPECT_TRUE(child.output.starts_with("Error,NON,WindowsTimer," + method + ",Assertion (" + condition +
                                             ") failed datapath/common/infra/windows/WindowsTimer.cpp "))
            << child.output;
    };
    expectEnd("counterFails", "getPerformanceCounter", "bSuccess");
    expectEnd("frequencyFails", "WindowsTimer", "bSuccess");
    expectEnd("frequencyTooLarge", "WindowsTimer", "freq.HighPart == 0");
    EXPECT_EQ(0, runChild("frequencyLargest").status);
}

TEST(Timer, TimeBasesStandOnTheCounter)
{
    ITimer& timer = Timer::instance();
    replaceClock(12'345'999);
    tickCount = 1'000;
    EXPECT_EQ(0, timer.getLastTimestampMs_Inaccurate(true));
    EXPECT_EQ(0, timer.getLastTimestampMs_Inaccurate(false)); // not more than a second since tick 0
    tickCount = 1'001;
    EXPECT_EQ(12'345, timer.getLastTimestampMs_Inaccurate(false));
    counterTicks = 20'000'000;
    tickCount = 2'001;
    EXPECT_EQ(12'345, timer.getLastTimestampMs_Inaccurate(false));
    EXPECT_EQ(20'000, timer.getTimestampMs());
    EXPECT_EQ(20'000, timer.getLastTimestampMs_Inaccurate(true));
    EXPECT_EQ(2'000U, timer.getTimestamp10Ms());

    EXPECT_EQ(20'000, timer.getRelativeTimeMs());
    timer.setRelativeTimeMs(500);
    counterTicks += 7'000;
    EXPECT_EQ(507, timer.getRelativeTimeMs());
}

TEST(Timer, CalendarAndCpuTimesComeFromTheSystem)
{
    ITimer& timer = Timer::instance();
    platform::timeCalls.utcNow = [] {
        return platform::UtcTime{2024, 2, 29, 23, 59, 58, 987};
    };
    EXPECT_EQ(1'709'251'198'987, timer.getUtcTimeMs());
    const auto steadyNs = [] {
        return std::chrono::steady_clock::now().time_since_epoch().count();
    };
    const auto before = steadyNs();
    EXPECT_LE(before / 1'000, timer.getTimestampUs());
    EXPECT_GE(steadyNs(), static_cast<std::int64_t>(timer.getTimestampNs()) - 1'000'000'000);

    platform::timeCalls.processCpuTime = [] {
        return std::optional(platform::CpuTime{.kernel = 400, .user = 80});
    };
    platform::timeCalls.processorCount = [] {
        return 4U;
    };
    EXPECT_EQ(48U, timer.getProcessCpuTimeUs());
    timer.start();
    EXPECT_EQ(12U, timer.getProcessCpuTimeUs());
    platform::timeCalls.processCpuTime = []() -> std::optional<platform::CpuTime> {
        return std::nullopt;
    };
    EXPECT_EQ(0U, timer.getProcessCpuTimeUs());
}

TEST(Timer, UtcTextsAreScanned)
{
    ITimer& timer = Timer::instance();
    CalendarRecord record = {};
    for (const char* const text : {"2023-07-04T05:06:07Z", "2023-07-04T05:06:07"})
    {
        record = {.seconds = -1,
                  .minutes = -1,
                  .hours = -1,
                  .dayOfMonth = -1,
                  .month = -1,
                  .yearsSince1900 = -1,
                  .dayOfWeek = -1,
                  .dayOfYear = -1,
                  .daylightSaving = -1};
        ASSERT_TRUE(timer.parseUtcTime(text, record));
        EXPECT_EQ((std::array{7, 6, 5, 4, 6, 123, 0, 0, 0}),
                  (std::array{record.seconds, record.minutes, record.hours, record.dayOfMonth, record.month,
                              record.yearsSince1900, record.dayOfWeek, record.dayOfYear, record.daylightSaving}));
    }
    testing::internal::CaptureStdout();
    EXPECT_FALSE(timer.parseUtcTime("2024-01-02 05:06:07", record));
    EXPECT_EQ("failed to scan\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(123, record.yearsSince1900);
}

TEST(Timer, ManyThreadsNeverSeeItGoBack)
{
    runInThreads(8, [](int) {
        std::int64_t last = ticks();
        for (int i = 0; i < 20'000; ++i)
        {
            const std::int64_t next = ticks();
            ASSERT_LE(last, next);
            last = next;
        }
    });
}

} // namespace
