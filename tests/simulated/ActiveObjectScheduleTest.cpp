// The active object under many schedules.

#include "datapath/common/infra/ActiveObject.h"
#include "tests/simulated/Scenarios.h"
#include "tests/support/Support.h"

#include <array>

namespace
{

const platform::Atomic<bool> isVerbose = false;

/// Counts itself when it is executed and when it is destroyed.
struct Counted : ActiveObject::Action
{
    Counted(int& executedCount, int& destroyedCount) : executed(executedCount), destroyed(destroyedCount) {}
    ~Counted() override { ++destroyed; }
    void execute() override { ++executed; }

    int& executed;
    int& destroyed;
};

struct ActiveObjectSchedules : testing::Test
{
    ActiveObjectSchedules() { waitForOwnThreads(); }
};

TEST_F(ActiveObjectSchedules, EachActionThatCameIsExecutedOnceByTheTwoWorkers)
{
    exploreBothWays([] {
        int executed = 0; // the schedule has one thread run at a time
        int destroyed = 0;
        Semaphore done(0);
        struct Signalling : Counted
        {
            using Counted::Counted;
            ~Signalling() override { signalled->signal(); }
            Semaphore* signalled = nullptr;
        };
        ActiveObject object("Disk", &isVerbose);
        object.open();
        object.open();
        const auto produce = [&] {
            auto* const action = MemShield::create<Signalling>({"Work", SourcePlace::here()}, executed, destroyed);
            action->signalled = &done;
            object.enqueue(action);
        };
        runWorkers({{"one", produce}, {"two", produce}});
        done.wait(); // for ever, if a worker sleeps while there is work
        done.wait();
        check(executed == 2, "each is executed once");
    });
}

TEST_F(ActiveObjectSchedules, WhatCameBeforeTheDrainIsDestroyedOnceAndTheRestIsLeftAlone)
{
    exploreBothWays([] {
        int executed = 0;
        int destroyed = 0;
        std::array<Counted*, 2> actions = {};
        ActiveObject object("Disk", &isVerbose);
        object.open();
        runWorkers({{"producer",
                     [&] {
                         for (Counted*& action : actions)
                         {
                             action = MemShield::create<Counted>({"Work", SourcePlace::here()}, executed, destroyed);
                             object.enqueue(action);
                         }
                     }},
                    {"owner", [&] { object.terminateAllThreads(); }}});
        check(executed <= destroyed && destroyed <= 2, "what is executed is destroyed");
        for (int i = destroyed; i < 2; ++i) // those that came after the drain, in their order
        {
            MemShield::destroy(actions.at(static_cast<std::size_t>(i)), actions.at(static_cast<std::size_t>(i)),
                               SourcePlace::here());
        }
        check(destroyed == 2, "the rest was left alone");
    });
}

} // namespace
