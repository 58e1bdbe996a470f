// The contract of threads.

#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

/// Lets one thread wait until another has done something.
class Signal
{
public:
    void set()
    {
        const std::lock_guard guard(m_mutex);
        m_isSet = true;
        m_condition.notify_all();
    }
    void wait()
    {
        std::unique_lock guard(m_mutex);
        m_condition.wait(guard, [this] { return m_isSet; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_isSet = false;
};

struct Visit
{
    std::uint32_t threadId = 0;
    Signal arrived;
    Signal mayLeave;
};

void visit(void* argument)
{
    Visit& self = *static_cast<Visit*>(argument);
    self.threadId = currentThreadId();
    self.arrived.set();
    self.mayLeave.wait();
}

TEST(Threads, AStartedThreadHasAnIdOfItsOwnWhoseTimesCanBeRead)
{
    static Visit normal;
    static Visit critical;
    ASSERT_EQ(ErrorNumber::Success, startThread(visit, &normal));
    ASSERT_EQ(ErrorNumber::Success, startThread(visit, &critical, ThreadPriority::TimeCritical));
    normal.arrived.wait();
    critical.arrived.wait();
    EXPECT_NE(currentThreadId(), normal.threadId);
    EXPECT_NE(normal.threadId, critical.threadId);
    const ThreadHandle opened = openThread(normal.threadId);
    ASSERT_NE(ThreadHandle::Invalid, opened);
    EXPECT_TRUE(threadUserTime(opened).has_value());
    closeThread(opened);
    normal.mayLeave.set();
    critical.mayLeave.set();
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

TEST(Threads, AThreadThatCannotBeStartedIsReportedByAReplacedCall)
{
    const ScopedReplacement refusing(
        threadCalls.startThread, +[](ThreadProcedure, void*, ThreadPriority) { return ErrorNumber::NotEnoughMemory; });
    EXPECT_EQ(ErrorNumber::NotEnoughMemory, startThread(visit, nullptr));
}

} // namespace
