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

/// Holds each worker at the line that it starts with.
struct Gate : LoggerClient
{
    Gate() { Logger::instance().registerClient(this, Logger::ALL_LEVELS); }
    void log(const std::string& line) override
    {
        if (line.find("Starting ThreadWrapper of type class WaitingWorker") != std::string::npos)
        {
            hasArrived.signal();
            mayPass.wait();
            hasPassed.signal();
        }
    }
    Semaphore hasArrived{0};
    Semaphore mayPass{0};
    Semaphore hasPassed{0};
};

TEST(ThreadWrapper, ThreadsAreNamedNumberedAndLoggedFromStartToEnd)
{
    // Stays, because the library's own threads use it to the end.
    [[maybe_unused]] static const auto& utc =
        *new ScopedReplacement(platform::timeCalls.utcNow, [] { return platform::UtcTime{2024, 3, 5, 7, 8, 9, 0}; });
    waitForOwnThreads();                 // numbers 1 and 2
    auto& client = *new CapturingClient; // stays registered, as the next one
    auto& gate = *new Gate;
    static WaitingWorker worker;
    Logger& logger = Logger::instance();
    std::atomic<bool> areRunning = false;
    std::thread early;
    for (int i = 0; i < 3; ++i)
    {
        worker.open();
        if (i == 0)
        {
            early = std::thread([&] {
                worker.waitUntilRunning();
                areRunning = true;
            });
        }
    }
    // Each thread is held at its first line, before it has registered.
    for (int i = 0; i < 3; ++i)
    {
        gate.hasArrived.wait();
    }
    gate.mayPass.signal();
    gate.mayPass.signal();
    gate.hasPassed.wait();
    gate.hasPassed.wait();
    EXPECT_FALSE(areRunning);
    gate.mayPass.signal();
    early.join();
    worker.waitUntilRunning(); // at once: the counts agree
    worker.leave(3);
    const auto logged = [&] {
        const std::vector<std::string> messages = client.messages();
        std::multiset<std::string> lines(messages.begin(), messages.end());
        std::erase_if(lines, [](const std::string& line) { return line.find("WaitingWorker") == std::string::npos; });
        return lines;
    };
    while (logged().size() < 6)
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
    for (const char* const number : {"3", "4", "5"})
    {
        const std::string end = std::string("ing ThreadWrapper of type class WaitingWorker internalId=") + number + " ";
        expected.insert("Info,NON,ThreadWrapper,threadCallback,Start" + end);
        expected.insert("Info,NON,ThreadWrapper,threadCallback,End" + end);
    }
    EXPECT_EQ(expected, logged());
}

TEST(ThreadWrapper, AThousandThreadsInARowLeaveNothingBehind)
{
    static WaitingWorker worker;
    const auto runInARow = [](int threads) {
        for (int i = 0; i < threads; ++i)
        {
            worker.open();
            worker.waitUntilRunning();
            worker.leave(1);
        }
    };
    const auto mappings = [] { return std::ranges::count(ScratchFolder::read("/proc/self/maps"), '\n'); }; // Linux
    runInARow(20);
    const int handles = openHandles();
    const auto mappingsBefore = mappings();
    runInARow(1'000);
    EXPECT_LE(openHandles(), handles + 5);       // the last thread may still be leaving
    EXPECT_LE(mappings(), mappingsBefore + 200); // the stacks of 1,000 threads would be 2,000
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
