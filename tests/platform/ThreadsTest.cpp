#include "platform/Threads.h"
#include "platform/Sync.h"
#include "tests/support/Support.h"

#include <gtest/gtest.h>

namespace
{

using namespace platform;

TEST(Threads, AStartedThreadHasAnIdOfItsOwnWhoseTimesCanBeRead)
{
    static std::uint32_t id = 0;
    static NativeSemaphore hasStarted(0);
    static NativeSemaphore mayLeave(0);
    const auto visit = [](void* argument) {
        id = argument == &mayLeave ? currentThreadId() : 0;
        hasStarted.post();
        mayLeave.wait();
    };
    ASSERT_EQ(ErrorNumber::Success, startThread(visit, &mayLeave, ThreadPriority::TimeCritical));
    hasStarted.wait();
    EXPECT_NE(0U, id);
    EXPECT_NE(currentThreadId(), id);
    const ThreadHandle opened = openThread(id);
    ASSERT_NE(ThreadHandle::Invalid, opened);
    EXPECT_TRUE(threadUserTime(opened).has_value());
    closeThread(opened);
    mayLeave.post();
}

TEST(Threads, TimesGrowWithWorkAndUnknownThreadsHaveNone)
{
    EXPECT_EQ(ThreadHandle::Invalid, openThread(0x7FFFFFF0));
    const int handles = openHandles();
    const ThreadHandle self = openThread(currentThreadId());
    const std::uint64_t userTime = threadUserTime(self).value();
    const std::uint64_t cycles = currentThreadCycles();
    while (threadUserTime(self).value() == userTime)
    {
    }
    EXPECT_TRUE(currentThreadCycles() > cycles || cycles == 0); // 0: the system does not count
    closeThread(self);
    EXPECT_EQ(handles, openHandles()) << "a reading leaves nothing open";
}

} // namespace
