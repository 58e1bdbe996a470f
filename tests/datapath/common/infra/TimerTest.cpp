// The clock over a replaced performance counter.

#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/Semaphore.h"
#include "datapath/common/infra/windows/WindowsTimer.h"
#include "platform/Random.h"
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

/// A counter of 1000 ticks a millisecond that shows what the test says.
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

std::int64_t ticks() { return Clock::instance().ticks(); }

TEST(Clock, HoldsStillWhenTheCounterStepsBack)
{
    static CapturingClient client;
    static LettingGo lettingGo;
    const std::string method = "NON,WindowsTimer,getPerformanceCounter,";
    const ReplacedClock clock(-5'000);
    EXPECT_EQ(-5'000, ticks()); // the first reading is taken whatever it is
    for (const std::int64_t later : {5'000, 5'000})
    {
        counterTicks = later;
        EXPECT_EQ(later, ticks());
    }
    EXPECT_EQ(Texts{"Info,NON,WindowsTimer,WindowsTimer, m_ticksPerMs=1000 "}, client.messages());
    for (const std::int64_t step : {1, 100, 101})
    {
        counterTicks = 5'000 - step;
        EXPECT_EQ(5'000, ticks());
        EXPECT_EQ("Error," + method + "New timestamp is before last timestamp:  res.QuadPart=" +
                      std::to_string(counterTicks) + "   m_lastTimestamp=5000   diff=-" + std::to_string(step) + " ",
                  client.messages().at(step > 100 ? 3 : client.messages().size() - 1));
    }
    ASSERT_EQ(5U, client.messages().size());
    const std::string assertLine = client.last();
    EXPECT_TRUE(assertLine.starts_with("Assert," + method + " datapath/common/infra/windows/WindowsTimer.cpp "));
    EXPECT_TRUE(assertLine.ends_with(": diff >= -MINIMUM_ACCEPTABLE_TICKS_DIFF failed. New timestamp is more than 100 "
                                     "ticks before last timestamp"));
    counterTicks = 5'001;
    EXPECT_EQ(5'001, ticks());
}

TEST(Clock, AStepBackIsMeasuredAgainstWhatItsReaderSaw)
{
    static struct : LoggerClient
    {
        void log(const std::string&) override
        {
            counterTicks = 1'000'000;
            static_cast<void>(clock->ticks());
        }
        Clock* clock = nullptr;
    } readsOn; // moves the clock on while the Error line is written
    const ReplacedClock counter(1'000);
    Clock clock;
    readsOn.clock = &clock;
    static_cast<void>(clock.ticks());
    static CapturingClient client;
    Logger::instance().registerClient(&readsOn, 1U << 2U);
    counterTicks = 995;
    EXPECT_EQ(1'000'000, clock.ticks());
    EXPECT_EQ(1U, client.messages().size()); // five ticks are no reason to end the process
}

TEST(Clock, FaultsOfTheCounterEndTheProcess)
{
    static CapturingClient client;
    const ScopedProcessEnd ending;
    static std::int64_t frequency; // 0: cannot be read
    const ScopedReplacement frequencyCall(platform::timeCalls.performanceFrequency,
                                          [](std::int64_t& value) { return (value = frequency) > 0; });
    const ScopedReplacement counterCall(platform::timeCalls.performanceCounter, [](std::int64_t&) { return false; });
    const auto expectLast = [](const std::string& start) { EXPECT_EQ(0U, client.last().find(start)); };
    const std::string path = ") failed datapath/common/infra/windows/WindowsTimer.cpp ";
    EXPECT_THROW(Clock(), ProcessEnded);
    expectLast("Error,NON,WindowsTimer,WindowsTimer,Assertion (bSuccess" + path);
    frequency = 4'294'967'296'000;
    EXPECT_THROW(Clock(), ProcessEnded);
    expectLast("Error,NON,WindowsTimer,WindowsTimer,Assertion (freq.HighPart == 0" + path);
    frequency = 4'294'967'295'999;
    Clock clock;
    EXPECT_THROW(static_cast<void>(clock.ticks()), ProcessEnded);
    expectLast("Error,NON,WindowsTimer,getPerformanceCounter,Assertion (bSuccess" + path);
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

TEST(Timer, CalendarAndCpuTimesComeFromTheSystem)
{
    ITimer& timer = Timer::instance();
    const ScopedReplacement utc(platform::timeCalls.utcNow,
                                [] { return platform::UtcTime{2024, 2, 29, 23, 59, 58, 987}; });
    EXPECT_EQ(1'709'251'198'987, timer.getUtcTimeMs());
    static std::int64_t frequencyHz = 10'000'000;
    const ScopedReplacement counter(platform::timeCalls.performanceCounter,
                                    [](std::int64_t& value) { return (value = 90'000'000'000'012'347) > 0; });
    const ScopedReplacement frequency(platform::timeCalls.performanceFrequency,
                                      [](std::int64_t& value) { return (value = frequencyHz) > 0; });
    EXPECT_EQ(9'000'000'000'001'234'700U, timer.getTimestampNs());
    frequencyHz = 24'000'000; // a product of all ticks and a thousand million would not fit
    EXPECT_EQ(3'750'000'000'000'514'458U, timer.getTimestampNs());
    EXPECT_EQ(3'750'000'000'000'514, timer.getTimestampUs());
    const ScopedReplacement cycles(platform::threadCalls.currentThreadCycles, [] { return std::uint64_t{4711}; });
    EXPECT_EQ(4711U, timer.getThreadCycles());

    static std::optional cpuTime = platform::CpuTime{.kernel = 400, .user = 80};
    const ScopedReplacement times(platform::timeCalls.processCpuTime, [] { return cpuTime; });
    EXPECT_EQ(48U, timer.getProcessCpuTimeUs());
    cpuTime.reset();
    EXPECT_EQ(0U, timer.getProcessCpuTimeUs());
}

TEST(Timer, ItsThreadIsTimeCriticalAndNeeded)
{
    static platform::ThreadPriority priority = platform::ThreadPriority::Normal;
    const CapturingClient client;
    const ScopedReplacement processors(platform::timeCalls.processorCount, [] { return 4U; });
    const ScopedReplacement cpuTime(platform::timeCalls.processCpuTime,
                                    [] { return std::optional(platform::CpuTime{.kernel = 400, .user = 80}); });
    const ScopedReplacement refusing(platform::threadCalls.startThread,
                                     [](platform::ThreadProcedure, void*, platform::ThreadPriority wanted) {
                                         return priority = wanted, platform::ErrorNumber::NotEnoughMemory;
                                     });
    const ScopedProcessEnd ending;
    EXPECT_THROW(Timer::instance().start(), ProcessEnded);
    EXPECT_EQ(platform::ThreadPriority::TimeCritical, priority);
    EXPECT_EQ(12U, Timer::instance().getProcessCpuTimeUs());
    EXPECT_PRED2(matches, client.last(), "Error,NON,Timer,start,Assertion (h != NULL) failed ~Timer.cpp #");
}

TEST(Timer, UtcTextsAreScanned)
{
    ITimer& timer = Timer::instance();
    CalendarRecord record = {};
    for (const char* const text : {"2023-07-04T05:06:07Z", "2023-07-04T05:06:07"})
    {
        record.dayOfWeek = record.dayOfYear = record.daylightSaving = -1;
        ASSERT_TRUE(timer.parseUtcTime(text, record));
        const std::array<std::int32_t, 9> expected = {7, 6, 5, 4, 6, 123, 0, 0, 0};
        EXPECT_EQ(0, std::memcmp(&record, expected.data(), sizeof(record)));
    }
    testing::internal::CaptureStdout();
    EXPECT_FALSE(timer.parseUtcTime("2024-01-02 05:06:07", record));
    EXPECT_EQ("failed to scan\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(123, record.yearsSince1900);
}

} // namespace
