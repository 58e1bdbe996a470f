// The active object under many schedules.

#include "datapath/common/infra/ActiveObject.h"
#include "tests/simulated/Scenarios.h"
#include "tests/support/Support.h"

namespace
{

const platform::Atomic<bool> forceVerbose = false;

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
    int executed = 0;
    int destroyed = 0;
    Semaphore destructions{0};
};

struct Counted : ActiveObject::Action
{
    explicit Counted(Counts& owner) : counts(owner) {}
    ~Counted() override { ++counts.destroyed, counts.destructions.signal(); }
    void execute() override { ++counts.executed; }

    Counts& counts;
};

Counted* make(Counts& counts) { return MemShield::create<Counted>({"Counted", SourcePlace::here()}, counts); }

struct ActiveObjectSchedules : testing::Test
{
    ActiveObjectSchedules() { waitForOwnThreads(); }
};

TEST_F(ActiveObjectSchedules, EachActionIsExecutedOnceAndNoWorkerSleepsMeanwhile)
{
    exploreBothWays([] {
        Counts counts;
        Disk object(2);
        const auto produce = [&] { object.enqueue(make(counts)); };
        runTogether({{"one", produce}, {"two", produce}});
        counts.destructions.wait(); // for ever, if a worker sleeps while there is work
        counts.destructions.wait();
        check(counts.executed == 2 && counts.destroyed == 2, "each is executed and destroyed once");
    });
}

TEST_F(ActiveObjectSchedules, WhatCameBeforeTheDrainIsDestroyedOnceAndTheRestIsLeftAlone)
{
    exploreBothWays([] {
        Counts counts;
        std::vector<Counted*> actions{make(counts), make(counts)};
        Disk object(1);
        runTogether(
            {{"producer", [&] { std::ranges::for_each(actions, [&](Counted* each) { object.enqueue(each); }); }},
             {"owner", [&] { object.terminateAllThreads(); }}});
        check(counts.executed <= counts.destroyed, "what is executed is destroyed");
        for (std::size_t left = static_cast<std::size_t>(counts.destroyed); left < actions.size(); ++left)
        {
            MemShield::destroy(actions[left], actions[left], SourcePlace::here()); // came after the drain
        }
        check(counts.destroyed == 2, "no other is destroyed");
    });
}

} // namespace
