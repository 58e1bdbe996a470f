// The active object under many schedules.

#include "datapath/common/infra/ActiveObject.h"
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

/// What became of the actions; one thread runs at a time.
struct Counts
{
    int executing = 0;
    int executed = 0;
    int destroyed = 0;
    Semaphore destructions{0};
};

struct Counted : ActiveObject::Action
{
    explicit Counted(Counts& owner) : counts(owner) {}
    ~Counted() override { ++counts.destroyed, counts.destructions.signal(); }
    void execute() override { ++counts.executing, platform::relax(), --counts.executing, ++counts.executed; }

    Counts& counts;
};

/// Two that wait for each other: if one worker slept meanwhile, the other one would wait for ever.
struct Pair : Counts
{
    std::array<Semaphore, 2> begun{Semaphore(0), Semaphore(0)};
};

struct Partner : Counted
{
    Partner(Pair& owner, std::size_t index) : Counted(owner), pair(owner), own(index) {}
    void execute() override { pair.begun.at(own).signal(), pair.begun.at(1 - own).wait(), ++counts.executed; }

    Pair& pair;
    const std::size_t own;
};

template <class T, class... Args> T* make(Args&&... args)
{
    return GuardedMemory::create<T>({"Counted", SourcePlace::here()}, std::forward<Args>(args)...);
}

/// The workers may look for work, fall asleep or sleep when the two arrive.
void keepBusy(ActiveObject& object)
{
    Pair pair;
    object.enqueue(make<Counted>(pair));
    runTogether({{"one", [&] { object.enqueue(make<Partner>(pair, 0U)); }},
                 {"two", [&] { object.enqueue(make<Partner>(pair, 1U)); }}});
    repeat(3, [&] { pair.destructions.wait(); });
    check(pair.executed == 3 && pair.destroyed == 3, "each is executed and destroyed once");
}

struct ActiveObjectSchedules : testing::Test
{
    ActiveObjectSchedules() { waitForOwnThreads(); }
};

TEST_F(ActiveObjectSchedules, NoWorkerSleepsWhileThereIsWork)
{
    auto& object = *new Disk(2); // its workers sleep when a schedule begins
    exploreBothWays([&] { keepBusy(object); });
}

TEST_F(ActiveObjectSchedules, NoWorkerSleepsWhileThereIsWorkFromTheStartOn)
{
    exploreBothWays([] {
        Disk object(2);
        keepBusy(object);
    });
}

TEST_F(ActiveObjectSchedules, WhatComesWhileTheOnlyWorkerFallsAsleepWakesIt)
{
    auto& object = *new Disk(1);
    exploreBothWays([&] {
        Counts counts;
        repeat(2, [&] {
            object.enqueue(make<Counted>(counts));
            counts.destructions.wait();
        });
    });
}

struct Second : Counted
{
    using Counted::Counted;
    void execute() override { platform::sleepMs(1'000); }
};

TEST_F(ActiveObjectSchedules, AWorkerWhoseWaitHasTimedOutStillTakesWork)
{
    forceVerbose = true; // only then the waits have a limit, of 5 s
    static int numTold;
    // After a failure its threads may stand in it for ever, so it stays.
    new HookedClient("wait timed out", [](const std::string&) { ++numTold; });
    exploreBothWays([] {
        numTold = 0;
        Pair pair;
        Disk object(2);
        object.enqueue(make<Second>(pair)); // whoever executes it falls asleep a second after the other one
        platform::sleepMs(5'500);           // of which only the other one has timed out then
        const std::int64_t start = now();
        const auto enqueue = [&] {
            object.enqueue(make<Partner>(pair, 0U));
            object.enqueue(make<Partner>(pair, 1U));
        };
        enqueue();
        repeat(3, [&] { pair.destructions.wait(); });
        check(now() < start + 1'000'000, "nobody sleeps while there is work");
        check(numTold == 0, "nothing is told of a wait without work");
        runTogether({{"clock", [] { advance(5'000'000'000); }}, {"producer", enqueue}});
        repeat(2, [&] { pair.destructions.wait(); });
        check(pair.executed == 4, "each is executed once");
    });
}

TEST_F(ActiveObjectSchedules, TheShutdownBeginsWhenAllWorkersHaveRegistered)
{
    static Counts* counts;
    static int numStarting;
    // Stays, as above.
    new HookedClient("Starting ThreadWrapper of type Disk", [](const std::string&) {
        ++numStarting == 2 ? counts->destructions.wait() : void(); // until the other worker has executed the action
    });
    exploreBothWays([] {
        Counts own;
        counts = &own;
        numStarting = 0;
        Disk object(2);
        object.enqueue(make<Counted>(own));
    });
}

auto makeMonitor()
{
    return GuardedPtr<RateMonitor>(
        GuardedMemory::create<RateMonitor>({"RateMonitor", SourcePlace::here()}, "rate", RateMonitor::Settings()),
        {SourcePlace::here()});
}

/// Enqueues another one.
struct Parent : Counted
{
    Parent(Counts& owner, Counts& ofChildren, ActiveObject& itsObject)
        : Counted(owner), children(ofChildren), object(itsObject)
    {
    }
    void execute() override { Counted::execute(), object.enqueue(make<Counted>(children)); }

    Counts& children;
    ActiveObject& object;
};

/// A monitor ends the process when it is destroyed while a task has not ended.
void endWhileActionsArrive(bool isMonitored)
{
    Counts counts;
    Counts children;
    std::array<Counted*, 2> actions{};
    {
        Disk object(1);
        actions = {make<Parent>(counts, children, object), make<Counted>(counts)};
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
        GuardedMemory::destroy(actions.at(left), SourcePlace::here()); // came after the drain
    }
    check(counts.destroyed == 2, "no other is destroyed");
}

TEST_F(ActiveObjectSchedules, WhatCameBeforeTheDrainIsDestroyedOnceAndTheRestIsLeftAlone)
{
    exploreBothWays([] { endWhileActionsArrive(false); });
}

TEST_F(ActiveObjectSchedules, NoTaskOfAMonitorOutlivesTheDrain)
{
    exploreBothWays([] { endWhileActionsArrive(true); });
}

TEST_F(ActiveObjectSchedules, AMonitorComesAndGoesWhileActionsArrive)
{
    auto& object = *new Disk(1);
    exploreBothWays([&] {
        Counts counts;
        runTogether({{"watcher", [&] { object.attachRateMonitor(makeMonitor()); }},
                     {"producer", [&] { repeat(2, [&] { object.enqueue(make<Counted>(counts)); }); }}});
        repeat(2, [&] { counts.destructions.wait(); });
        object.attachRateMonitor(nullptr);
        check(counts.executed == 2, "each is executed once");
    });
}

TEST_F(ActiveObjectSchedules, TheCountOfWhatIsQueuedWasTrueDuringTheCall)
{
    exploreBothWays([] {
        platform::Atomic<std::uint64_t> numArrived = 0;
        PriorityQueue<int> queue(2, "Items", false, &numArrived);
        std::uint64_t count = 0;
        std::uint64_t lowest = 0; // since the call began
        std::uint64_t highest = 0;
        const auto change = [&](int by) {
            count += static_cast<std::uint64_t>(by);
            lowest = std::min(lowest, count), highest = std::max(highest, count);
        };
        runTogether({{"owner",
                      [&] {
                          int item = 0;
                          std::uint32_t priority = 0;
                          repeat(2, [&] { ++numArrived, change(1); });
                          queue.enqueue(1, 0), queue.enqueue(2, 1);
                          check(queue.dequeue(item, priority) && item == 2 && priority == 1, "the highest comes first");
                          change(-1);
                          ++numArrived, change(1);
                          queue.enqueue(3, 0);
                          check(queue.dequeue(item, priority) && item == 1, "then the oldest");
                          change(-1);
                      }},
                     {"reader", [&] {
                          lowest = highest = count;
                          const std::uint64_t seen = queue.itemCount();
                          check(lowest <= seen && seen <= highest, "it was so");
                      }}});
    });
}

} // namespace
