#include "datapath/common/infra/ActiveObject.h"

#include "datapath/common/infra/Tweaks.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <optional>
#include <random>

#include <gtest/gtest.h>

namespace
{

using Texts = std::vector<std::string>;

std::atomic<bool> forceVerbose = false;
std::atomic<int> living = 0;

constexpr std::uint32_t NO_TIMEOUT = 1;

/// Does some work, and counts itself while it exists.
struct Work : ActiveObject::Action
{
    explicit Work(std::function<void(Work&)> content, std::uint32_t timeoutSec = 0) : work(std::move(content))
    {
        m_dlcTimeoutSec = timeoutSec;
        ++living;
    }
    ~Work() override { --living; }
    void execute() override { work(*this); }
    std::uint32_t getDlcTimeoutSec() const override
    {
        return m_dlcTimeoutSec == NO_TIMEOUT ? 0 : ActiveObject::Action::getDlcTimeoutSec();
    }

    [[nodiscard]] std::uint32_t priority() const { return m_priority; }
    [[nodiscard]] std::uint32_t threadIndex() const { return m_threadIndex; }
    [[nodiscard]] DlcKeepalive& keepalive() const { return *m_keepalive; }

    const std::function<void(Work&)> work;
};

void enqueue(ActiveObject& object, const std::function<void(Work&)>& work, std::uint32_t timeoutSec = 0)
{
    object.enqueue(MemShield::create<Work>({"Work", SourcePlace::here()}, work, timeoutSec));
}

void open(ActiveObject& object, int workers)
{
    while (workers-- > 0)
    {
        object.open();
    }
    object.waitUntilRunning();
}

GuardedPtr<RateMonitor> makeMonitor(const RateMonitor::Settings& settings)
{
    return {MemShield::create<RateMonitor>({"RateMonitor", SourcePlace::here()}, "rate", settings),
            {SourcePlace::here()}};
}

struct ActiveObjectTest : testing::Test
{
    ActiveObjectTest()
    {
        folder.enter();
        waitForOwnThreads();
    }

    const ScratchFolder folder;
    const LettingGo lettingGo;
    const CapturingClient* const client = new CapturingClient; // stays registered
    Semaphore started{0};
    Semaphore mayEnd{0};
    const std::function<void(Work&)> waiting = [this](Work&) {
        started.signal();
        mayEnd.wait();
    };
};

TEST_F(ActiveObjectTest, IsNamedInTheLog)
{
    Tweaks::instance().update("t_ActiveObjectVerboseLogs", "on");
    forceVerbose = true;
    const ActiveObject object("Disk", &forceVerbose);
    EXPECT_EQ("Info,NON,ActiveObject,ActiveObject,AO<Disk>  m_name=Disk  m_forceVerbose=1  "
              "DynamicTweaks::instance()->t_ActiveObjectVerboseLogs=1 ",
              client->messages().back());
    EXPECT_EQ("Disk", object.getTypeName());
    const std::size_t before = client->messages().size();
    const ActiveObject nameless(nullptr, &forceVerbose);
    EXPECT_PRED2(matches, client->messages().at(before),
                 "Assert,NON,ActiveObject,ActiveObject, datapath/common/infra/ActiveObject.cpp #: name != 0 failed. ");
}

TEST_F(ActiveObjectTest, EachWorkerExecutesOneActionAtATimeInTheirOrder)
{
    ActiveObject object("Disk", &forceVerbose);
    EXPECT_EQ(1U, object.getIdleEstimate());
    open(object, 2);
    while (object.getIdleEstimate() != 3)
    {
        platform::sleepMs(1);
    }
    std::array<Work*, 2> both{};
    std::array<std::uint32_t, 2> timeouts{};
    for (const std::uint32_t timeoutSec : {7U, 0U})
    {
        enqueue(
            object,
            [&](Work& work) {
                both.at(work.threadIndex() - 1) = &work;
                timeouts.at(work.threadIndex() - 1) = work.keepalive().timeoutSec();
                EXPECT_EQ(0U, work.priority());
                EXPECT_TRUE(work.keepalive().isArmed());
                EXPECT_EQ("pid=" + std::to_string(platform::currentThreadId()), work.keepalive().name());
                waiting(work);
            },
            timeoutSec);
    }
    started.wait();
    started.wait(); // both at the same time
    std::vector<int> order;
    for (int i = 0; i < 5; ++i)
    {
        enqueue(object, [&order, i](Work&) { order.push_back(i); });
    }
    EXPECT_EQ(0U, object.getIdleEstimate());
    ASSERT_TRUE(both[0] != nullptr && both[1] != nullptr);
    DlcKeepalive& keepalive = both[1]->keepalive();
    EXPECT_NE(&both[0]->keepalive(), &keepalive);
    EXPECT_EQ(907U, timeouts[0] + timeouts[1]); // its own, and the default
    enqueue(object, waiting);                   // holds the first worker when it has executed the others
    enqueue(object, waiting);
    mayEnd.signal();
    started.wait();
    mayEnd.signal();
    started.wait();
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), order);
    mayEnd.signal();
    mayEnd.signal();
    while (keepalive.isArmed())
    {
        platform::sleepMs(1);
    }
    Texts lines = client->messages();
    object.terminateAllThreads();
    EXPECT_EQ(0, living);
    EXPECT_EQ(2, std::ranges::count_if(lines, [](const std::string& line) {
                  return matches(line, "Info,NON,ThreadWrapper,threadCallback,Starting ThreadWrapper of type Disk ~");
              }));
}

/// Notes how its workers start.
struct NotingObject : ActiveObject
{
    NotingObject() : ActiveObject("Noting", &forceVerbose) {}
    ~NotingObject() override { terminateAllThreads(); }
    void onThreadStart(std::uint32_t threadIndex) override { started += threadIndex; }
    std::atomic<std::uint32_t> started = 0;
};

TEST_F(ActiveObjectTest, IdleWorkersExecuteWhatComesWhileOthersAreBusy)
{
    Tweaks::instance().update("t_defaultDlcTimeoutSec", "800");
    NotingObject object;
    open(object, 4);
    for (int busy = 0; busy < 4; ++busy)
    {
        for (int i = 0; i < 300; ++i)
        {
            const bool isDefault = i % 3 != 0;
            const std::uint32_t timeoutSec = i % 3 == 1 ? NO_TIMEOUT : isDefault ? 0 : 7;
            enqueue(
                object,
                [&](Work& work) {
                    EXPECT_EQ(isDefault ? 800U : 7U, work.keepalive().timeoutSec());
                    started.signal();
                },
                timeoutSec);
            ASSERT_TRUE(started.waitFor(30'000));
            platform::sleepMs(i % 50 == 0 ? 1 : 0);
        }
        enqueue(object, waiting);
        started.wait();
    }
    EXPECT_EQ(1U + 2 + 3 + 4, object.started);
    for (int busy = 0; busy < 4; ++busy)
    {
        mayEnd.signal();
    }
}

/// Does something before a line with that text is over.
struct OnLine : LoggerClient
{
    OnLine(const char* text, std::function<void()> content) : part(text), work(std::move(content))
    {
        Logger::instance().registerClient(this, Logger::ALL_LEVELS); // and stays
    }
    void log(const std::string& line) override
    {
        if (line.find(part) != std::string::npos)
        {
            work();
        }
    }
    const std::string part;
    const std::function<void()> work;
};

TEST_F(ActiveObjectTest, ShutdownWaitsForTheRunningActionAndDestroysTheOthers)
{
    std::optional<ActiveObject> object;
    object.emplace("Disk", &forceVerbose);
    object->attachRateMonitor(makeMonitor({}));
    open(*object, 1);
    bool isExecuted = false;
    enqueue(*object, [&](Work& work) {
        waiting(work);
        isExecuted = true;
    });
    started.wait();
    for (int i = 0; i < 3; ++i)
    {
        enqueue(*object, [](Work&) { ADD_FAILURE() << "executed"; });
    }
    std::array<Work*, 2> late{};
    for (Work*& work : late)
    {
        work = MemShield::create<Work>({"Work", SourcePlace::here()}, [&](Work&) { started.signal(); });
    }
    new OnLine("queue was not empty", [&] { object->enqueue(late[0]); });
    std::thread letting([&] {
        platform::sleepMs(20);
        mayEnd.signal();
    });
    object->terminateAllThreads();
    letting.join();
    EXPECT_TRUE(isExecuted);
    EXPECT_EQ(2, living);
    const Texts lines = client->messages();
    const auto warning = std::ranges::find_if(lines, [](const auto& line) { return line.starts_with("Warn,"); });
    ASSERT_LE(2, lines.end() - warning);
    const std::string head = "Warn,NON,ActiveObject,terminateAllThreads,";
    EXPECT_EQ(head + "ActiveObject queue was not empty during shutdown: 3 items, details follow.", warning[0]);
    EXPECT_EQ(head + "priority 0: 3 items, 0 bytes", warning[1]);
    object->open(); // leaves at once
    ActiveObject next("Next", &forceVerbose);
    next.enqueue(late[0]);
    object->enqueue(late[1]);
    open(next, 1);
    started.wait();
    next.terminateAllThreads();
    EXPECT_EQ(1, living);
    MemShield::destroy(late[1], SourcePlace::here());
    object.reset();
    EXPECT_EQ(0,
              std::ranges::count_if(client->messages(), [](const auto& line) { return line.starts_with("Assert,"); }));
}

TEST_F(ActiveObjectTest, ShutdownWaitsForWorkersThatHaveNotStartedYet)
{
    Semaphore mayRegister(0);
    new OnLine("Starting ThreadWrapper of type Slow ", [&] { mayRegister.wait(); });
    auto object = std::make_unique<ActiveObject>("Slow", &forceVerbose);
    object->open();
    object->open();
    std::atomic<bool> isExecuted = false;
    std::atomic<bool> isGone = false;
    enqueue(*object, [&](Work&) { isExecuted = true; });
    std::thread destroying([&] {
        platform::sleepMs(5);
        object.reset();
        isGone = true;
    });
    platform::sleepMs(20);
    mayRegister.signal();
    platform::sleepMs(20);
    EXPECT_FALSE(isGone);
    mayRegister.signal();
    destroying.join();
    EXPECT_TRUE(isExecuted); // by the worker that was there when the shutdown had not begun
}

TEST_F(ActiveObjectTest, AWorkerThatHasWaitedForLongStillTakesActions)
{
    forceVerbose = true;
    ActiveObject object("Disk", &forceVerbose);
    open(object, 2);
    platform::sleepMs(5'500); // a worker looks around every 5 seconds
    mayEnd.signal();
    enqueue(object, waiting);
    started.wait();
    enqueue(object, waiting);
    enqueue(object, waiting);
    started.wait();
    started.wait();
    mayEnd.signal();
    mayEnd.signal();
    EXPECT_EQ(0, std::ranges::count_if(client->messages(), [](const std::string& line) {
                  return line.find("wait timed out") != std::string::npos;
              }));
}

std::atomic<std::int64_t> nowUs = 0;

TEST_F(ActiveObjectTest, FeedsItsRateMonitorWithThePeriodsInWhichActionsAreQueued)
{
    ActiveObject object("Disk", &forceVerbose);
    object.attachRateMonitor(makeMonitor({4, 1'000'000'000, 1, 1'000, false, [] { return nowUs.load(); }}));
    const auto enqueueAt = [&](std::int64_t timeMs, const std::function<void(Work&)>& work) {
        nowUs = timeMs * 1'000;
        enqueue(object, work);
    };
    enqueueAt(1'000, [](Work&) {}); // no worker yet: stays queued
    enqueueAt(2'000, waiting);
    MemWatchedContainerDatabase::instance().printWatchedContainers();
    EXPECT_EQ(1, std::ranges::count_if(client->messages(), [](const std::string& line) {
                  return line.ends_with(
                      ",printWatchedContainers,ContainerName = Disk items = 2 memory = 16 (max = 16)");
              }));
    nowUs = 3'000'000;
    open(object, 1);
    started.wait();
    enqueueAt(4'000, [](Work&) {});
    enqueueAt(4'500, [](Work&) {});
    enqueueAt(4'500, waiting);
    nowUs = 5'000'000;
    mayEnd.signal();
    started.wait();
    EXPECT_EQ("Info,NON,RateMonitor,update,rate time=4000 (3000) rate=1<bw=1> latency=[Avg: 1500 Max: 2000]",
              client->messages().back());
    mayEnd.signal();
}

TEST_F(ActiveObjectTest, StartsAndStopsUnderLoad)
{
    const std::uint64_t before = MemShield::systemHeapBytes();
    std::atomic<int> executed = 0;
    for (int round = 0; round < 100; ++round)
    {
        ActiveObject object("Disk", &forceVerbose);
        open(object, round % 3 + 1);
        runInThreads(4, [&](int index) {
            std::minstd_rand random(static_cast<unsigned>(index + 1));
            for (int i = 0; i < 50; ++i)
            {
                enqueue(object, [&](Work& work) {
                    if (++executed % 7 == 0)
                    {
                        enqueue(object, [&](Work&) { ++executed; });
                    }
                    EXPECT_GE(3U, work.threadIndex());
                });
                platform::sleepMs(random() % 40 == 0 ? 1 : 0);
            }
        });
    }
    EXPECT_EQ(0, living);
    EXPECT_LT(100 * 100, executed);
    while (MemShield::systemHeapBytes() != before) // the last workers are still leaving
    {
        platform::sleepMs(1);
    }
}

} // namespace
