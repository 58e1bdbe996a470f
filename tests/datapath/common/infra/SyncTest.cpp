// Semaphores, triggers and mutexes between threads.

#include "datapath/common/infra/Semaphore.h"
#include "datapath/common/infra/Trigger.h"
#include "datapath/common/infra/UnownedMutex.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

namespace
{

TEST(Semaphore, CountsSignalsAndWaitsNoLongerThanAsked)
{
    Semaphore semaphore(1);
    EXPECT_TRUE(semaphore.waitFor(0));
    EXPECT_FALSE(semaphore.waitFor(0));
    const auto start = std::chrono::steady_clock::now();
    const std::uint64_t cycles = platform::currentThreadCycles();
    EXPECT_FALSE(semaphore.waitFor(30));
    EXPECT_GT(15'000'000U, platform::currentThreadCycles() - cycles); // ns on Linux: the thread slept
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
    repeat(2, [&] { semaphore.signal(); });
    semaphore.wait();
    EXPECT_TRUE(semaphore.waitFor(0));
    EXPECT_FALSE(semaphore.waitFor(0));
}

TEST(Semaphore, EachSignalEndsOneWait)
{
    Semaphore semaphore(0);
    std::atomic<int> passed = 0;
    runInThreads(8, [&](int index) {
        for (int round = 0; round < 5'000; ++round)
        {
            index == 0 && round % 25 == 0 ? platform::sleepMs(1) : void(); // about as long as waitFor waits
            index < 4   ? semaphore.signal()
            : index < 6 ? semaphore.wait()
                        : waitUntil([&] { return semaphore.waitFor(1); });
            passed += index < 4 ? 0 : 1;
        }
    });
    EXPECT_EQ(4 * 5'000, passed);
    EXPECT_FALSE(semaphore.waitFor(0));
}

TEST(Mutex, LetsOneThreadInAtATimeAndWakesWhoeverSleeps)
{
    Mutex mutex;
    int inside = 0;
    int passed = 0;
    runInThreads(4, [&](int /*index*/) {
        repeat(2'000, [&] {
            const MutexGuard guard(mutex);
            EXPECT_EQ(1, ++inside);
            ++passed % 100 == 0 ? platform::sleepMs(1) : void(); // the others fall asleep
            --inside;
        });
    });
    EXPECT_EQ(4 * 2'000, passed);
}

TEST(UnownedMutex, OneThreadUnlocksWhatAnotherLockedAndWhoeverPassesMayDestroyIt)
{
    repeat(2'000, [] {
        auto mutex = std::make_unique<UnownedMutex>();
        mutex->lock();
        int guarded = 1;
        std::thread unlocking([&, locked = mutex.get()] { guarded = 2, locked->unlock(); });
        mutex->lock();
        EXPECT_EQ(2, guarded);
        mutex.reset();
        unlocking.join();
    });
}

TEST(Trigger, EachSetEndsOneWait)
{
    constexpr int ROUNDS = 5'000;
    Trigger ping;
    Trigger pong;
    int turns = 0; // the triggers let one thread at a time use it
    std::thread other([&] { repeat(ROUNDS, [&] { ping.set(), pong.wait(); }); });
    repeat(ROUNDS, [&] { ping.wait(), ++turns, pong.set(); });
    other.join();
    EXPECT_EQ(ROUNDS, turns);
    repeat(2, [&] { ping.set(); });
    ping.wait();                                                          // takes both
    for (bool isOneLeft = false; !isOneLeft; isOneLeft = ping.waitFor(0)) // again if the waiter fell asleep too late
    {
        EXPECT_FALSE(ping.waitFor(0));
        std::thread setting([&] {
            platform::sleepMs(5);
            repeat(2, [&] { ping.set(); }); // one for the waiter that sleeps, one for the next wait
        });
        ping.wait();
        setting.join();
    }
}

} // namespace
