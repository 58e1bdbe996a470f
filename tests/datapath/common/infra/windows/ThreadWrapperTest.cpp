#include "datapath/common/infra/windows/ThreadWrapper.h"

#include "datapath/common/infra/Semaphore.h"
#include "platform/Random.h"
#include "platform/Threads.h"
#include "platform/Time.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <set>
#include <thread>

#include <gtest/gtest.h>

/// Its threads stay until they are let go.
class WaitingWorker : public ThreadWrapper
{
public:
    void leave(int threads)
    {
        repeat(threads, [&] { m_mayLeave.signal(); });
        repeat(threads, [&] { m_left.wait(); });
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
    // Stays, because the library's own threads use it to the end; volatile, so that it counts as reachable.
    [[maybe_unused]] static ScopedReplacement* volatile utc =
        new ScopedReplacement(platform::timeCalls.utcNow, [] { return platform::UtcTime{2024, 3, 5, 7, 8, 9, 0}; });
    waitForOwnThreads(); // numbers 1 and 2
    const CapturingClient client;
    Semaphore hasArrived(0);
    Semaphore mayPass(0);
    Semaphore hasPassed(0);
    // Holds each worker at the line that it starts with.
    const HookedClient gate("Starting ThreadWrapper of type class WaitingWorker", [&](const std::string&) {
        hasArrived.signal();
        mayPass.wait();
        hasPassed.signal();
    });
    static WaitingWorker worker;
    Logger& logger = Logger::instance();
    std::atomic<bool> areRunning = false;
    worker.open();
    std::thread early([&] { worker.waitUntilRunning(), areRunning = true; });
    repeat(2, [] { worker.open(); });
    // Each thread is held at its first line, before it has registered.
    repeat(3, [&] { hasArrived.wait(); });
    repeat(2, [&] { mayPass.signal(); });
    repeat(2, [&] { hasPassed.wait(); });
    EXPECT_FALSE(areRunning);
    mayPass.signal();
    early.join();
    worker.waitUntilRunning(); // at once: the counts agree
    worker.leave(3);
    waitUntil([&] { return client.count("~Ending ThreadWrapper of type class WaitingWorker~") == 3; });
    ASSERT_EQ(3U, worker.threadIds.size());
    EXPECT_EQ(3U, worker.randomNumbers.size());
    for (const std::int32_t id : worker.threadIds)
    {
        EXPECT_EQ("", logger.getThreadName(id));
    }
    EXPECT_EQ(6, client.count("~WaitingWorker~"));
    for (const std::string event : {"Starting", "Ending"})
    {
        for (const std::string number : {"3", "4", "5"})
        {
            EXPECT_EQ(1, client.count("Info,NON,ThreadWrapper,threadCallback," + event +
                                      " ThreadWrapper of type class WaitingWorker internalId=" + number + " "));
        }
    }
}

TEST(ThreadWrapper, AThousandThreadsInARowLeaveNothingBehind)
{
    static WaitingWorker worker;
    const auto startAndLeave = [] { worker.open(), worker.waitUntilRunning(), worker.leave(1); };
    const auto mappings = [] { return std::ranges::count(ScratchFolder::read("/proc/self/maps"), '\n'); }; // Linux
    repeat(20, startAndLeave);
    const int handles = openHandles();
    const auto mappingsBefore = mappings();
    repeat(1'000, startAndLeave);
    EXPECT_LE(openHandles(), handles + 5);       // the last thread may still be leaving
    EXPECT_LE(mappings(), mappingsBefore + 200); // the stacks of 1,000 threads would be 2,000
}

TEST(ThreadWrapper, AThreadThatCannotBeStartedEndsTheProcess)
{
    const CapturingClient client;
    const ScopedProcessEnd ending;
    const ScopedReplacement refusing(
        platform::threadCalls.startThread, +[](platform::ThreadProcedure, void*, platform::ThreadPriority) {
            return platform::ErrorNumber::NotEnoughMemory;
        });
    EXPECT_THROW(WaitingWorker().open(), ProcessEnded);
    EXPECT_EQ(1, client.count("Error,NON,ThreadWrapper,open,Assertion (h != NULL) failed ~ThreadWrapper.cpp #"));
}

} // namespace
