// What an exploration finds, and the library's smallest parts under every schedule.

#include "datapath/common/infra/Semaphore.h"
#include "datapath/common/infra/Trigger.h"
#include "datapath/common/infra/base/Singleton.h"
#include "platform/Process.h"
#include "platform/Threads.h"
#include "tests/simulated/Scenarios.h"

#include <csignal>
#include <memory>
#include <stdexcept>

namespace
{

void expectFound(const std::string& failure, const Scenario& scenario, const ExploreOptions& options = {})
{
    const Exploration found = explore(scenario, options);
    EXPECT_EQ(failure, found.failure);
    EXPECT_EQ(failure, replay(found.schedule, scenario, options).failure);
}

void countWithoutLock()
{
    platform::Atomic<int> count = 0;
    const auto add = [&] { count.store(count.load() + 1); };
    runTogether({{"one", add}, {"other", add}});
    check(count == 2, "both are counted");
}

TEST(Schedule, FindsALostUpdateInOrderAndAtRandom)
{
    expectFound("not so: both are counted", countWithoutLock);
    expectFound("not so: both are counted", countWithoutLock, {.maxSchedules = 1'000, .seed = 7});
    EXPECT_EQ("", explore(countWithoutLock, {.preemptions = 0}).failure);
}

TEST(Schedule, FindsLocksThatAreTakenInTwoOrders)
{
    expectFound("deadlock: scenario waits for a semaphore, up waits for a mutex that down has, "
                "down waits for a mutex that up has",
                [] {
                    Mutex first;
                    Mutex second;
                    const auto lockBoth = [](Mutex& outer, Mutex& inner) {
                        const MutexGuard outerGuard(outer);
                        const MutexGuard innerGuard(inner);
                    };
                    runTogether({{"up", [&] { lockBoth(first, second); }}, {"down", [&] { lockBoth(second, first); }}});
                });
}

TEST(Schedule, FindsWhatIsDestroyedBeforeItsLastUse)
{
    expectFound("a semaphore is destroyed that a thread has or waits for", [] {
        Semaphore done(0);
        auto started = std::make_unique<Semaphore>(0);
        runTogether({{"waiter", [&] { started->wait(), done.signal(); }},
                     {"owner", [&] { started->signal(), started.reset(), done.wait(); }}});
    });
}

TEST(Schedule, ALoopThatWaitsForNothingUsesUpItsSteps)
{
    expectFound("not over after 100 switch points",
                [] {
                    const platform::Atomic<bool> isNever = false;
                    while (!isNever)
                    {
                    }
                },
                {.maxSteps = 100});
    expectFound("not over after 100 switch points",
                [] {
                    for (;; platform::sleepMs(1))
                    {
                    }
                },
                {.maxSteps = 100});
}

TEST(Schedule, NoticesAScenarioThatIsNotTheSameEachTime)
{
    static int numRuns = 0;
    const auto grow = [] {
        const platform::Atomic<int> shared = 0;
        const auto look = [&] { static_cast<void>(shared + shared); };
        runTogether(std::vector<NamedWork>(numRuns++ < 3 ? 3 : 2, {"one of them", look}));
    };
    EXPECT_EQ("the scenario is not the same in every schedule", explore(grow).failure);
}

TEST(Schedule, AWaitOf0MsEndsWhileOthersCanRun)
{
    expectFound("not so: it has ended late", [] {
        Trigger trigger;
        const auto tryOnce = [&] { check(trigger.waitFor(0), "it has ended late"); };
        runTogether({{"tries", tryOnce}, {"sets", [&] { trigger.set(); }}});
    });
}

TEST(Schedule, TheEndOfTheProcessAndAnExceptionAreFailures)
{
    expectFound("the process was to end while scenario waits for a semaphore", [] {
        runTogether({{"ender", [] { platform::endProcess(); }}});
    });
    expectFound("exception: thrown", [] { throw std::runtime_error("thrown"); });
    expectFound("an exception that is no std::exception", [] { throw 1; });
}

TEST(Schedule, ASignalThatEndsTheProcessIsToldWithItsSchedule)
{
    const auto crash = [] { runTogether({{"one", [] {}}, {"other", std::abort}}); };
    EXPECT_EXIT(explore(crash), testing::KilledBySignal(SIGABRT),
                "^schedule 1 in order: signal 6 ends .*\nto replay: \"\"\n$");
}

TEST(Schedule, ServicesRunForEverAndBeginTheirWaitsAfresh)
{
    static platform::Atomic<int> beats = 0;
    const auto beat = [](void* /*argument*/) {
        for (;; ++beats)
        {
            platform::sleepMs(1'000);
        }
    };
    ASSERT_EQ(platform::ErrorNumber::Success, platform::startThread(beat, nullptr));
    exploreBothWays([] {
        const int before = beats;
        platform::sleepMs(2'500);
        check(beats == before + 2, "two beats");
    });
    expectFound("deadlock: scenario waits for a semaphore", [] { Semaphore(0).wait(); });
}

TEST(Schedule, RefusesATextThatDoesNotFit)
{
    EXPECT_EQ("not a schedule: x", replay("1:2 x", countWithoutLock).failure);
    EXPECT_EQ("the schedule does not fit: thread 9 cannot go on at choice 0", replay("0:9", countWithoutLock).failure);
    EXPECT_EQ("the schedule does not fit: the scenario makes fewer choices",
              replay("99999:1", countWithoutLock).failure);
}

TEST(Schedule, TimeMovesToWhatIsWaitedForNext)
{
    exploreBothWays([] {
        const std::int64_t start = now();
        constexpr std::int64_t MS = 1'000'000;
        Trigger never;
        int order = 0;
        runTogether({{"day", [&] { platform::sleepMs(86'400'000), check(++order == 3, "last"); }},
                     {"second", [&] { check(!never.waitFor(1'000) && ++order == 2, "second"); }},
                     {"moved", [&] {
                          platform::sleepMs(10), check(++order == 1 && now() >= start + 10 * MS, "first");
                          advance(500 * MS);
                      }}});
        check(now() >= start + 86'400'000 * MS && now() < start + 86'401'000 * MS, "a day is over");
    });
}

TEST(Mutex, LetsOneThreadInAtATime)
{
    exploreBothWays([] {
        Mutex mutex;
        platform::Atomic<int> inside = 0;
        const auto visit = [&] {
            const MutexGuard guard(mutex);
            check(++inside == 1, "one is inside");
            --inside;
        };
        runTogether({{"one", visit}, {"two", visit}, {"three", visit}});
    });
}

TEST(Semaphore, EachSignalLetsOneWaitPass)
{
    exploreBothWays([] {
        Semaphore semaphore(1);
        int passed = 0;
        runTogether({{"signal", [&] { semaphore.signal(); }},
                     {"wait", [&] { semaphore.wait(), ++passed; }},
                     {"limited", [&] { passed += semaphore.waitFor(5) ? 1 : 0; }}});
        check(passed == 2 && !semaphore.waitFor(0), "as many waits as signals");
    });
}

TEST(Trigger, LetsEachOfTwoWaitsPassForASetOfItsOwn)
{
    exploreBothWays([] {
        Trigger ping;
        Trigger pong;
        int turns = 0; // not atomic, because the triggers order the accesses
        runTogether({{"ping", [&] { ++turns, ping.set(), pong.wait(), ping.set(); }},
                     {"pong", [&] { ping.wait(), check(++turns == 2, "two turns"), pong.set(), ping.wait(); }}});
    });
}

TEST(CreateOnce, ThreeThreadsGetOneObject)
{
    exploreBothWays([] {
        platform::Atomic<int*> published = nullptr;
        Mutex lock;
        const auto getLock = [&]() -> Mutex& { return lock; };
        platform::Atomic<int> numMade = 0;
        int object = 0;
        const auto get = [&] {
            const int& got = createOnce(published, getLock, [&] {
                ++numMade;
                object = 7;
                return &object;
            });
            check(got == 7, "the object is finished");
        };
        runTogether({{"one", get}, {"two", get}, {"three", get}});
        check(numMade == 1, "it is made once");
    });
}

} // namespace
