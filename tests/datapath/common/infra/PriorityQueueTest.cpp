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

std::int64_t nowMs = 20'000;

struct PriorityQueueTest : LogTest
{
    const ScopedReplacement tickCount{platform::timeCalls.tickCountMs,
                                      [] { return static_cast<std::uint64_t>(nowMs); }};
    const ScopedReplacement frequency{platform::timeCalls.performanceFrequency,
                                      [](std::int64_t& value) { return (value = 1'000) > 0; }};
    const ScopedReplacement counter{platform::timeCalls.performanceCounter,
                                    [](std::int64_t& value) { return (value = nowMs) > 0; }};
};

TEST_F(PriorityQueueTest, PrioritiesOutOfRangeAreNamed)
{
    PriorityQueue<ActiveObject::Action*> queue(2, "Actions", false);
    queue.enqueue(nullptr, 1);
    queue.enqueue(nullptr, 2);
    EXPECT_EQ(0U, queue.size(2) + queue.sizeBytes(2) + queue.sizeBytes(1));
    EXPECT_TRUE(queue.dequeue() && !queue.dequeue());
    const std::string check = ", datapath/common/infra/PriorityQueue.h #: priority < m_queue";
    expectMatches({"enqueue" + check + "s.size() failed. priority too high priority=2  m_queues.size()=2 ",
                   "size" + check + "s.size() failed. invalid priority",
                   "sizeBytes" + check + "Stats.size() failed. invalid priority"},
                  client.messagesAfter("Assert,NON,PriorityQueue<class ActiveObject::Action *>,"));
}

TEST_F(PriorityQueueTest, WatermarksAreLoggedOnceAnInterval)
{
    PriorityQueue<char> queue(2, "Bytes", true);
    Tweaks::instance().update("t_IOVerboseLogs", "on");
    PriorityQueue<char> verbose(1, "Verbose", true);
    const auto enqueueAt = [](PriorityQueue<char>& into, std::int64_t timeMs, std::uint32_t priority) {
        nowMs = timeMs;
        static_cast<void>(Timer::instance().getTimestampMs());
        into.enqueue('a', priority);
    };
    enqueueAt(queue, 20'000, 0);
    enqueueAt(queue, 20'000, 0);
    enqueueAt(queue, 20'000, 1);
    queue.setName("Renamed");
    enqueueAt(queue, 29'999, 0);
    EXPECT_TRUE(queue.dequeue() && queue.dequeue());
    enqueueAt(queue, 30'000, 1);
    nowMs = 60'000; // only dequeue reads the clock
    EXPECT_TRUE(queue.dequeue());
    enqueueAt(verbose, 60'000, 0);
    enqueueAt(verbose, 60'499, 0);
    enqueueAt(verbose, 60'500, 0);
    EXPECT_EQ(
        (Texts{"(Bytes)Q1:0 (0 B WM-H0 L0) Q0:0 (0 B WM-H0 L0) ", "(Renamed)Q1:0 (0 B WM-H1 L0) Q0:2 (2 B WM-H3 L0) ",
               "(Renamed)Q1:0 (0 B WM-H1 L0) Q0:2 (2 B WM-H2 L2) ", // since the last line
               "(Verbose)Q0:0 (0 B WM-H0 L0) ", "(Verbose)Q0:2 (2 B WM-H2 L0) "}),
        client.messagesAfter("Info,NON,PriorityQueue,printStatsIfNeeded,"));
}

TEST_F(PriorityQueueTest, TakesTheOldestOfTheHighestPriorityWhateverCameBefore)
{
    platform::Atomic<std::uint64_t> numArrived = 7; // 7 items are never enqueued
    auto queue = std::make_unique<PriorityQueue<int>>(5, "Items", true, &numArrived);
    std::set<std::pair<std::int64_t, int>> model; // pairs of a negative priority and an item: the first is next
    std::mt19937 random(4711);
    for (int step = 0; step < 20'000; ++step)
    {
        nowMs += static_cast<std::int64_t>(random() % 40);
        const auto priority = static_cast<std::uint32_t>(random() % 5);
        if (random() % 4 < (step / 500 % 2 == 0 ? 3U : 1U)) // the queue grows for a while, then shrinks
        {
            ++numArrived;
            queue->enqueue(step, priority);
            model.emplace(-std::int64_t{priority}, step);
        }
        else if (const auto taken = queue->dequeue())
        {
            ASSERT_EQ(std::pair(-std::int64_t{taken->priority}, taken->item), *model.begin());
            model.erase(model.begin());
        }
        ASSERT_TRUE(queue->checkInvariants() && queue->itemCount() == model.size() + 7);
    }
    MemWatchedContainerDatabase::instance().printWatchedContainers();
    queue.reset();
    MemWatchedContainerDatabase::instance().printWatchedContainers();
    EXPECT_EQ(1, client.count("~,printWatchedContainers,ContainerName = Items items = " +
                              std::to_string(model.size() + 7) + " memory = ~"));
}

} // namespace
