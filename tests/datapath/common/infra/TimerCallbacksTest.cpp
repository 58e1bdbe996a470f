// Timer callbacks, compared with a plain model, and under threads.

#include "datapath/common/infra/windows/WindowsTimer.h"

#include "datapath/common/infra/Clock.h"
#include "platform/Time.h"
#include "tests/support/Support.h"

#include <deque>
#include <random>

#include <gtest/gtest.h>

namespace
{

std::atomic<std::int64_t> nowMs = 10'000;

/// Timers, and a model of them: a table, which each pass copies and works off in the order of the handles.
struct FollowedTimers : WindowsTimer
{
    struct Entry
    {
        std::uint64_t dueMs;
        std::uint32_t periodMs;
        bool cancelled = false;
    };
    struct Context : FutureInternal::FutureObserver<RcStatus>
    {
        explicit Context(FollowedTimers& owner) : timers(owner) {}
        static void call(void* context)
        {
            static_cast<Context*>(context)->timers.called(*static_cast<Context*>(context));
        }
        void update(const RcStatus& value) override { timers.completed(handle, value); }
        FollowedTimers& timers;
        TimerHandle handle = 0;
    };

    [[nodiscard]] bool oneIn(std::uint32_t count) { return random() % count == 0; }
    [[nodiscard]] TimerHandle someHandle()
    {
        return last - static_cast<TimerHandle>(random() % 500);
    } // of a timer that lives or is gone

    void add(TimerHandle replaced)
    {
        const std::uint32_t intervalMs = oneIn(2) ? LONGEST_MS : static_cast<std::uint32_t>(random() % 500);
        const bool oneShot = !oneIn(8);
        if (const auto old = table.find(replaced); replaced != 0 && old != table.end())
        {
            old->second.cancelled = true;
            expected.push_back("addTimer,replacing existing timer handle=" + std::to_string(replaced));
        }
        expected.push_back("addTimer,added timer old=" + std::to_string(replaced) + " new=" + std::to_string(++last));
        Context& context = contexts.emplace_back(*this);
        context.handle = addTimer(Context::call, &context, intervalMs, oneShot, replaced);
        EXPECT_EQ(last, context.handle);
        const auto dueMs = static_cast<std::uint64_t>(nowMs) + intervalMs;
        if (table.try_emplace(last, Entry{dueMs, oneShot ? 0 : intervalMs}).second)
        {
            completionOf(last)->addObserver(&context);
        }
    }

    void pass()
    {
        passMs = static_cast<std::uint64_t>(nowMs);
        due = table;
        std::erase_if(due,
                      [=, this](const auto& timer) { return !timer.second.cancelled && timer.second.dueMs >= passMs; });
        try
        {
            activateTimers();
            EXPECT_TRUE(due.empty());
        }
        catch (TimerHandle thrower)
        {
            EXPECT_EQ(thrower, due.begin()->first);
        }
    }

    void called(const Context& context)
    {
        ASSERT_TRUE(isNext(context.handle) && !due.begin()->second.cancelled);
        const auto choice = random() % 64;
        if (choice < 3)
        {
            // The timer that is replaced: any one, this one, or the last one of this pass.
            add(choice == 0 ? someHandle() : choice == 1 ? context.handle : due.rbegin()->first);
        }
        else if (choice == 3)
        {
            throw context.handle;
        }
        else if (choice < 6)
        {
            nowMs += choice == 4 ? 2'000 : 2'001;
            numLate += choice == 4 ? 0 : 1;
        }
        const auto timer = table.find(context.handle);
        if (timer->second.cancelled)
        {
            due.begin()->second.cancelled = true; // its future is set next
            return;
        }
        due.erase(context.handle);
        timer->second.dueMs = passMs + timer->second.periodMs;
        timer->second.periodMs == 0 ? void(table.erase(timer)) : void();
    }

    void completed(TimerHandle handle, RcStatus value)
    {
        ASSERT_TRUE(isNext(handle) && due.begin()->second.cancelled && value == RC_OK);
        due.erase(handle);
        table.erase(handle);
        oneIn(4) ? add(0) : void();
    }

    [[nodiscard]] bool isNext(TimerHandle handle) const { return !due.empty() && due.begin()->first == handle; }

    void goOnFrom(TimerHandle handle) { setNextHandle(handle), last = handle - 1; }

    static constexpr std::uint32_t LONGEST_MS = 0xFFFF'FFFF;
    std::minstd_rand random{1};
    TimerHandle last = 0;
    std::map<TimerHandle, Entry> table;
    std::map<TimerHandle, Entry> due; // what is left of the copy of the present pass
    std::uint64_t passMs = 0;
    std::deque<Context> contexts;
    Texts expected; // the lines of level Info
    std::ptrdiff_t numLate = 0;
};

TEST(TimerCallbacks, BehaveAsIfEachPassCopiedTheTable)
{
    const ScopedReplacement frequency(platform::timeCalls.performanceFrequency,
                                      [](std::int64_t& value) { return (value = 1'000) > 0; });
    const ScopedReplacement counter(platform::timeCalls.performanceCounter,
                                    [](std::int64_t& value) { return (value = nowMs) > 0; });
    const ScratchFolder folder;
    waitForOwnThreads();
    static_cast<void>(Clock::instance()); // logs when it is made
    FollowedTimers timers;
    for (int step = 0; step < 3'900; ++step)
    {
        const CapturingClient client;
        timers.expected.clear();
        timers.numLate = 0;
        if (step == 1'000 || step == 1'200) // past the largest handle, and to handles that are still taken
        {
            timers.goOnFrom(0U - 100);
        }
        nowMs += step % 1'000 == 999 ? FollowedTimers::LONGEST_MS : static_cast<std::int64_t>(timers.random() % 25);
        timers.oneIn(8) ? timers.pass() : timers.add(timers.oneIn(3) ? timers.someHandle() : 0);
        ASSERT_EQ(timers.expected, client.messagesAfter("Info,NON,WindowsTimer,")) << step;
        ASSERT_EQ(timers.numLate,
                  client.count("Error,NON,WindowsTimer,activateTimers,timer invocation took more than 1 seconds!"));
        ASSERT_TRUE(timers.checkInvariants() && !testing::Test::HasFailure()) << step;
    }
    const CapturingClient report;
    MemWatchedContainerDatabase::instance().printWatchedContainers();
    EXPECT_EQ(1, report.count("~ContainerName = Timers items = " + std::to_string(timers.table.size())));
}

TEST(TimerCallbacks, ThreadsMayAddAndReplaceDuringPasses)
{
    constexpr int TIMERS = 1'000; // added by each of two threads
    WindowsTimer timer;
    std::atomic<int> calls = 0;
    runInThreads(4, [&](int index) {
        TimerHandle last = 0;
        for (int i = 0; index < 2 ? calls < 2 * TIMERS : i < TIMERS; ++i)
        {
            const auto count = [](void* counter) { ++*static_cast<std::atomic<int>*>(counter); };
            index < 2 ? timer.activateTimers() : void(timer.addTimer(count, &calls, 0, true, 0));
            last = index < 2 ? 0 : timer.addTimer(nullptr, nullptr, 0xFFFF'FFFF, false, last);
        }
    });
    timer.activateTimers();
    EXPECT_EQ(2 * TIMERS, calls);
    EXPECT_TRUE(timer.checkInvariants());
}

} // namespace
