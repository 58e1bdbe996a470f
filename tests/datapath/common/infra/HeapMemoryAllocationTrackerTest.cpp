#include "datapath/common/infra/HeapMemoryAllocationTracker.h"

#include "datapath/common/infra/MemShield.h"
#include "tests/support/Support.h"

#include <atomic>
#include <random>

#include <gtest/gtest.h>

namespace
{

const DynamicTweak<bool> NOT_DISABLED;

TEST(HeapMemoryAllocationTracker, PausesAtTheBudgetUntilUsageIsDown)
{
    const ScratchFolder folder;
    folder.enter();
    MemShield::setEnabled(false);
    const LettingGo lettingGo;
    HeapMemoryAllocationTracker tracker(100, 80, NOT_DISABLED, "log");
    waitForOwnThreads();
    const auto& client = *new CapturingClient; // stays registered
    bool justPaused = true;
    char* const sixty = tracker.allocate(60, justPaused);
    char* const forty = tracker.allocate(40, justPaused);
    EXPECT_TRUE(sixty != nullptr && forty != nullptr && !justPaused);
    EXPECT_EQ(nullptr, tracker.allocate(0, justPaused));
    EXPECT_FALSE(justPaused);
    EXPECT_EQ(nullptr, tracker.allocate(1, justPaused));
    EXPECT_TRUE(justPaused);
    EXPECT_EQ(nullptr, tracker.allocate(1, justPaused));
    EXPECT_FALSE(justPaused);
    char* const beyond = tracker.allocateIgnoringLimit(50);
    EXPECT_TRUE(beyond != nullptr);
    tracker.free(forty, 40);
    tracker.free(beyond, 29); // 81 are left
    EXPECT_EQ(nullptr, tracker.allocate(1, justPaused));
    tracker.free(tracker.allocateIgnoringLimit(1), 2);
    char* const twenty = tracker.allocate(20, justPaused);
    EXPECT_TRUE(twenty != nullptr);
    EXPECT_TRUE(client.messages().empty());
    tracker.free(sixty, 60);
    tracker.free(twenty, 41);
    EXPECT_EQ("Assert,NON,HeapMemoryAllocationTracker,free, datapath/common/infra/HeapMemoryAllocationTracker.cpp 39: "
              "usedBytesBeforeFree >= (u32)lengthBytes failed. <log> trying to free more than allocated "
              "usedBytesBeforeFree=40  lengthBytes=41 ",
              client.messages().at(0));
}

TEST(HeapMemoryAllocationTracker, ThreadsReturnEachOthersBuffers)
{
    const ScratchFolder folder;
    folder.enter();
    waitForOwnThreads();
    HeapMemoryAllocationTracker tracker(4000, 2000, NOT_DISABLED, "log");
    const std::uint64_t before = MemShield::systemHeapBytes();
    std::vector<std::atomic<char*>> buffers(100);
    runInThreads(4, [&](int index) {
        std::minstd_rand random(static_cast<unsigned>(index + 1));
        for (int i = 0; i < 20'000; ++i)
        {
            bool justPaused = false;
            char* const fresh = i % 10 == 0 ? tracker.allocateIgnoringLimit(50) : tracker.allocate(50, justPaused);
            if (char* const old = buffers[random() % buffers.size()].exchange(fresh))
            {
                tracker.free(old, 50);
            }
        }
    });
    for (const std::atomic<char*>& buffer : buffers)
    {
        if (buffer != nullptr)
        {
            tracker.free(buffer, 50);
        }
    }
    EXPECT_EQ(before, MemShield::systemHeapBytes());
    bool justPaused = false;
    char* const all = tracker.allocate(4000, justPaused); // nothing is counted any more
    ASSERT_TRUE(all != nullptr);
    tracker.free(all, 4000);
}

} // namespace
