// Semaphores, triggers and mutexes between threads.

#include "datapath/common/infra/Semaphore.h"
#include "datapath/common/infra/Trigger.h"
#include "datapath/common/infra/UnownedMutex.h"
#include "tests/support/Support.h"

#include <array>
#include <chrono>
#include <memory>
#include <new>
#include <thread>

#include <gtest/gtest.h>

namespace
{

TEST(Semaphore, CountsSignalsAndWaitsNoLongerThanAsked)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr std::array<std::size_t, 1> PLACES = {0};
#else
    constexpr std::array<std::size_t, 2> PLACES = {0, 1}; // at an odd address Linux refuses to wait
#endif
    for (const std::size_t place : PLACES)
    {
        alignas(64) std::array<std::byte, 64> storage; // a cache line: accesses stay atomic
        Semaphore& semaphore = *new (&storage.at(place)) Semaphore(1);
        EXPECT_TRUE(semaphore.waitFor(0));
        EXPECT_FALSE(semaphore.waitFor(0));
        const auto start = std::chrono::steady_clock::now();
        const std::uint64_t cycles = platform::currentThreadCycles();
        EXPECT_FALSE(semaphore.waitFor(30));
        EXPECT_GT(15'000'000U, platform::currentThreadCycles() - cycles); // ns on Linux: it rested
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
        semaphore.signal();
        semaphore.signal();
        EXPECT_TRUE(semaphore.waitFor(0));
        semaphore.wait();
        EXPECT_FALSE(semaphore.waitFor(0));
    }
}

TEST(Semaphore, EachSignalLetsOneWaiterPass)
{
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 5'000;
    Semaphore semaphore(0);
    std::atomic<int> passed = 0;
    runInThreads(2 * THREADS, [&](int index) {
        repeat(ROUNDS, [&] {
            index < THREADS  ? semaphore.signal()
            : index % 2 == 0 ? (semaphore.wait(), void(++passed))
                             : void(passed += semaphore.waitFor(60'000) ? 1 : 0);
        });
    });
    EXPECT_EQ(THREADS * ROUNDS, passed);
    EXPECT_FALSE(semaphore.waitFor(0));
}

TEST(Mutex, LetsOneThreadInAtATimeAndWakesWhoeverSleeps)
{
    constexpr int ROUNDS = 2'000;
    Mutex mutex;
    int inside = 0;
    int passed = 0;
    runInThreads(4, [&](int /*index*/) {
        for (int i = 0; i < ROUNDS; ++i)
        {
            const MutexGuard guard(mutex);
            EXPECT_EQ(1, ++inside);
            if (++passed % 100 == 0)
            {
                platform::sleepMs(1); // the others fall asleep
            }
            --inside;
        }
    });
    EXPECT_EQ(4 * ROUNDS, passed);
}

TEST(UnownedMutex, OneThreadUnlocksWhatAnotherLockedAndWhoeverPassesMayDestroyIt)
{
    repeat(2'000, [] {
        auto mutex = std::make_unique<UnownedMutex>();
        UnownedMutex* const locked = mutex.get();
        locked->lock();
        int guarded = 1;
        std::thread unlocking([&] { guarded = 2, locked->unlock(); });
        locked->lock();
        EXPECT_EQ(2, guarded);
        mutex.reset();
        unlocking.join();
    });
}

TEST(Trigger, LetsOneWaitPassForEachTurn)
{
    constexpr int ROUNDS = 5'000;
    Trigger ping;
    Trigger pong;
    int turns = 0; // handed over by the triggers
    std::thread other([&] { repeat(ROUNDS, [&] { ping.set(), pong.wait(); }); });
    repeat(ROUNDS, [&] { ping.wait(), ++turns, pong.set(); });
    other.join();
    EXPECT_EQ(ROUNDS, turns);

    ping.set();
    ping.set();
    ping.wait(); // takes both
    int both = 0;
    repeat(20, [&] {
        std::atomic<bool> isSet = false;
        std::thread setting([&] {
            platform::sleepMs(5); // the other one sleeps then
            isSet = true;
            ping.set(); // for the other one
            ping.set(); // for the next wait
        });
        ping.wait();
        EXPECT_TRUE(isSet);
        setting.join();
        both += ping.waitFor(0) ? 1 : 0;
    });
    EXPECT_LT(10, both); // it was not always asleep in time
}

} // namespace
