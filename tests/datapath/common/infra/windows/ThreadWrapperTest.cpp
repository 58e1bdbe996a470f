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

/// Its threads stay in run until leave is called.
class WaitingWorker : public ThreadWrapper
{
public:
    void leave(int threads)
    {
        repeat(threads, [&] { m_mayLeave.signal(); });
        repeat(threads, [&] { m_left.wait(); });
    }
    Mutex mutex;
    std::map<std::int32_t, std::string> names; // the key is the thread's id
    std::set<std::uint32_t> randomNumbers;

private:
    void run() override
    {
        {
            const MutexGuard guard(mutex);
            const auto id = static_cast<std::int32_t>(platform::currentThreadId());
            names[id] = Logger::instance().getThreadName(id);
            randomNumbers.insert(platform::nextRandom());
        }
        m_mayLeave.wait();
        m_left.signal();
    }

    Semaphore m_mayLeave{0};
    Semaphore m_left{0};
};

namespace
{

TEST(ThreadWrapper, ThreadsAreNamedNumberedAndLoggedFromStartToEnd)
{
    // Never destroyed, because the library's own threads use it to the end; volatile, so that leak checkers see it.
    [[maybe_unused]] static ScopedReplacement* volatile utc =
        new ScopedReplacement(platform::timeCalls.utcNow, [] { return std::int64_t{1'709'622'489'000}; });
    waitForOwnThreads(); // numbers 1 and 2
    const CapturingClient client;
    Semaphore mayPass(0);
    Semaphore hasPassed(0);
    // Holds each worker at its first line, before it has registered.
    const HookedClient gate("Starting ThreadWrapper of type class WaitingWorker",
                            [&](const std::string&) { mayPass.wait(), hasPassed.signal(); });
    static WaitingWorker worker;
    std::atomic<bool> areRunning = false;
    worker.open();
    std::thread early([&] { worker.waitUntilRunning(), areRunning = true; });
    repeat(2, [] { worker.open(); });
    repeat(2, [&] { mayPass.signal(), hasPassed.wait(); });
    EXPECT_FALSE(areRunning);
    mayPass.signal();
    early.join();
    worker.waitUntilRunning(); // does not wait
    worker.leave(3);
    waitUntil([&] { return client.count("~Ending ThreadWrapper of type class WaitingWorker~") == 3; });
    EXPECT_EQ(6, client.count("~WaitingWorker~"));
    for (const std::string line : {"Starting#3", "Starting#4", "Starting#5", "Ending#3", "Ending#4", "Ending#5"})
    {
        EXPECT_EQ(1, client.count("Info,NON,ThreadWrapper,threadCallback," + line.substr(0, line.find('#')) +
                                  " ThreadWrapper of type class WaitingWorker internalId=" + line.back() + " "));
    }
    EXPECT_TRUE(worker.names.size() == 3 && worker.randomNumbers.size() == 3);
    for (const auto& [id, name] : worker.names)
    {
        EXPECT_TRUE(name == "class WaitingWorker" && Logger::instance().getThreadName(id).empty());
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
