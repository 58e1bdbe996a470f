#include "datapath/common/infra/PriorityQueue.h"

#include "datapath/common/infra/ActiveObject.h"
#include "datapath/common/infra/Timer.h"
#include "platform/Time.h"
#include "tests/support/Support.h"

#include <random>
#include <set>

#include <gtest/gtest.h>

namespace
{

const std::string STATS = "Info,NON,PriorityQueue,printStatsIfNeeded,";
std::int64_t nowMs = 20'000;

struct PriorityQueueTest : LogTest
{
    std::uint32_t priority = 0;
    const ScopedReplacement tickCount{platform::timeCalls.tickCountMs,
                                      [] { return static_cast<std::uint64_t>(nowMs); }};
    const ScopedReplacement frequency{platform::timeCalls.performanceFrequency,
                                      [](std::int64_t& value) { return (value = 1'000) > 0; }};
    const ScopedReplacement counter{platform::timeCalls.performanceCounter,
                                    [](std::int64_t& value) { return (value = nowMs) > 0; }};
};

TEST_F(PriorityQueueTest, PrioritiesOutOfRangeAreNamed)
{
    ActiveObject::Action* action = nullptr;
    PriorityQueue<ActiveObject::Action*> queue(2, "Actions", false);
    queue.enqueue(action, 2);
    EXPECT_FALSE(queue.dequeue(action, priority));
    queue.enqueue(action, 1);
    EXPECT_EQ(0U, queue.size(2) + queue.sizeBytes(2) + queue.sizeBytes(1));
    const Texts lines = client.messagesAfter("Assert,NON,PriorityQueue<class ActiveObject::Action *>,");
    const std::string check = ", datapath/common/infra/PriorityQueue.h #: priority < m_queue";
    expectMatches({"enqueue" + check + "s.size() failed. priority too high priority=2  m_queues.size()=2 ",
                   "size" + check + "s.size() failed. invalid priority",
                   "sizeBytes" + check + "Stats.size() failed. invalid priority"},
                  lines);
}

TEST_F(PriorityQueueTest, WatermarksAreLoggedOnceAnInterval)
{
    PriorityQueue<char> queue(2, "Bytes", true);
    Tweaks::instance().update("t_IOVerboseLogs", "on");
    PriorityQueue<char> verbose(1, "Verbose", true);
    char item = 0;
    queue.enqueue('a', 0);
    queue.enqueue('b', 0);
    queue.enqueue('c', 1);
    queue.setName("Renamed");
    nowMs = 29'999;
    EXPECT_TRUE(queue.dequeue(item, priority) && queue.dequeue(item, priority));
    EXPECT_EQ(1U, client.messagesAfter(STATS).size());
    nowMs = Timer::instance().getLastTimestampMs_Inaccurate(true) + 1;
    static_cast<void>(Timer::instance().getTimestampMs());
    queue.enqueue('d', 1);
    nowMs = 60'000; // nobody else reads the clock
    EXPECT_TRUE(queue.dequeue(item, priority));
    EXPECT_EQ(
        (Texts{"(Bytes)Q1:0 (0 B WM-H0 L0) Q0:0 (0 B WM-H0 L0) ", "(Renamed)Q1:0 (0 B WM-H1 L0) Q0:1 (1 B WM-H2 L0) ",
               "(Renamed)Q1:0 (0 B WM-H1 L0) Q0:1 (1 B WM-H1 L1) "}), // since the line before
        client.messagesAfter(STATS));
    for (const std::int64_t laterMs : {0, 499, 1})
    {
        nowMs += laterMs;
        static_cast<void>(Timer::instance().getTimestampMs());
        verbose.enqueue('e', 0);
        EXPECT_EQ(laterMs == 1 ? 5U : 4U, client.messagesAfter(STATS).size());
    }
}

TEST_F(PriorityQueueTest, TakesTheOldestOfTheHighestPriorityWhateverCameBefore)
{
    platform::Atomic<std::uint64_t> numArrived = 7; // more than are enqueued
    auto queue = std::make_unique<PriorityQueue<int>>(5, "Items", true, &numArrived);
    std::set<std::pair<std::int64_t, int>> model; // negative priorities and ages
    std::mt19937 random(4711);
    for (int step = 0; step < 20'000; ++step)
    {
        nowMs += static_cast<std::int64_t>(random() % 40);
        priority = static_cast<std::uint32_t>(random() % 5);
        if (random() % 4 < (step / 500 % 2 == 0 ? 3U : 1U)) // grows for a while, then shrinks
        {
            ++numArrived;
            queue->enqueue(step, priority);
            model.emplace(-std::int64_t{priority}, step);
        }
        else if (int item = 0; queue->dequeue(item, priority))
        {
            ASSERT_EQ(std::pair(-std::int64_t{priority}, item), *model.begin());
            model.erase(model.begin());
        }
        ASSERT_TRUE(queue->checkInvariants() && queue->itemCount() == model.size() + 7);
    }
    const std::string memory = std::to_string(8 * (model.size() + 7));
    MemWatchedContainerDatabase::instance().printWatchedContainers();
    queue.reset();
    MemWatchedContainerDatabase::instance().printWatchedContainers();
    EXPECT_EQ(Texts{std::to_string(model.size() + 7) + " memory = " + memory + " (max = " + memory + ")"},
              client.messagesAfter(
                  "Info,NON,MemWatchedContainerDatabase,printWatchedContainers,ContainerName = Items items = "));
}

} // namespace
