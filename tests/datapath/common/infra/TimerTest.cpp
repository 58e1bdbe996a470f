// The clock over a replaced performance counter.

#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/windows/WindowsTimer.h"
#include "platform/Threads.h"
#include "platform/Time.h"
#include "tests/support/Support.h"

#include <array>
#include <cstring>

#include <gtest/gtest.h>

namespace
{

std::atomic<std::int64_t> counterTicks = 0;
std::uint64_t tickCount = 0;

/// A counter of 1000 ticks a millisecond, which the test sets.
struct ReplacedClock
{
    explicit ReplacedClock(std::int64_t ticks) { counterTicks = ticks; }

    const ScopedReplacement frequency{platform::timeCalls.performanceFrequency, [](std::int64_t& value) {
                                          return (value = 1'000'999) > 0; // cut to 1000 a millisecond
                                      }};
    const ScopedReplacement counter{platform::timeCalls.performanceCounter,
                                    [](std::int64_t& value) { return value = counterTicks, true; }};
    const ScopedReplacement systemTicks{platform::timeCalls.tickCountMs, [] { return tickCount; }};
};

TEST(Clock, HoldsStillWhenTheCounterStepsBack)
{
    CapturingClient client;
    const IgnoredAsserts ignoredAsserts;
    const ReplacedClock replaced(-5'000);
    Clock clock;
    const auto expectReadings = [&](const std::vector<std::pair<std::int64_t, std::int64_t>>& readings) {
        for (const auto& [ticks, expected] : readings)
        {
            counterTicks = ticks;
            EXPECT_EQ(expected, clock.ticks());
        }
    };
    expectReadings({{-5'000, -5'000}, {5'000, 5'000}, {5'000, 5'000}}); // the first one is taken whatever it is
    expectReadings({{4'999, 5'000}, {4'900, 5'000}, {4'899, 5'000}, {5'001, 5'001}});
    const std::string method = "NON,WindowsTimer,getPerformanceCounter,";
    const auto stepBack = [&](const std::string& ticks, const std::string& step) {
        return "Error," + method + "New timestamp is before last timestamp:  res.QuadPart=" + ticks +
               "   m_lastTimestamp=5000   diff=-" + step + " ";
    };
    expectMatches({"Info,NON,WindowsTimer,WindowsTimer, m_ticksPerMs=1000 ", stepBack("4999", "1"),
                   stepBack("4900", "100"), stepBack("4899", "101"),
                   "Assert," + method +
                       " datapath/common/infra/windows/WindowsTimer.cpp #: diff >= -MINIMUM_ACCEPTABLE_TICKS_DIFF "
                       "failed. New timestamp is more than 100 ticks before last timestamp"},
                  client.newMessages());
    const HookedClient readsOn("New timestamp is before", [&](const std::string&) {
        counterTicks = 1'000'000;
        static_cast<void>(clock.ticks());
    });
    expectReadings({{4'996, 1'000'000}}); // a step of five ticks, as its reader saw it, does not end the process
    EXPECT_EQ(1U, client.newMessages().size());
}

TEST(Clock, FaultsOfTheCounterEndTheProcess)
{
    const CapturingClient client;
    const ScopedProcessEnd ending;
    static std::int64_t frequency; // 0: cannot be read
    const ScopedReplacement frequencyCall(platform::timeCalls.performanceFrequency,
                                          [](std::int64_t& value) { return (value = frequency) > 0; });
    const ScopedReplacement counterCall(platform::timeCalls.performanceCounter, [](std::int64_t&) { return false; });
    EXPECT_THROW(Clock(), ProcessEnded);
    frequency = 4'294'967'296'000;
    EXPECT_THROW(Clock(), ProcessEnded);
    frequency = 4'294'967'295'999;
    EXPECT_THROW(static_cast<void>(Clock().ticks()), ProcessEnded);
    const std::string path = ") failed datapath/common/infra/windows/WindowsTimer.cpp #";
    expectMatches({"WindowsTimer,Assertion (bSuccess" + path, "WindowsTimer,Assertion (freq.HighPart == 0" + path,
                   "getPerformanceCounter,Assertion (bSuccess" + path},
                  client.messagesAfter("Error,NON,WindowsTimer,"));
}

TEST(Timer, TimeBasesStandOnTheCounter)
{
    ITimer& timer = Timer::instance();
    const ReplacedClock clock(12'345'999);
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

TEST(Timer, CalendarAndCpuTimesComeFromTheSystemAndItsThreadIsNeeded)
{
    ITimer& timer = Timer::instance();
    const ScopedReplacement utc(platform::timeCalls.utcNow, [] { return std::int64_t{1'709'251'198'987}; });
    EXPECT_EQ(1'709'251'198'987, timer.getUtcTimeMs());
    static std::int64_t frequencyHz = 10'000'000;
    const ScopedReplacement counter(platform::timeCalls.performanceCounter,
                                    [](std::int64_t& value) { return (value = 90'000'000'000'012'347) > 0; });
    const ScopedReplacement frequency(platform::timeCalls.performanceFrequency,
                                      [](std::int64_t& value) { return (value = frequencyHz) > 0; });
    EXPECT_EQ(9'000'000'000'001'234'700U, timer.getTimestampNs());
    frequencyHz = 24'000'000; // all ticks times 10^9 would not fit 64 bits
    EXPECT_EQ(3'750'000'000'000'514'458U, timer.getTimestampNs());
    EXPECT_EQ(3'750'000'000'000'514, timer.getTimestampUs());
    const ScopedReplacement cycles(platform::threadCalls.currentThreadCycles, [] { return std::uint64_t{4711}; });
    EXPECT_EQ(4711U, timer.getThreadCycles());

    static std::optional<platform::CpuTime> cpuTime;
    const ScopedReplacement times(platform::timeCalls.processCpuTime, [] { return cpuTime; });
    EXPECT_EQ(0U, timer.getProcessCpuTimeUs());
    cpuTime = {.kernel = 400, .user = 80};
    EXPECT_EQ(48U, timer.getProcessCpuTimeUs());
    const ScopedReplacement processors(platform::timeCalls.processorCount, [] { return 4U; });
    static platform::ThreadPriority priority = platform::ThreadPriority::Normal;
    const ScopedReplacement refusing(platform::threadCalls.startThread,
                                     [](platform::ThreadProcedure, void*, platform::ThreadPriority wanted) {
                                         return priority = wanted, platform::ErrorNumber::NotEnoughMemory;
                                     });
    const CapturingClient client;
    const ScopedProcessEnd ending;
    EXPECT_THROW(timer.start(), ProcessEnded); // after it has counted the processors
    EXPECT_EQ(platform::ThreadPriority::TimeCritical, priority);
    EXPECT_PRED2(matches, client.last(), "Error,NON,Timer,start,Assertion (h != NULL) failed ~Timer.cpp #");
    EXPECT_EQ(12U, timer.getProcessCpuTimeUs());
}

TEST(Timer, UtcTextsAreScanned)
{
    ITimer& timer = Timer::instance();
    CalendarRecord record = {};
    for (const char* const text : {"2023-07-04T05:06:07Z", "2023-07-04T05:06:07"})
    {
        record.dayOfWeek = record.dayOfYear = record.daylightSaving = -1;
        EXPECT_TRUE(timer.parseUtcTime(text, record));
        const std::array<std::int32_t, 9> expected = {7, 6, 5, 4, 6, 123, 0, 0, 0};
        EXPECT_EQ(0, std::memcmp(&record, expected.data(), sizeof(record)));
    }
    EXPECT_EQ("failed to scan\n", stdoutOf([&] { EXPECT_FALSE(timer.parseUtcTime("2024-01-02 05:06:07", record)); }));
    EXPECT_EQ(123, record.yearsSince1900);
}

} // namespace
