// 10,000 timers wait, with intervals of up to 10 s; each round adds as many as expire in the 100 ms between two
// passes. The peers write the same log line for a new timer and, except asio, read the same clock as often.

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/windows/WindowsTimer.h"
#include "platform/Time.h"

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include <benchmark/benchmark.h>

#ifdef BENCH_HAS_ASIO
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#endif

namespace
{

using SteadyClock = std::chrono::steady_clock;

constexpr MethodText ADD_METHOD = MethodText::of("Timers::add");
constexpr std::uint32_t LONGEST_MS = 10'000;
constexpr std::uint32_t PASS_MS = 100;
constexpr int TIMERS_A_ROUND = 200; // 2 for each ms, and each waits for 5,000 ms on average

std::atomic<std::int64_t> passedTicks = 0;
bool (*realCounter)(std::int64_t& ticks) = nullptr;

/// The first one replaces the performance counter for good: it then adds the ticks that the benchmark has let pass to
/// the real reading. It is never put back, because the process-wide clock must not step back.
struct PassingTime
{
    PassingTime()
    {
        MemShield::setEnabled(false); // before the first block
        if (realCounter == nullptr)
        {
            realCounter = std::exchange(platform::timeCalls.performanceCounter.current, [](std::int64_t& ticks) {
                const bool isRead = realCounter(ticks);
                ticks += passedTicks.load(std::memory_order_relaxed);
                return isRead;
            });
        }
        std::int64_t ticksPerSecond = 0;
        static_cast<void>(platform::performanceFrequency(ticksPerSecond));
        m_ticksPerMs = ticksPerSecond / 1'000;
    }
    void pass() const { passedTicks += PASS_MS * m_ticksPerMs; }

    std::int64_t m_ticksPerMs;
};

void count(void* counter) { ++*static_cast<std::uint64_t*>(counter); }

struct Ours
{
    void add(void* context, std::uint32_t intervalMs) { timer->addTimer(count, context, intervalMs, true, 0); }
    void expire() { timer->activateTimers(); }
    void pass() const { time.pass(); }

    PassingTime time;
    std::unique_ptr<WindowsTimer> timer = std::make_unique<WindowsTimer>();
};

/// What a timer needs if no thread waits for it.
struct SmallRecord
{
    std::uint32_t periodMs;
    TimerCallback callback;
    void* context;
};

/// The same with a future that is set when a replaced timer is gone. Our timers make theirs only when it is asked for.
struct FullRecord : SmallRecord
{
    WindowsTimer::Completion completion;
};

template <class Record> struct Multimap
{
    void add(void* context, std::uint32_t intervalMs)
    {
        Record record;
        record.periodMs = 0;
        record.callback = count;
        record.context = context;
        const std::lock_guard guard(mutex);
        timers.emplace(clock.readMs() + intervalMs, std::move(record));
        LogItem(LoggerId::NON, LogLevel::Info, ADD_METHOD)
            << "added timer old=" << 0U << " new=" << ++lastHandle << std::endl;
    }

    void expire()
    {
        const std::int64_t nowMs = clock.readMs();
        for (;;)
        {
            std::unique_lock lock(mutex);
            if (timers.empty() || timers.begin()->first >= nowMs)
            {
                return;
            }
            auto timer = timers.extract(timers.begin());
            lock.unlock();
            const std::int64_t startMs = clock.readMs();
            timer.mapped().callback(timer.mapped().context);
            if (clock.readMs() - startMs > 2'000)
            {
                LogItem(LoggerId::NON, LogLevel::Error, ADD_METHOD) << "slow" << std::endl;
            }
            if (timer.mapped().periodMs != 0)
            {
                timer.key() = nowMs + timer.mapped().periodMs;
                lock.lock();
                timers.insert(std::move(timer));
            }
        }
    }

    void pass() const { time.pass(); }

    PassingTime time;
    Clock clock;
    std::mutex mutex;
    std::multimap<std::int64_t, Record> timers;
    std::uint32_t lastHandle = 0;
};

#ifdef BENCH_HAS_ASIO
/// Each timer is an object that its handler owns. The clock of asio cannot be replaced, so 10 us stand for a ms here.
struct Asio
{
    using Timer = boost::asio::steady_timer;

    void add(void* context, std::uint32_t intervalMs)
    {
        auto timer = std::make_unique<Timer>(io, std::chrono::microseconds(10) * intervalMs);
        Timer& started = *timer;
        started.async_wait(
            [context, owned = std::move(timer)](const boost::system::error_code& /*error*/) { count(context); });
        LogItem(LoggerId::NON, LogLevel::Info, ADD_METHOD)
            << "added timer old=" << 0U << " new=" << ++lastHandle << std::endl;
    }

    void expire() { io.poll(); }
    void pass() const { std::this_thread::sleep_for(std::chrono::microseconds(10) * PASS_MS); }

    boost::asio::io_context io;
    std::uint32_t lastHandle = 0;
};
#endif

/// Measures one half of each round: adding timers, or letting them expire.
template <class Timers, bool IS_EXPIRY> void rounds(benchmark::State& state)
{
    Timers timers;
    std::minstd_rand random;
    std::uniform_int_distribution<std::uint32_t> intervalMs(0, LONGEST_MS);
    std::uint64_t expired = 0;
    std::uint64_t counted = 0;
    for (int round = -static_cast<int>(2 * LONGEST_MS / PASS_MS); round < 0 || state.KeepRunning(); ++round)
    {
        const std::uint64_t before = expired;
        const auto start = SteadyClock::now();
        for (int i = 0; i < TIMERS_A_ROUND; ++i)
        {
            timers.add(&expired, intervalMs(random));
        }
        const auto added = SteadyClock::now();
        timers.pass();
        const auto passed = SteadyClock::now();
        timers.expire();
        const auto end = SteadyClock::now();
        if (round >= 0)
        {
            state.SetIterationTime(std::chrono::duration<double>(IS_EXPIRY ? end - passed : added - start).count());
            counted += IS_EXPIRY ? expired - before : TIMERS_A_ROUND;
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(counted));
    SystemHeapBytes::leaveShare();
}

void addTimer(benchmark::State& state) { rounds<Ours, false>(state); }
void expireTimer(benchmark::State& state) { rounds<Ours, true>(state); }
void peerAddMultimap(benchmark::State& state) { rounds<Multimap<FullRecord>, false>(state); }
void peerExpireMultimap(benchmark::State& state) { rounds<Multimap<FullRecord>, true>(state); }
void peerAddSmall(benchmark::State& state) { rounds<Multimap<SmallRecord>, false>(state); }
void peerExpireSmall(benchmark::State& state) { rounds<Multimap<SmallRecord>, true>(state); }

/// A pass over many timers of which none is due.
void idlePass(benchmark::State& state)
{
    MemShield::setEnabled(false);
    WindowsTimer timer;
    std::minstd_rand random;
    for (std::int64_t i = 0; i < state.range(0); ++i)
    {
        timer.addTimer(count, nullptr, 1'000'000'000U + static_cast<std::uint32_t>(random()), false, 0);
    }
    for (auto _ : state)
    {
        timer.activateTimers();
    }
}

BENCHMARK(addTimer)->UseManualTime();
BENCHMARK(peerAddMultimap)->UseManualTime();
BENCHMARK(expireTimer)->UseManualTime();
BENCHMARK(peerExpireMultimap)->UseManualTime();
BENCHMARK(peerAddSmall)->UseManualTime();
BENCHMARK(peerExpireSmall)->UseManualTime();
BENCHMARK(idlePass)->Arg(0)->Arg(100'000);

#ifdef BENCH_HAS_ASIO
void peerAddAsio(benchmark::State& state) { rounds<Asio, false>(state); }
void peerExpireAsio(benchmark::State& state) { rounds<Asio, true>(state); }

BENCHMARK(peerAddAsio)->UseManualTime()->Iterations(500);
BENCHMARK(peerExpireAsio)->UseManualTime()->Iterations(500);
#endif

} // namespace
