#include "datapath/common/infra/ActiveObject.h"

#include "datapath/common/infra/Tweaks.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <optional>
#include <random>

#include <gtest/gtest.h>

namespace
{

platform::Atomic<bool> forceVerbose = false;
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
    object.enqueue(GuardedMemory::create<Work>({"Work", SourcePlace::here()}, work, timeoutSec));
}

void open(ActiveObject& object, int workers)
{
    repeat(workers, [&] { object.open(); });
    object.waitUntilRunning();
}

GuardedPtr<RateMonitor> makeMonitor(const RateMonitor::Settings& settings)
{
    return {GuardedMemory::create<RateMonitor>({"RateMonitor", SourcePlace::here()}, "rate", settings),
            {SourcePlace::here()}};
}

struct ActiveObjectTest : LogTest
{
    ActiveObjectTest() { waitForOwnThreads(); }

    Semaphore started{0};
    Semaphore mayEnd{0};
    const std::function<void(Work&)> waiting = [this](Work&) { started.signal(), mayEnd.wait(); };
};

TEST_F(ActiveObjectTest, IsNamedInTheLog)
{
    Tweaks::instance().update("t_ActiveObjectVerboseLogs", "on");
    forceVerbose = true;
    const ActiveObject object("Disk", &forceVerbose);
    EXPECT_EQ("Info,NON,ActiveObject,ActiveObject,AO<Disk>  m_name=Disk  m_forceVerbose=1  "
              "DynamicTweaks::instance()->t_ActiveObjectVerboseLogs=1 ",
              client.last());
    EXPECT_EQ("Disk", object.getTypeName());
    client.newMessages();
    const ActiveObject nameless(nullptr, &forceVerbose);
    EXPECT_PRED2(matches, client.newMessages().at(0),
                 "Assert,NON,ActiveObject,ActiveObject, datapath/common/infra/ActiveObject.cpp #: name != 0 failed. ");
}

/// Notes how its workers start.
struct NotingObject : ActiveObject
{
    using ActiveObject::ActiveObject;
    ~NotingObject() override { terminateAllThreads(); }
    void onThreadStart(std::uint32_t threadIndex) override { started += threadIndex; }
    std::atomic<std::uint32_t> started = 0;
};

TEST_F(ActiveObjectTest, EachWorkerExecutesOneActionAtATimeInTheirOrder)
{
    Tweaks::instance().update("t_defaultDlcTimeoutSec", "800");
    NotingObject object("Disk", &forceVerbose);
    EXPECT_EQ(1U, object.getIdleEstimate());
    open(object, 2);
    waitUntil([&] { return object.getIdleEstimate() == 3; });
    std::array<Work*, 2> both{};
    std::atomic<std::uint32_t> timeouts = 0;
    for (const std::uint32_t timeoutSec : {7U, NO_TIMEOUT})
    {
        const auto work = [&](Work& self) {
            both.at(self.threadIndex() - 1) = &self;
            timeouts += self.keepalive().timeoutSec();
            EXPECT_TRUE(self.priority() == 0 && self.keepalive().isArmed());
            EXPECT_EQ("pid=" + std::to_string(platform::currentThreadId()), self.keepalive().name());
            waiting(self);
        };
        enqueue(object, work, timeoutSec);
    }
    repeat(2, [&] { started.wait(); }); // both at the same time
    EXPECT_EQ(1U + 2, object.started);
    std::vector<std::pair<int, std::uint32_t>> order; // and timeouts
    std::vector<std::pair<int, std::uint32_t>> expected;
    repeat(150, [&] { // more than a worker queues at a time
        const int own = expected.emplace_back(std::ssize(expected), 800).first;
        enqueue(object, [&, own](Work& self) { order.emplace_back(own, self.keepalive().timeoutSec()); });
    });
    EXPECT_EQ(0U, object.getIdleEstimate());
    ASSERT_TRUE(both[0] != nullptr && both[1] != nullptr);
    DlcKeepalive& keepalive = both[1]->keepalive();
    EXPECT_NE(&both[0]->keepalive(), &keepalive);
    EXPECT_EQ(807U, timeouts); // its own, and the default
    enqueue(object, waiting);  // holds the first worker when it has executed the others
    enqueue(object, waiting);
    repeat(2, [&] { mayEnd.signal(), started.wait(); });
    EXPECT_EQ(expected, order);
    repeat(2, [&] { mayEnd.signal(); });
    waitUntil([&] { return !keepalive.isArmed(); });
    EXPECT_EQ(2, client.count("Info,NON,ThreadWrapper,threadCallback,Starting ThreadWrapper of type Disk ~"));
    object.terminateAllThreads();
    EXPECT_EQ(0, living);
}

TEST_F(ActiveObjectTest, ShutdownWaitsForTheRunningActionAndDestroysTheOthers)
{
    auto object = std::make_unique<ActiveObject>("Disk", &forceVerbose);
    object->attachRateMonitor(makeMonitor({}));
    open(*object, 1);
    bool isExecuted = false;
    enqueue(*object, [&](Work& work) { waiting(work), isExecuted = true; });
    started.wait();
    repeat(3, [&] { enqueue(*object, [](Work&) { ADD_FAILURE() << "executed"; }); });
    std::array<Work*, 2> late{};
    for (Work*& work : late)
    {
        work = GuardedMemory::create<Work>({"Work", SourcePlace::here()}, [&](Work&) { started.signal(); });
    }
    const HookedClient hook("queue was not empty", [&](const std::string&) { object->enqueue(late[0]); });
    std::thread letting([&] { platform::sleepMs(20), mayEnd.signal(); });
    object->terminateAllThreads();
    letting.join();
    EXPECT_TRUE(isExecuted);
    EXPECT_EQ(2, living);
    EXPECT_EQ((Texts{"ActiveObject queue was not empty during shutdown: 3 items, details follow.",
                     "priority 0: 3 items, 0 bytes"}),
              client.messagesAfter("Warn,NON,ActiveObject,terminateAllThreads,"));
    object->open(); // leaves at once
    ActiveObject next("Next", &forceVerbose);
    next.enqueue(late[0]);
    object->enqueue(late[1]);
    open(next, 1);
    started.wait();
    next.terminateAllThreads();
    EXPECT_EQ(1, living);
    GuardedMemory::destroy(late[1], SourcePlace::here());
    object.reset();
    EXPECT_EQ(0, client.count("Assert,~"));
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
    EXPECT_EQ(1, client.count("~,printWatchedContainers,ContainerName = Disk items = 2 memory = 16 (max = 16)"));
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
              client.last());
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
    waitUntil([&] { return MemShield::systemHeapBytes() == before; }); // the last workers are still leaving
}

} // namespace
