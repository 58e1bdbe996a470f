#include "datapath/common/infra/windows/ThreadWrapper.h"

#include "datapath/common/infra/Semaphore.h"
#include "platform/Random.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <filesystem>
#include <set>

#include <gtest/gtest.h>

/// Its threads stay until they are let go.
class WaitingWorker : public ThreadWrapper
{
public:
    void leave(int threads)
    {
        for (int i = 0; i < threads; ++i)
        {
            m_mayLeave.signal();
        }
        for (int i = 0; i < threads; ++i)
        {
            m_left.wait();
        }
    }
    std::set<std::int32_t> threadIds;
    std::set<std::uint32_t> randomNumbers;

private:
    void run() override
    {
        {
            const MutexGuard guard(m_mutex);
            EXPECT_EQ("class WaitingWorker",
                      Logger::instance().getThreadName(static_cast<std::int32_t>(platform::currentThreadId())));
            threadIds.insert(static_cast<std::int32_t>(platform::currentThreadId()));
            randomNumbers.insert(platform::nextRandom());
        }
        m_mayLeave.wait();
        m_left.signal();
    }

    Mutex m_mutex;
    Semaphore m_mayLeave{0};
    Semaphore m_left{0};
};

namespace
{

TEST(ThreadWrapper, ThreadsAreNamedNumberedAndLoggedFromStartToEnd)
{
    static CapturingClient client;
    static WaitingWorker worker;
    Logger& logger = Logger::instance();
    for (int i = 0; i < 3; ++i)
    {
        worker.open();
    }
    worker.waitUntilRunning();
    worker.waitUntilRunning(); // at once: the counts agree
    worker.leave(3);
    while (client.messages().size() < 6)
    {
        platform::sleepMs(1);
    }
    ASSERT_EQ(3U, worker.threadIds.size());
    EXPECT_EQ(3U, worker.randomNumbers.size());
    for (const std::int32_t id : worker.threadIds)
    {
        EXPECT_EQ("", logger.getThreadName(id));
    }
    std::multiset<std::string> expected;
    for (const char* const number : {"1", "2", "3"})
    {
        const std::string end = std::string("ing ThreadWrapper of type class WaitingWorker internalId=") + number + " ";
        expected.insert("Info,NON,ThreadWrapper,threadCallback,Start" + end);
        expected.insert("Info,NON,ThreadWrapper,threadCallback,End" + end);
    }
    const std::vector<std::string> logged = client.messages();
    EXPECT_EQ(expected, std::multiset<std::string>(logged.begin(), logged.end()));
}

TEST(ThreadWrapper, AThousandThreadsInARowLeaveNothingBehind)
{
    const auto openDescriptors = [] {
        std::error_code error;
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd", error), {});
    };
    static WaitingWorker worker;
    const auto runOnce = [] {
        worker.open();
        worker.waitUntilRunning();
        worker.leave(1);
    };
    runOnce();
    const auto before = openDescriptors();
    for (int i = 0; i < 1'000; ++i)
    {
        runOnce();
    }
    EXPECT_EQ(before, openDescriptors());
}

TEST(ThreadWrapper, AThreadThatCannotBeStartedEndsTheProcess)
{
    static CapturingClient client;
    const ScopedProcessEnd ending;
    const ScopedReplacement refusing(
        platform::threadCalls.startThread, +[](platform::ThreadProcedure, void*, platform::ThreadPriority) {
            return platform::ErrorNumber::NotEnoughMemory;
        });
    EXPECT_THROW(WaitingWorker().open(), ProcessEnded);
    EXPECT_EQ(0U, client.messages().at(0).find("Error,NON,ThreadWrapper,open,Assertion (h != NULL) failed "
                                               "datapath/common/infra/windows/ThreadWrapper.cpp "));
}

} // namespace
