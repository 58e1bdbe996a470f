#include "datapath/common/infra/HeapMemoryAllocationTracker.h"

#include "datapath/common/infra/MemShield.h"
#include "tests/support/Support.h"

#include <gtest/gtest.h>

namespace
{

const DynamicTweak<bool> NOT_DISABLED;

using Answer = HeapMemoryAllocationTracker::Answer;
using HeapMemoryAllocationTrackerTest = LogTest;

TEST_F(HeapMemoryAllocationTrackerTest, PausesAtTheBudgetUntilUsageIsDown)
{
    MemShield::setEnabled(false);
    HeapMemoryAllocationTracker tracker(100, 80, NOT_DISABLED, "log");
    waitForOwnThreads();
    char* const sixty = tracker.allocate(60).buffer;
    char* const forty = tracker.allocate(40).buffer;
    EXPECT_TRUE(sixty != nullptr && forty != nullptr);
    EXPECT_EQ(nullptr, tracker.allocate(0).buffer);
    EXPECT_EQ(Answer::BeganPause, tracker.allocate(1).answer);
    EXPECT_EQ(Answer::Refused, tracker.allocate(1).answer);
    char* const beyond = tracker.allocateIgnoringLimit(50);
    EXPECT_TRUE(beyond != nullptr);
    tracker.free(forty, 40);
    tracker.free(beyond, 29); // 81 are left
    EXPECT_EQ(Answer::Refused, tracker.allocate(1).answer);
    tracker.free(tracker.allocateIgnoringLimit(1), 2);
    char* const twenty = tracker.allocate(20).buffer;
    EXPECT_TRUE(twenty != nullptr);
    EXPECT_EQ(0, client.count("~HeapMemoryAllocationTracker~"));
    tracker.free(sixty, 60);
    tracker.free(twenty, 41);
    EXPECT_EQ(
        1, client.count(
               "Assert,NON,HeapMemoryAllocationTracker,free, datapath/common/infra/HeapMemoryAllocationTracker.cpp 39: "
               "usedBytesBeforeFree >= (u32)lengthBytes failed. <log> trying to free more than allocated "
               "usedBytesBeforeFree=40  lengthBytes=41 "));
}

} // namespace
