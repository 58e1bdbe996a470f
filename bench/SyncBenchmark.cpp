// Mutexes, semaphores, triggers and the clock, each beside a peer of the standard library.

#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/Semaphore.h"
#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/Trigger.h"

#include <chrono>
#include <semaphore>
#include <thread>

#include <benchmark/benchmark.h>

namespace
{

template <class Lockable> void lockAndUnlock(benchmark::State& state)
{
    Lockable mutex;
    for (auto _ : state)
    {
        mutex.lock();
        mutex.unlock();
    }
}

void mutex(benchmark::State& state) { lockAndUnlock<Mutex>(state); }

void peerMutex(benchmark::State& state) { lockAndUnlock<std::mutex>(state); }

/// Hands a turn to another thread and back. The arguments of set and wait are the direction, 0 or 1.
template <class Set, class Wait> void pingPong(benchmark::State& state, Set set, Wait wait)
{
    std::atomic<bool> isOver = false;
    std::thread other([&] {
        while (true)
        {
            wait(0);
            if (isOver)
            {
                return;
            }
            set(1);
        }
    });
    for (auto _ : state)
    {
        set(0);
        wait(1);
    }
    isOver = true;
    set(0);
    other.join();
}

void semaphore(benchmark::State& state)
{
    Semaphore semaphores[] = {Semaphore(0), Semaphore(0)};
    pingPong(
        state, [&](int i) { semaphores[i].signal(); }, [&](int i) { semaphores[i].wait(); });
}

void trigger(benchmark::State& state)
{
    Trigger triggers[2];
    pingPong(
        state, [&](int i) { triggers[i].set(); }, [&](int i) { triggers[i].wait(); });
}

void peerSemaphore(benchmark::State& state)
{
    std::binary_semaphore semaphores[] = {std::binary_semaphore(0), std::binary_semaphore(0)};
    pingPong(
        state, [&](int i) { semaphores[i].release(); }, [&](int i) { semaphores[i].acquire(); });
}

void timestampMs(benchmark::State& state)
{
    ITimer& timer = Timer::instance();
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(timer.getTimestampMs());
    }
}

void lastTimestampMs(benchmark::State& state)
{
    ITimer& timer = Timer::instance();
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(timer.getLastTimestampMs_Inaccurate(true));
    }
}

void peerSteadyClock(benchmark::State& state)
{
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(std::chrono::steady_clock::now());
    }
}

BENCHMARK(mutex);
BENCHMARK(peerMutex);
BENCHMARK(semaphore)->UseRealTime();
BENCHMARK(trigger)->UseRealTime();
BENCHMARK(peerSemaphore)->UseRealTime();
BENCHMARK(timestampMs)->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(lastTimestampMs)->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(peerSteadyClock)->Threads(1)->Threads(4)->UseRealTime();

} // namespace
