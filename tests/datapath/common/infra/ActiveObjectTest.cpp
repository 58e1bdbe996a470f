#include "datapath/common/infra/ActiveObject.h"

#include "datapath/common/infra/Tweaks.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <gtest/gtest.h>

namespace
{

platform::Atomic<bool> forceVerbose = false;
std::atomic<int> living = 0;

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

    const std::function<void(Work&)> work;
    const std::uint32_t& priority = m_priority;
    const std::uint32_t& threadIndex = m_threadIndex;
    DlcKeepalive*& keepalive = m_keepalive;
};

/// Has no timeout of its own.
struct Unlimited : Work
{
    using Work::Work;
    std::uint32_t getDlcTimeoutSec() const override { return 0; }
};

template <class T = Work> T* makeWork(const std::function<void(Work&)>& work, std::uint32_t timeoutSec = 0)
{
    return GuardedMemory::create<T>({"Work", SourcePlace::here()}, work, timeoutSec);
}

struct ActiveObjectTest : LogTest
{
    ActiveObjectTest() { waitForOwnThreads(); }

    void enqueue(const std::function<void(Work&)>& work, std::uint32_t timeoutSec = 0) const
    {
        object->enqueue(makeWork(work, timeoutSec));
    }
    void open(int workers) const
    {
        repeat(workers, [&] { object->open(); });
        object->waitUntilRunning();
    }
    void attachMonitor(const RateMonitor::Settings& settings) const
    {
        object->attachRateMonitor(
            {GuardedMemory::create<RateMonitor>({"RateMonitor", SourcePlace::here()}, "rate", settings),
             {SourcePlace::here()}});
    }

    Semaphore started{0};
    Semaphore mayEnd{0};
    const std::function<void(Work&)> waiting = [this](Work&) { started.signal(), mayEnd.wait(); };
    std::unique_ptr<ActiveObject> object = std::make_unique<ActiveObject>("Disk", &forceVerbose);
};

TEST_F(ActiveObjectTest, IsNamedInTheLog)
{
    Tweaks::instance().update("t_ActiveObjectVerboseLogs", "on");
    forceVerbose = true;
    client.newMessages();
    EXPECT_EQ("Disk", ActiveObject("Disk", &forceVerbose).getTypeName());
    const ActiveObject nameless(nullptr, &forceVerbose);
    const std::string constructor = "NON,ActiveObject,ActiveObject,";
    const std::string flags = "m_forceVerbose=1  DynamicTweaks::instance()->t_ActiveObjectVerboseLogs=1 ";
    expectMatches({"Info," + constructor + "AO<Disk>  m_name=Disk  " + flags,
                   "Assert," + constructor + " datapath/common/infra/ActiveObject.cpp #: name != 0 failed. ",
                   "Info," + constructor + "AO<>  m_name=  " + flags},
                  client.newMessages());
}

TEST_F(ActiveObjectTest, EachWorkerExecutesOneActionAtATimeInTheirOrder)
{
    Tweaks::instance().update("t_defaultDlcTimeoutSec", "800");
    EXPECT_EQ(1U, object->getIdleEstimate());
    open(2);
    waitUntil([&] { return object->getIdleEstimate() == 3; });
    std::array<DlcKeepalive*, 2> keepalives{}; // the workers' own
    std::atomic<std::uint32_t> timeouts = 0;
    const auto work = [&](Work& self) {
        keepalives.at(self.threadIndex - 1) = self.keepalive;
        timeouts += self.keepalive->timeoutSec();
        EXPECT_TRUE(self.priority == 0 && self.keepalive->isArmed());
        EXPECT_EQ("pid=" + std::to_string(platform::currentThreadId()), self.keepalive->name());
        waiting(self);
    };
    enqueue(work, 7);
    object->enqueue(makeWork<Unlimited>(work));
    repeat(2, [&] { started.wait(); }); // both at the same time
    EXPECT_TRUE(keepalives[0] != nullptr && keepalives[1] != nullptr && keepalives[0] != keepalives[1]);
    EXPECT_EQ(807U, timeouts); // the action's own, and the default
    std::vector<int> order;
    std::vector<int> expected;
    repeat(150, [&] { // more than a worker fetches at a time
        expected.push_back(static_cast<int>(expected.size()));
        enqueue([&, own = expected.back()](Work&) { order.push_back(own); });
    });
    EXPECT_EQ(0U, object->getIdleEstimate());
    repeat(2, [&] { enqueue(waiting); }); // the first holds the worker that has executed the others
    repeat(2, [&] { mayEnd.signal(), started.wait(); });
    EXPECT_EQ(expected, order);
    repeat(2, [&] { mayEnd.signal(); });
    waitUntil([&] { return !keepalives[0]->isArmed() && !keepalives[1]->isArmed(); });
    EXPECT_EQ(2, client.count("Info,NON,ThreadWrapper,threadCallback,Starting ThreadWrapper of type Disk ~"));
    object->terminateAllThreads();
    EXPECT_EQ(0, living);
}

TEST_F(ActiveObjectTest, ShutdownWaitsForTheRunningActionAndDestroysTheOthers)
{
    attachMonitor({});
    open(1);
    bool isExecuted = false;
    enqueue([&](Work& work) { waiting(work), isExecuted = true; });
    started.wait();
    repeat(3, [&] { enqueue([](Work&) { ADD_FAILURE() << "executed"; }); });
    Work* const late = makeWork(waiting);
    const HookedClient hook("queue was not empty", [&](const std::string&) { object->enqueue(late); });
    std::thread letting([&] { platform::sleepMs(20), mayEnd.signal(); });
    object->terminateAllThreads();
    letting.join();
    EXPECT_TRUE(isExecuted && living == 1);
    EXPECT_EQ((Texts{"ActiveObject queue was not empty during shutdown: 3 items, details follow.",
                     "priority 0: 3 items, 0 bytes"}),
              client.messagesAfter("Warn,NON,ActiveObject,terminateAllThreads,"));
    open(1); // the worker leaves at once
    object->enqueue(late);
    object.reset();
    EXPECT_EQ(1, living);
    GuardedMemory::destroy(late, SourcePlace::here());
    EXPECT_EQ(0, client.count("Assert,~"));
}

std::atomic<std::int64_t> nowUs = 0;

TEST_F(ActiveObjectTest, FeedsItsRateMonitorWithThePeriodsInWhichActionsAreQueued)
{
    attachMonitor({4, 1'000'000'000, 1, 1'000, false, [] { return nowUs.load(); }});
    const auto enqueueAt = [&](std::int64_t timeMs, const std::function<void(Work&)>& work) {
        nowUs = timeMs * 1'000;
        enqueue(work);
    };
    enqueueAt(1'000, [](Work&) {}); // no worker yet: stays queued
    enqueueAt(2'000, waiting);
    MemWatchedContainerDatabase::instance().printWatchedContainers();
    EXPECT_EQ(1, client.count("~,printWatchedContainers,ContainerName = Disk items = 2 memory = 16 (max = 16)"));
    nowUs = 3'000'000;
    open(1);
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
        object = std::make_unique<ActiveObject>("Disk", &forceVerbose);
        open(round % 3 + 1);
        runInThreads(4, [&](int index) {
            for (int i = 0; i < 50; ++i)
            {
                enqueue([&](Work&) { ++executed % 7 == 0 ? enqueue([&](Work&) { ++executed; }) : void(); });
                (i + index) % 40 == 0 ? platform::sleepMs(1) : void(); // so that workers fall asleep
            }
        });
        object->terminateAllThreads();
    }
    EXPECT_TRUE(living == 0 && executed > 100 * 100);
    waitUntil([&] { return MemShield::systemHeapBytes() == before; }); // the last workers are still leaving
}

} // namespace
