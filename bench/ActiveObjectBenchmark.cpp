// Active objects beside boost::asio::thread_pool, a pool of the standard library's parts and a oneTBB arena;
// futures beside std::future. Prints one JSON object.

#include "Medians.h"
#include "datapath/common/infra/ActiveObject.h"
#include "datapath/common/infra/Future.h"
#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/base/RcStatus.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <iostream>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <semaphore>
#include <thread>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/task_arena.h>

namespace
{

using namespace std::chrono_literals;

constexpr int ACTIONS = 1'000'000;
constexpr int WAKES = 1'500;
constexpr int ROUNDS = 20'000;
constexpr int SINGLES = 300'000;
constexpr std::size_t SLEEPS = 2'000;
// Sleeps that are not counted: after a busy phase an idle processor halts at once for a while, which delays wake-ups.
constexpr std::size_t WARM_UP = 300;
constexpr auto UNTIL_ASLEEP = 1ms; // after this time idle workers sleep

std::binary_semaphore turn{0}; // used by one measurement at a time
std::atomic<int> sink = 0;     // keeps the compiler from removing the reads of futures

void recordSamples(const std::string& name, std::vector<double> samples)
{
    samples.erase(samples.begin(), samples.begin() + WARM_UP);
    std::ranges::sort(samples);
    results[name].push_back(samples[samples.size() / 2]);
    results[name + "/p99"].push_back(samples[samples.size() / 100 * 99]);
}

// The pools have a given number of workers; any thread may post work.

const std::atomic<bool> isVerbose = false;

class Ours
{
public:
    explicit Ours(int workers)
    {
        for (int i = 0; i < workers; ++i)
        {
            m_pool.open();
        }
        m_pool.waitUntilRunning();
    }

    template <class Work> void post(const Work& work)
    {
        m_pool.enqueue(GuardedMemory::create<WorkAction<Work>>({"WorkAction", SourcePlace::here()}, work));
    }

private:
    template <class Work> struct WorkAction final : ActiveObject::Action
    {
        explicit WorkAction(const Work& work) : m_work(work) {}
        void execute() override { m_work(); }

        Work m_work;
    };

    ActiveObject m_pool{"Benchmark", &isVerbose};
};

class Asio
{
public:
    explicit Asio(int workers) : m_pool(static_cast<std::size_t>(workers)) {}

    template <class Work> void post(const Work& work) { boost::asio::post(m_pool, work); }

private:
    boost::asio::thread_pool m_pool;
};

class Plain
{
public:
    explicit Plain(int workers)
    {
        for (int i = 0; i < workers; ++i)
        {
            m_workers.emplace_back([this] {
                for (auto work = waitForWork(); work; work = waitForWork())
                {
                    work();
                }
            });
        }
    }

    ~Plain()
    {
        std::ranges::for_each(m_workers, [this](auto&) { post({}); }); // empty work ends a worker
    }

    void post(std::function<void()> work)
    {
        {
            const std::lock_guard guard(m_mutex);
            m_queue.push_back(std::move(work));
        }
        m_wake.notify_one();
    }

private:
    std::function<void()> waitForWork()
    {
        std::unique_lock lock(m_mutex);
        m_wake.wait(lock, [this] { return !m_queue.empty(); });
        std::function<void()> work = std::move(m_queue.front());
        m_queue.pop_front();
        return work;
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_queue;
    std::vector<std::jthread> m_workers; // last: they use the others
};

class Tbb
{
public:
    explicit Tbb(int workers)
        : m_limit(tbb::global_control::max_allowed_parallelism, static_cast<std::size_t>(workers) + 1),
          m_arena(workers, 0) // no place is reserved for the threads that post
    {
    }

    ~Tbb()
    {
        m_arena.terminate();
        tbb::finalize(m_workers); // they would disturb the next measurement
    }

    template <class Work> void post(const Work& work) { m_arena.enqueue(work); }

private:
    tbb::task_scheduler_handle m_workers{tbb::attach{}};
    tbb::global_control m_limit; // counts the thread that posts, too
    tbb::task_arena m_arena;
};

/// Returns when each worker has run once and all of them sleep again.
template <class Pool> void awaitWorkers(Pool& pool, int workers)
{
    const auto present = std::make_shared<std::latch>(workers + 1);
    for (int i = 0; i < workers; ++i)
    {
        pool.post([present] { present->arrive_and_wait(); });
    }
    present->arrive_and_wait();
    std::this_thread::sleep_for(UNTIL_ASLEEP);
}

template <class Pool> void measureActions(const std::string& name, int workers, int producers)
{
    std::latch start(producers + 1);
    std::atomic<int> executed = 0;
    Pool pool(workers);
    std::vector<std::jthread> threads;
    for (int i = 0; i < producers; ++i)
    {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int action = 0; action < ACTIONS / producers; ++action)
            {
                pool.post([&executed] {
                    if (executed.fetch_add(1, std::memory_order_relaxed) == ACTIONS - 1)
                    {
                        turn.release();
                    }
                });
            }
        });
    }
    awaitWorkers(pool, workers);
    const auto begin = SteadyClock::now();
    start.arrive_and_wait();
    turn.acquire();
    results["active/" + std::to_string(workers) + "w/" + std::to_string(producers) + "p/" + name].push_back(
        nsBetween(begin, SteadyClock::now()) / ACTIONS);
}

/// Returns the time in ns from just before the call that posts to the first instruction of the work.
template <class Pool> double wakeUp(Pool& pool)
{
    std::this_thread::sleep_for(UNTIL_ASLEEP);
    SteadyClock::time_point woken;
    const auto begin = SteadyClock::now();
    pool.post([&woken] {
        woken = SteadyClock::now();
        turn.release();
    });
    turn.acquire();
    return nsBetween(begin, woken);
}

void measureWakeUps(int workers)
{
    Ours ours(workers);
    Asio asio(workers);
    awaitWorkers(ours, workers);
    awaitWorkers(asio, workers);
    std::vector<double> oursTimes;
    std::vector<double> asioTimes;
    for (int i = 0; i < WAKES / 2; ++i) // each comes after itself and after the other one
    {
        oursTimes.push_back(wakeUp(ours));
        asioTimes.push_back(wakeUp(asio));
        asioTimes.push_back(wakeUp(asio));
        oursTimes.push_back(wakeUp(ours));
    }
    const std::string name = "wake/" + std::to_string(workers) + "w/";
    recordSamples(name + "ours", std::move(oursTimes));
    recordSamples(name + "asio", std::move(asioTimes));
}

// Futures, which one thread sets and another one reads.

struct OurFuture
{
    void set() { m_future.set(RC_OK); }
    int get() { return m_future.get(); }

    FutureInternal::Future<RcStatus> m_future;
};

struct StdFuture
{
    void set() { m_promise.set_value(0); }
    int get() { return m_future.get(); }

    std::promise<int> m_promise;
    std::future<int> m_future = m_promise.get_future();
};

/// Measures round trips between two threads, each way with a future that was made before.
template <class Future> void measureHandover(const std::string& name)
{
    std::vector<Future> there(ROUNDS);
    std::vector<Future> back(ROUNDS);
    std::jthread other([&] {
        for (std::size_t i = 0; i < ROUNDS; ++i)
        {
            sink += there[i].get();
            back[i].set();
        }
    });
    std::this_thread::sleep_for(UNTIL_ASLEEP);
    const auto begin = SteadyClock::now();
    for (std::size_t i = 0; i < ROUNDS; ++i)
    {
        there[i].set();
        sink += back[i].get();
    }
    results["future/handover/" + name].push_back(nsBetween(begin, SteadyClock::now()) / ROUNDS);
}

template <class Future> void measureSingle(const std::string& name)
{
    const auto begin = SteadyClock::now();
    for (int i = 0; i < SINGLES; ++i)
    {
        Future future;
        future.set();
        sink += future.get();
    }
    results["future/single/" + name].push_back(nsBetween(begin, SteadyClock::now()) / SINGLES);
}

/// A thread that falls asleep in get again and again.
template <class Future> class Sleeper
{
public:
    /// Measures the time from just before set to the return of get.
    void wake(std::size_t i)
    {
        m_turn.acquire();
        std::this_thread::sleep_for(200us);
        m_begins[i] = SteadyClock::now();
        m_futures[i].set();
    }

    [[nodiscard]] std::vector<double> times()
    {
        m_thread.join();
        return std::move(m_times);
    }

private:
    void sleepAgainAndAgain()
    {
        for (std::size_t i = 0; i < SLEEPS; ++i)
        {
            m_turn.release();
            sink += m_futures[i].get();
            m_times[i] = nsBetween(m_begins[i], SteadyClock::now());
        }
    }

    std::binary_semaphore m_turn{0};
    std::vector<Future> m_futures = std::vector<Future>(SLEEPS);
    std::vector<SteadyClock::time_point> m_begins = std::vector<SteadyClock::time_point>(SLEEPS);
    std::vector<double> m_times = std::vector<double>(SLEEPS);
    std::thread m_thread{[this] { sleepAgainAndAgain(); }};
};

void measureAsleep()
{
    Sleeper<OurFuture> ours;
    Sleeper<StdFuture> theirs;
    for (std::size_t i = 0; i < SLEEPS; i += 2) // each comes after itself and after the other one
    {
        ours.wake(i);
        theirs.wake(i);
        theirs.wake(i + 1);
        ours.wake(i + 1);
    }
    recordSamples("future/asleep/ours", ours.times());
    recordSamples("future/asleep/std", theirs.times());
}

} // namespace

int main()
{
    MemShield::setEnabled(false);
    for (int repetition = 0; repetition < REPETITIONS; ++repetition)
    {
        for (const int workers : {1, 2})
        {
            for (const int producers : {1, 2})
            {
                measureActions<Ours>("ours", workers, producers);
                measureActions<Asio>("asio", workers, producers);
                measureActions<Plain>("plain", workers, producers);
                measureActions<Tbb>("tbb", workers, producers);
            }
            measureWakeUps(workers);
        }
        measureHandover<OurFuture>("ours");
        measureHandover<StdFuture>("std");
        measureSingle<OurFuture>("ours");
        measureSingle<StdFuture>("std");
        measureAsleep();
    }
    printMedians();
}
