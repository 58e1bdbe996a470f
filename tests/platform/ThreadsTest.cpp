// The contract of threads.

#include "platform/Threads.h"

#include <future>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

struct Visit
{
    std::promise<std::uint32_t> threadId;
    std::promise<void> mayLeave;
};

void visit(void* argument)
{
    Visit& self = *static_cast<Visit*>(argument);
    self.threadId.set_value(currentThreadId());
    self.mayLeave.get_future().wait();
}

TEST(Threads, AStartedThreadHasAnIdOfItsOwnWhoseTimesCanBeRead)
{
    static Visit visited;
    ASSERT_EQ(ErrorNumber::Success, startThread(visit, &visited, ThreadPriority::TimeCritical));
    const std::uint32_t id = visited.threadId.get_future().get();
    EXPECT_NE(currentThreadId(), id);
    const ThreadHandle opened = openThread(id);
    ASSERT_NE(ThreadHandle::Invalid, opened);
    EXPECT_TRUE(threadUserTime(opened).has_value());
    closeThread(opened);
    visited.mayLeave.set_value();
}

TEST(Threads, TimesGrowWithWorkAndUnknownThreadsHaveNone)
{
    EXPECT_EQ(ThreadHandle::Invalid, openThread(0x7FFFFFF0));
    const ThreadHandle self = openThread(currentThreadId());
    const std::uint64_t userTime = threadUserTime(self).value();
    const std::uint64_t cycles = currentThreadCycles();
    while (threadUserTime(self).value() == userTime)
    {
    }
    EXPECT_TRUE(currentThreadCycles() > cycles || cycles == 0); // 0: the system does not count
    closeThread(self);
}

} // namespace
