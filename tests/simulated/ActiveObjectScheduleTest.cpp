// The active object under many schedules.

#include "datapath/common/infra/ActiveObject.h"
#include "platform/Spin.h"
#include "platform/Threads.h"
#include "tests/simulated/Scenarios.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <array>

namespace
{

platform::Atomic<bool> forceVerbose = false;

/// Names its workers for reports.
struct Disk : ActiveObject
{
    explicit Disk(int workers) : ActiveObject("Disk", &forceVerbose)
    {
        repeat(workers, [this] { open(); });
    }
    ~Disk() override { terminateAllThreads(); }
    void onThreadStart(std::uint32_t threadIndex) override { nameThread("worker " + std::to_string(threadIndex)); }
};

/// What became of the actions. Not atomic, because only one thread runs at a time.
struct Counts
{
    int executing = 0;
    int executed = 0;
    int destroyed = 0;
    Semaphore destructions{0};
    std::array<Semaphore, 2> begun{Semaphore(0), Semaphore(0)}; // signalled by partners
};

/// Does some work, and counts its execution and its destruction.
struct Counted : ActiveObject::Action
{
    explicit Counted(
        Counts& owner, std::function<void()> content = [] { platform::relax(); })
        : counts(owner), work(std::move(content))
    {
    }
    ~Counted() override { ++counts.destroyed, counts.destructions.signal(); }
    void execute() override { ++counts.executing, work(), --counts.executing, ++counts.executed; }

    Counts& counts;
    const std::function<void()> work;
};

Counted* make(
    Counts& counts, const std::function<void()>& work = [] { platform::relax(); })
{
    return GuardedMemory::create<Counted>({"Counted", SourcePlace::here()}, counts, work);
}

/// Makes one of two actions that wait for each other: if only one worker ran, it would wait for ever.
Counted* makePartner(Counts& counts, std::size_t own)
{
    return make(counts, [&counts, own] { counts.begun.at(own).signal(), counts.begun.at(1 - own).wait(); });
}

auto makeMonitor()
{
    return GuardedPtr<RateMonitor>(
        GuardedMemory::create<RateMonitor>({"RateMonitor", SourcePlace::here()}, "rate", RateMonitor::Settings()),
        {SourcePlace::here()});
}

/// The partners may arrive while the workers look for work, fall asleep or sleep.
void keepBusy(ActiveObject& object)
{
    Counts counts;
    object.enqueue(make(counts));
    runTogether({{"one", [&] { object.enqueue(makePartner(counts, 0)); }},
                 {"two", [&] { object.enqueue(makePartner(counts, 1)); }}});
    repeat(3, [&] { counts.destructions.wait(); });
    check(counts.executed == 3 && counts.destroyed == 3, "each is executed and destroyed once");
}

/// A monitor ends the process when it is destroyed while a task has not ended.
void endWhileActionsArrive(bool isMonitored)
{
    Counts counts;
    Counts children;
    std::array<Counted*, 2> actions{};
    {
        Disk object(1);
        actions = {make(counts, [&] { object.enqueue(make(children)); }), make(counts)};
        object.attachRateMonitor(isMonitored ? makeMonitor() : nullptr);
        bool isEnding = false;
        int numBefore = 0;
        const auto produce = [&] {
            for (Counted* const action : actions)
            {
                object.enqueue(action);
                numBefore += isEnding ? 0 : 1;
            }
        };
        const auto end = [&] {
            isEnding = true;
            object.terminateAllThreads();
            check(counts.executing == 0 && counts.executed <= counts.destroyed, "nothing runs any more");
        };
        runTogether({{"producer", produce}, {"owner", end}});
        check(numBefore <= counts.destroyed && children.destroyed == std::min(counts.executed, 1),
              "what came before is destroyed");
        check(object.getIdleEstimate() == 2, "nothing is queued any more");
    }
    for (auto left = static_cast<std::size_t>(counts.destroyed); left < actions.size(); ++left)
    {
        GuardedMemory::destroy(actions.at(left), SourcePlace::here()); // it came after the drain
    }
    check(counts.destroyed == 2, "no other is destroyed");
}

struct ActiveObjectSchedules : testing::Test
{
    ActiveObjectSchedules() { waitForOwnThreads(); }
};

TEST_F(ActiveObjectSchedules, NoWorkerSleepsWhileThereIsWork)
{
    auto& object = *new Disk(2); // its workers sleep when a schedule begins
    exploreBothWays([&] { keepBusy(object); });
    exploreBothWays([] {
        Disk starting(2);
        keepBusy(starting);
    });
    auto& single = *new Disk(1);
    exploreBothWays([&] {
        Counts counts;
        repeat(2, [&] { single.enqueue(make(counts)), counts.destructions.wait(); });
    });
}

TEST_F(ActiveObjectSchedules, AnObjectMayGoWhenItsLastActionHasRunWhileTheProducerIsStillInEnqueue)
{
    exploreBothWays([] {
        Counts counts;
        Semaphore executed(0);
        auto object = std::make_unique<Disk>(1);
        runTogether({{"producer", [&] { object->enqueue(make(counts, [&] { executed.signal(); })); }},
                     {"owner", [&] { executed.wait(), object.reset(); }}});
    });
}

TEST_F(ActiveObjectSchedules, AWorkerWhoseWaitHasTimedOutStillTakesWork)
{
    forceVerbose = true; // so that the waits have a limit, which is 5 s
    static int numTold;
    // Never destroyed: threads of a failed schedule may be inside it for ever.
    new HookedClient("wait timed out", [](const std::string&) { ++numTold; });
    exploreBothWays([] {
        numTold = 0;
        Counts counts;
        Disk object(2);
        object.enqueue(make(counts, [] { platform::sleepMs(1'000); })); // its worker falls asleep a second later
        platform::sleepMs(5'500);                                       // only the other worker's wait has timed out
        const std::int64_t start = now();
        const auto enqueue = [&] { object.enqueue(makePartner(counts, 0)), object.enqueue(makePartner(counts, 1)); };
        enqueue();
        repeat(3, [&] { counts.destructions.wait(); });
        check(now() < start + 1'000'000, "nobody sleeps while there is work");
        check(numTold == 0, "nothing is told of a wait without work");
        runTogether({{"clock", [] { advance(5'000'000'000); }}, {"producer", enqueue}});
        repeat(2, [&] { counts.destructions.wait(); });
        check(counts.executed == 5, "each is executed once");
    });
}

TEST_F(ActiveObjectSchedules, TheShutdownBeginsWhenAllWorkersHaveRegistered)
{
    static Counts* counts;
    static int numStarting;
    // Never destroyed, as above.
    new HookedClient("Starting ThreadWrapper of type Disk", [](const std::string&) {
        ++numStarting == 2 ? counts->destructions.wait() : void(); // until the other worker has executed the action
    });
    exploreBothWays([] {
        Counts own;
        counts = &own;
        numStarting = 0;
        Disk object(2);
        object.enqueue(make(own));
    });
}

TEST_F(ActiveObjectSchedules, WhatCameBeforeTheDrainIsDestroyedOnceAndTheRestIsLeftAlone)
{
    for (const bool isMonitored : {false, true})
    {
        exploreBothWays([=] { endWhileActionsArrive(isMonitored); });
    }
}

TEST_F(ActiveObjectSchedules, AMonitorComesAndGoesWhileActionsArrive)
{
    auto& object = *new Disk(1);
    exploreBothWays([&] {
        Counts counts;
        runTogether({{"watcher", [&] { object.attachRateMonitor(makeMonitor()); }},
                     {"producer", [&] { repeat(2, [&] { object.enqueue(make(counts)); }); }}});
        repeat(2, [&] { counts.destructions.wait(); });
        object.attachRateMonitor(nullptr);
        check(counts.executed == 2, "each is executed once");
    });
}

TEST_F(ActiveObjectSchedules, TheCountOfWhatIsQueuedWasTrueDuringTheCall)
{
    exploreBothWays([] {
        platform::Atomic<std::uint64_t> numArrived = 0;
        PriorityQueue<int> queue(1, "Items", false, &numArrived);
        std::uint64_t count = 0;
        std::uint64_t lowest = 0; // since the call of itemCount began
        std::uint64_t highest = 0;
        const auto change = [&](int by) {
            count += static_cast<std::uint64_t>(by);
            lowest = std::min(lowest, count), highest = std::max(highest, count);
        };
        const auto arrive = [&] { ++numArrived, change(1), queue.enqueue(1, 0); };
        const auto leave = [&] { check(queue.dequeue().has_value(), "nothing is lost"), change(-1); };
        const auto read = [&] {
            lowest = highest = count;
            const std::uint64_t seen = queue.itemCount();
            check(lowest <= seen && seen <= highest, "it was so");
        };
        runTogether({{"owner", [&] { arrive(), arrive(), leave(), arrive(), leave(); }}, {"reader", read}});
    });
}

} // namespace
