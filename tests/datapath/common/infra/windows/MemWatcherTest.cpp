#include "datapath/common/infra/windows/MemWatcher.h"

#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/Tweaks.h"
#include "platform/Random.h"
#include "platform/Threads.h"
#include "platform/Time.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <thread>

#include <gtest/gtest.h>

namespace
{

platform::CpuTicks ticks = {};
std::int32_t status = 0;
std::uint32_t draw = 0;
int opened = 0;

struct CpuUsage : LogTest
{
    /// Whether the time of a line, counted from the last one, has a fraction of a second.
    bool hasFraction(int linesBack = 0) const
    {
        return client.lines().rbegin()[linesBack].substr(0, 20).find('.') != std::string::npos;
    }

    const ScopedReplacement opening{platform::counterCalls.openCpuCounter,
                                    [] { return platform::CpuCounter{++opened}; }};
    const ScopedReplacement closing{platform::counterCalls.closeCpuCounter, [](platform::CpuCounter) { --opened; }};
    const ScopedReplacement reading{
        platform::counterCalls.readCpuCounter,
        [](platform::CpuCounter, platform::CpuTicks& read) { return read = ticks, status; }};
    const ScopedReplacement clock{platform::timeCalls.utcNow, [] {
                                      static std::atomic<std::int64_t> ms = 1'704'067'200'000;
                                      return ms.fetch_add(1'000);
                                  }};
    const ScopedReplacement random{platform::randomCalls.nextRandom, [] { return draw; }};
    const ScopedReplacement counter{platform::timeCalls.performanceCounter,
                                    [](std::int64_t& value) { return (value = 1'000) > 0; }};
};

TEST_F(CpuUsage, IsWhatWasNotIdleSinceTheLastUpdate)
{
    const auto expectUpdate = [&](CpuUsageMonitor& monitor, platform::CpuTicks now, std::int64_t total,
                                  const std::string& message, std::uint32_t usage) {
        ticks = now;
        EXPECT_EQ(total, monitor.update());
        EXPECT_EQ(usage, monitor.cpuUsage());
        EXPECT_PRED2(matches, client.messages().rbegin()[status == 0 ? 1 : 0], message);
    };
    const std::string read = "Info,NON,CpuUsageMonitor,update,totalTicks=";
    {
        CpuUsageMonitor monitor;
        EXPECT_EQ("Info,NON,CpuUsageMonitor,CpuUsageMonitor,Using real windows CPU counters ", client.last());
        EXPECT_EQ(1, opened);
        const std::string rest = " m_cpuCount=# ";
        expectUpdate(monitor, {.idle = 5'000, .total = 10'000}, 10'000, read + "10000 idleTicks=5000" + rest, 50);
        expectUpdate(monitor, {.idle = 5'600, .total = 11'000}, 1'000, read + "1000 idleTicks=600" + rest, 40);
        EXPECT_EQ("Info,NON,CpuUsageMonitor,update,CPU is 40", client.last());
        EXPECT_FALSE(hasFraction() || hasFraction(1));
        status = -1'073'738'819;
        expectUpdate(monitor, {}, 0,
                     "Error,NON,CpuUsageMonitor,update,PdhGetRawCounterValue returned error  sts=-1073738819 ", 40);
        status = 0;
        expectUpdate(monitor, {.idle = 5'700, .total = 11'200}, 200, read + "200 idleTicks=100" + rest, 50);
        expectUpdate(monitor, {.idle = 5'700, .total = 11'200}, 0, read + "0 idleTicks=0" + rest, 0);
    }
    EXPECT_EQ(0, opened);
}

TEST_F(CpuUsage, IsDrawnWhenItIsSimulated)
{
    const auto set = [](const std::string& name, const std::string& value) { Tweaks::instance().update(name, value); };
    set("t_simulativeCpuUsage", "1");
    CpuUsageMonitor monitor;
    EXPECT_EQ(0, opened);
    EXPECT_EQ("Info,NON,CpuUsageMonitor,CpuUsageMonitor,Using simulative CPU counters ", client.last());
    EXPECT_EQ(0, monitor.update());
    set("t_randomCpuUsage", "1");
    CpuUsageMonitor().update();
    const Texts lines = client.messages();
    EXPECT_EQ("Info,NON,CpuUsageMonitor,CpuUsageMonitor,Using simulative random CPU counters ", lines.end()[-3]);
    EXPECT_PRED2(matches, lines.end()[-2],
                 "Assert,NON,CpuUsageMonitor,randomCpuGeneratorForTests, "
                 "datapath/common/infra/windows/CpuUsageMonitor.cpp #: highCpuUsageProbabilityPercent + "
                 "lowCpuUsageProbabilityPercent + keepPrevCpuUsageProbabilityPercent + midCpuUsageProbabilityPercent "
                 "== 100 failed.  highCpuUsageProbabilityPercent=0  midCpuUsageProbabilityPercent=0  "
                 "lowCpuUsageProbabilityPercent=0  keepPrevCpuUsageProbabilityPercent=0 ");
    set("t_keepPrevCpuUsageProbabilityPercent", "30");
    set("t_lowCpuUsageProbabilityPercent", "27");
    set("t_midCpuUsageProbabilityPercent", "22");
    set("t_highCpuUsageProbabilityPercent", "21");
    using Draw = std::pair<std::uint32_t, std::uint32_t>;
    const std::vector<Draw> draws = {{99, 100}, {100, 100}, {29, 100}, {30, 0},   {129, 0},   {56, 0},
                                     {57, 89},  {78, 89},   {0, 89},   {79, 100}, {1079, 100}};
    for (const auto& [next, usage] : draws)
    {
        draw = next;
        EXPECT_EQ(0, monitor.update());
        EXPECT_EQ(usage, monitor.cpuUsage()) << next;
    }
    set("t_OlmCompressionHighCpuThreshold", "50");
    draw = 60;
    monitor.update();
    EXPECT_EQ("Info,NON,CpuUsageMonitor,randomCpuGeneratorForTests,CPU is 49", client.last());
}

using Handle = platform::ThreadHandle;
std::map<std::uint32_t, std::optional<std::uint64_t>> userTimes; // a thread that is not here cannot be opened
int openThreads = 0;

TEST_F(CpuUsage, IsReportedForEachWatchedThread)
{
    waitForOwnThreads();
    const ScopedReplacement openingThreads(platform::threadCalls.openThread, [](std::uint32_t id) {
        return userTimes.contains(id) ? ++openThreads, Handle{static_cast<std::intptr_t>(id)} : Handle::Invalid;
    });
    const ScopedReplacement timingThreads(platform::threadCalls.threadUserTime,
                                          [](Handle thread) { return userTimes[static_cast<std::uint32_t>(thread)]; });
    const ScopedReplacement closingThreads(platform::threadCalls.closeThread, [](Handle) { --openThreads; });
    const std::uint32_t self = platform::currentThreadId();
    const std::string own = std::to_string(self) + "[the test]";
    Logger::instance().setThreadName("the test");
    MemWatcher& watcher = MemWatcher::instance();
    const std::uint64_t before = MemShield::systemHeapBytes();
    const auto added = {self, 2'000'000'001U, 2'000'000'003U, 2'000'000'002U, self, 2'000'000'004U};
    std::ranges::for_each(added, [&](std::uint32_t id) { watcher.AddThread(id); });
    EXPECT_EQ(2 + 5, client.count("Info,NON,MemWatcher,AddThread,added  pid=# "));
    const auto visited = [&] {
        std::vector<std::uint32_t> ids;
        watcher.iterateThreads([&](std::uint32_t id, std::uint64_t tag) { ids.push_back(tag == 0 ? id : 0); });
        return ids;
    };
    EXPECT_EQ(7U, visited().size());
    EXPECT_TRUE(std::ranges::is_sorted(visited()));

    std::int64_t relativeMs = 0;
    const auto report = [&](std::int64_t elapsed, std::map<std::uint32_t, std::optional<std::uint64_t>> times) {
        ticks.total += elapsed;
        userTimes = std::move(times);
        Timer::instance().setRelativeTimeMs(relativeMs += 4'000);
        watcher.printCpu();
        return client.messages();
    };
    report(10'000'000, {{self, 7}, {2'000'000'001, 0}, {2'000'000'002, 0}, {2'000'000'003, {}}});
    EXPECT_EQ("Info,NON,MemWatcher,printCpu,total=0 cpu(perc)", client.last());
    Texts lines = report(10'000'000,
                         {{self, 2'500'007}, {2'000'000'001, 95'000}, {2'000'000'002, 2'699'000}, {2'000'000'003, {}}});
    EXPECT_EQ("Info,NON,MemWatcher,printCpu,total=52 cpu(perc)2000000002=26% " + own + "=25% ", lines.back());
    EXPECT_EQ("Error,NON,ThreadCpuUsageMonitor,update,failed opening thread", lines.end()[-2]);
    EXPECT_EQ("Error,NON,ThreadCpuUsageMonitor,update,failed getting thread times", lines.end()[-3]);
    EXPECT_PRED2(matches, lines.end()[-6], "Info,NON,MemWatcher,printCpu,10000000 cpu ticks in 4000 ms");
    EXPECT_FALSE(hasFraction() || hasFraction(5));
    const Texts all = client.lines();
    EXPECT_TRUE(std::is_sorted(all.end() - 6, all.end())); // by their times
    lines = report(0, {{self, 9'000'000}});                // no CPU time has passed
    EXPECT_EQ("Info,NON,MemWatcher,printCpu,total=0 cpu(perc)", lines.back());
    EXPECT_EQ(0, openThreads);

    watcher.removeThread();
    watcher.removeThread(); // is not registered any more
    EXPECT_EQ(6U, visited().size());
    EXPECT_EQ(0, std::ranges::count(visited(), self));
    EXPECT_EQ(before + 4 * (MemShield::isEnabled() ? sizeof(ThreadCpuUsageMonitor) + 80 : 0),
              MemShield::systemHeapBytes());
}

TEST_F(CpuUsage, ReportsOfSeveralThreadsComeOneAfterTheOther)
{
    waitForOwnThreads();
    std::thread other;
    const HookedClient hook("cpu ticks in", [&](const std::string&) {
        if (!other.joinable())
        {
            other = std::thread([] { MemWatcher::instance().printCpu(); });
            MemWatcher::instance().printCpu(); // does nothing within a report
        }
    });
    MemWatcher::instance().printCpu();
    other.join();
    const std::string first = "~ cpu ticks in ~";
    expectMatches({first, "total=~", first, "total=~"}, client.messagesAfter("Info,NON,MemWatcher,printCpu,"));
}

TEST_F(CpuUsage, TheMemoryCountersOfTheProcessAreLogged)
{
    static bool isReadable = true;
    const ScopedReplacement use(platform::counterCalls.processMemory,
                                [](platform::ProcessHandle, platform::ProcessMemory& memory) {
                                    memory = {1, 2, 3, 4, 5, 6, 7, 18'446'744'073'709'551'615U};
                                    return isReadable;
                                });
    MemWatcher::printMem();
    EXPECT_EQ("Info,NON,MemWatcher,printMem,memory information: PWSS=1 WSS=2 QPPPU=3 QPU=4 QPNPPU=5 QNPPU=6 PFU=7 "
              "PPFileU=18446744073709551615",
              client.last());
    EXPECT_FALSE(hasFraction());
    isReadable = false;
    MemWatcher::printMem();
    EXPECT_EQ(1U, client.messages().size());
    const ScopedProcessEnd ending;
    const ScopedReplacement own(platform::counterCalls.openOwnProcess, [] { return platform::ProcessHandle::Invalid; });
    EXPECT_THROW(MemWatcher::printMem(), ProcessEnded);
    EXPECT_PRED2(matches, client.last(),
                 "Error,NON,MemWatcher,printMem,Assertion (NULL != hProcess) failed "
                 "datapath/common/infra/windows/MemWatcher.cpp #");
}

} // namespace
