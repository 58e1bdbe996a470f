#include "datapath/common/infra/RateMonitor.h"

#include "tests/support/Support.h"

#include <sstream>

#include <gtest/gtest.h>

namespace
{

std::int64_t nowMs = 0;
const auto readClock = [] { return nowMs * 1'000; };

/// Expects the lines of a monitor that is made at 1000 ms. A step is the time in ms, and then one of these:
///     1 ITEMS BYTES     a task starts
///     -1 LATENCY 0      a task ends; the latency is in ms
///     0 0 0             the line is asked for
void expectLines(const RateMonitor::Settings& settings, const std::string& name, const std::string& steps,
                 Texts patterns)
{
    const IgnoredAsserts ignoredAsserts;
    const CapturingClient client;
    nowMs = 1'000;
    {
        RateMonitor monitor(name, settings);
        const MutexGuard guard(monitor.m_mutex);
        std::istringstream stream(steps);
        std::int32_t c = 0;
        std::uint32_t amount = 0;
        std::uint64_t bytes = 0;
        while (stream >> nowMs >> c >> amount >> bytes)
        {
            monitor.addItemsLocked(c == 1 ? amount : 0, bytes);
            c == -1  ? monitor.taskCompleted(static_cast<std::uint64_t>(readClock()), std::uint64_t{amount} * 1'000)
            : c == 0 ? monitor.update()
                     : monitor.incActiveTasksLocked(c);
        }
    }
    for (std::string& pattern : patterns)
    {
        pattern.insert(0, pattern.starts_with("Disk") ? "Info,NON,RateMonitor,update," : "Assert,NON,RateMonitor,");
    }
    expectMatches(patterns, client.messages());
}

TEST(RateMonitor, LinesTellBusyAndIdleTimeConcurrencyAndLatencies)
{
    expectLines({0, 1'000'000, 3, 1'000, false, readClock}, "Disk",
                "1500 1 7 35000000  2000 -1 500 0  3000 1 0 0  4000 1 0 0  5500 -1 2500 0  6000 -1 2000 0",
                {"Disk time=4500 (3500) rate=2 (network=10000000)<bw=1 (nwBw=7000000)> latency=[Avg: 1666 Max: 2500] "
                 "concurrency=[Min:0 Avg:1.1(1.4) Max:2]"});
    const std::string rest = " failed.  m_name=Disk  m_currentActiveTasks=1 "; // a task is active when a period ends
    expectLines(
        {3, 1'000'000, 1, 1'000, false, readClock}, "Disk",
        "1000 1 4 0  2000 1 0 0  3000 -1 1500 0  4000 1 4 0  5000 -1 900 0",
        {"Disk time=2000 (2000) rate=2<bw=2> latency=[Avg: 1500 Max: 1500] concurrency=[Min:0 Avg:1.5(1.5) Max:2]",
         "Disk time=2000 (2000) rate=2<bw=2> latency=[Avg: 900 Max: 900] concurrency=[Min:1 Avg:1.5(1.5) Max:2]",
         "~RateMonitor, datapath/common/infra/RateMonitor.cpp #: m_currentActiveTasks == 0" + rest});
}

TEST(RateMonitor, APeriodStandsForItselfUnlessCumulative)
{
    const char* const steps = "1000 1 10 0  3000 -1 2000 0  3500 0 0 0  4000 1 3 0  7000 -1 1000 0";
    expectLines({10, 1'999'999, 1, 1'000, false, readClock}, "Disk", steps,
                {"Disk time=2000 (2000) rate=5<bw=5> latency=[Avg: 2000 Max: 2000]", "Disk time=2000 (0) rate=5<bw=5>",
                 "Disk time=4000 (3000) rate=1<bw=0> latency=[Avg: 1000 Max: 1000]"});
    const std::string first = "Disk time=2 (2) rate=5<bw=5> latency=[Avg: 2 Max: 2]";
    expectLines({9, 9'000'000, 1, 1'000'000, true, readClock}, "Disk", steps,
                {first, first, "Disk time=6 (5) rate=2<bw=2> latency=[Avg: 1 Max: 2]"});
    expectLines({9, 0, 1, 1, true, readClock}, "", steps, {});
    expectLines({10, 2'000'000, 1, 1, true, readClock}, "Disk", "1000 1 10 0  3000 -1 2000 0",
                {}); // neither is above its limit
}

TEST(RateMonitor, RatesSaturateNoTimeIsNoFaultAndMisuseEndsTheProcess)
{
    expectLines({0, 0, 1, 1'000, false, readClock}, "Disk",
                "1000 1 1 0  1000 1 0 0  1000 -1 0 0  1000 -1 0 0  2000 1 1 5000000000  4000 -1 1 0  4000 1 1 "
                "4000000000  4500 -1 1 0",
                {"Disk time=0 (0) rate=4294967295 (network=4294967295)<bw=4294967295 (nwBw=4294967295)> "
                 "latency=[Avg: 0 Max: 0] concurrency=[Min:0 Avg:0.0(0.0) Max:2]",
                 "Disk time=3000 (2000) rate=0 (network=2147483647)<bw=0 (nwBw=1431655765)> latency=[Avg: 0 Max: 1]",
                 "Disk time=500 (500) rate=2 (network=4294967295)<bw=2 (nwBw=4294967295)> latency=[Avg: 1 Max: 1]"});
    const std::string place = ", datapath/common/infra/RateMonitor.cpp #: ";
    expectLines({0, 0, 9, 0, false, readClock}, "Disk", "1000 2 0 0  1000 -1 0 0",
                {"RateMonitor" + place + "settings.timeUnit != 0 failed.  m_name=Disk ",
                 "incActiveTasksLocked" + place + "c == 1 || c == -1 failed.  c=2  m_name=Disk ",
                 "incActiveTasksLocked" + place + "m_currentActiveTasks > 0 failed.  m_name=Disk "});
}

} // namespace
