// Timer callbacks over a replaced performance counter.

#include "datapath/common/infra/windows/WindowsTimer.h"
#include "platform/Time.h"
#include "tests/support/Support.h"

#include <deque>
#include <random>

#include <gtest/gtest.h>

namespace
{

using Texts = std::vector<std::string>;

const std::string ADD_TIMER = "Info,NON,WindowsTimer,addTimer,";
std::atomic<std::int64_t> nowMs = 10'000;

std::string addedText(TimerHandle replaced, TimerHandle handle)
{
    return ADD_TIMER + "added timer old=" + std::to_string(replaced) + " new=" + std::to_string(handle);
}

/// Timers that note what happens to each, by its number.
struct Timers
{
    struct Context : FutureInternal::FutureObserver<RcStatus>
    {
        Context(Timers& owner, std::size_t index) : timers(owner), number(index) {}
        void update(const RcStatus& value) override
        {
            timers.texts.push_back("completed " + std::to_string(number) + " " + std::to_string(value));
            timers.whenCompleted(*this);
        }
        void call()
        {
            timers.texts.push_back("called " + std::to_string(number));
            ++calls;
            timers.whenCalled(*this);
        }
        Timers& timers;
        std::size_t number;
        TimerHandle handle = 0;
        std::size_t calls = 0;
    };

    virtual ~Timers() = default;
    virtual TimerHandle insert(Context& context, std::uint32_t intervalMs, bool oneShot, TimerHandle replaced) = 0;
    virtual void pass() = 0;
    virtual std::size_t count() = 0;

    TimerHandle add(std::uint32_t intervalMs, bool oneShot, TimerHandle replaced = 0)
    {
        Context& context = contexts.emplace_back(*this, contexts.size());
        return context.handle = insert(context, intervalMs, oneShot, replaced);
    }
    Texts passAt(std::int64_t timeMs)
    {
        nowMs = timeMs;
        pass();
        return std::exchange(texts, {});
    }

    Texts texts;
    std::deque<Context> contexts;
    std::function<void(Context&)> whenCalled = [](Context&) {};
    std::function<void(Context&)> whenCompleted = [](Context&) {};
};

/// A table that each pass copies.
struct Model : Timers
{
    struct Entry
    {
        std::uint64_t dueMs;
        std::uint32_t periodMs;
        Context* context;
        bool cancelled = false;
    };

    TimerHandle insert(Context& context, std::uint32_t intervalMs, bool oneShot, TimerHandle replaced) override
    {
        if (replaced != 0 && table.contains(replaced))
        {
            table.at(replaced).cancelled = true;
            texts.push_back(ADD_TIMER + "replacing existing timer handle=" + std::to_string(replaced));
        }
        const std::uint64_t dueMs = static_cast<std::uint64_t>(nowMs) + intervalMs;
        table.try_emplace(++last, Entry{dueMs, oneShot ? 0 : intervalMs, &context});
        texts.push_back(addedText(replaced, last));
        return last;
    }
    void pass() override
    {
        const auto passMs = static_cast<std::uint64_t>(nowMs);
        for (const auto& [handle, entry] : std::map(table))
        {
            if (!entry.cancelled && entry.dueMs >= passMs)
            {
                continue;
            }
            if (!entry.cancelled)
            {
                entry.context->call();
            }
            const bool cancelled = table.at(handle).cancelled;
            if (!cancelled && entry.periodMs != 0)
            {
                table.at(handle).dueMs = passMs + entry.periodMs;
                continue;
            }
            table.erase(handle);
            if (cancelled)
            {
                entry.context->update(RC_OK);
            }
        }
    }
    std::size_t count() override { return table.size(); }

    std::map<TimerHandle, Entry> table;
    TimerHandle last = 0;
};

struct Real : Timers
{
    struct Timer : WindowsTimer
    {
        using WindowsTimer::setNextHandle;
        using WindowsTimer::WindowsTimer;
    };

    TimerHandle insert(Context& context, std::uint32_t intervalMs, bool oneShot, TimerHandle replaced) override
    {
        const auto call = [](void* called) { static_cast<Context*>(called)->call(); };
        const TimerHandle handle = timer.addTimer(call, &context, intervalMs, oneShot, replaced);
        timer.completionOf(handle)->addObserver(&context);
        return handle;
    }
    void pass() override { timer.activateTimers(); }
    std::size_t count() override
    {
        const CapturingClient report;
        MemWatchedContainerDatabase::instance().printWatchedContainers();
        const std::string text =
            "Info,NON,MemWatchedContainerDatabase,printWatchedContainers,ContainerName = Timers items = ";
        for (const std::string& message : report.messages())
        {
            if (message.starts_with(text))
            {
                return std::stoul(message.substr(text.size()));
            }
        }
        return SIZE_MAX;
    }

    const ScopedReplacement frequency{platform::timeCalls.performanceFrequency,
                                      [](std::int64_t& value) { return (value = 1'000) > 0; }};
    const ScopedReplacement counter{platform::timeCalls.performanceCounter,
                                    [](std::int64_t& value) { return (value = nowMs) > 0; }};
    const ScratchFolder folder;
    Timer timer{(waitForOwnThreads(), TimerHandle{1})};
    const HookedClient client{"WindowsTimer", [this](const std::string& line) {
                                  const std::size_t level = line.find(',') + 1;
                                  const std::size_t thread = line.find(',', level) + 1;
                                  if (const std::size_t rest = line.find(',', thread) + 1;
                                      line.find("WindowsTimer", rest) != std::string::npos)
                                  {
                                      texts.push_back(line.substr(level, thread - level) +
                                                      line.substr(rest, line.size() - rest - 1));
                                  }
                              }};
};

TEST(TimerCallbacks, AreCalledInThePassesAfterTheyAreDue)
{
    constexpr std::int64_t LONGEST = 0xFFFF'FFFF;
    Real timers;
    EXPECT_EQ(1U, timers.add(0, true));
    EXPECT_EQ(2U, timers.add(250, false));
    EXPECT_EQ(3U, timers.add(LONGEST, false));
    EXPECT_EQ((Texts{addedText(0, 1), addedText(0, 2), addedText(0, 3)}), timers.passAt(10'000));
    EXPECT_EQ(Texts{"called 0"}, timers.passAt(10'001));
    EXPECT_EQ(2U, timers.count());
    EXPECT_EQ(Texts(), timers.passAt(10'250));
    EXPECT_EQ(Texts{"called 1"}, timers.passAt(10'300));
    EXPECT_EQ(Texts(), timers.passAt(10'550));
    EXPECT_EQ(Texts{"called 1"}, timers.passAt(10'551));
    EXPECT_EQ(Texts{"called 1"}, timers.passAt(10'000 + LONGEST));
    EXPECT_EQ((Texts{"called 1", "called 2"}), timers.passAt(10'251 + LONGEST));
}

TEST(TimerCallbacks, SlowOnesAreReported)
{
    Real timers;
    std::int64_t takesMs = 2'000;
    timers.whenCalled = [&](Timers::Context&) { nowMs += takesMs; };
    timers.add(1, false);
    timers.texts.clear();
    EXPECT_EQ(Texts{"called 0"}, timers.passAt(20'000));
    takesMs = 2'001;
    EXPECT_EQ((Texts{"called 0", "Error,NON,WindowsTimer,activateTimers,timer invocation took more than 1 seconds!"}),
              timers.passAt(30'000));
    takesMs = 0;
    timers.add(4'000, true, 1); // at 32'001
    EXPECT_EQ((Texts{ADD_TIMER + "replacing existing timer handle=1", addedText(1, 2), "completed 0 0"}),
              timers.passAt(36'001));
}

TEST(TimerCallbacks, HandlesStartAgainAtZero)
{
    Real timers;
    timers.timer.setNextHandle(0xFFFF'FFFF);
    EXPECT_EQ(0xFFFF'FFFF, timers.add(5, false));
    EXPECT_EQ(0U, timers.add(5, true));
    EXPECT_EQ(1U, timers.add(5, true)); // replaces none
    timers.timer.setNextHandle(0xFFFF'FFFF);
    EXPECT_EQ(0xFFFF'FFFF, timers.timer.addTimer(nullptr, nullptr, 0, true, 1)); // is there already
    EXPECT_TRUE(timers.timer.checkInvariants());
    timers.texts.clear();
    EXPECT_EQ((Texts{"called 1", "completed 2 0", "called 0"}), timers.passAt(nowMs + 6));
    EXPECT_EQ(1U, timers.count());
}

TEST(TimerCallbacks, BehaveAsIfEachPassCopiedTheTable)
{
    Real real;
    Model model;
    Timers* const both[] = {&real, &model};
    constexpr TimerHandle FIRST = 0U - 1'000;
    real.timer.setNextHandle(FIRST);
    model.last = FIRST - 1;
    const auto interval = [](std::minstd_rand& random) -> std::uint32_t {
        return random() % 4 == 0 ? 0xFFFF'FFFF : static_cast<std::uint32_t>(random() % 2'000);
    };
    const auto handle = [](const Timers& timers, std::minstd_rand& random) {
        return FIRST + static_cast<TimerHandle>(timers.contexts.size() - random() % 500); // live, gone or not there yet
    };
    for (Timers* const timers : both)
    {
        timers->whenCalled = [=](Timers::Context& context) {
            std::minstd_rand random(static_cast<std::uint32_t>(context.number * 1'000 + context.calls));
            random.discard(10);
            switch (random() % 12)
            {
            case 0:
                return static_cast<void>(timers->add(interval(random), true));
            case 1:
                return static_cast<void>(timers->add(interval(random), random() % 2 == 0, context.handle));
            case 2: // perhaps one that is due in the same pass, before or after this one
                return static_cast<void>(timers->add(interval(random), true, handle(*timers, random)));
            case 3:
                throw context.number;
            default:
                return;
            }
        };
        timers->whenCompleted = [=](const Timers::Context& context) {
            if (context.number % 4 == 0)
            {
                timers->add(static_cast<std::uint32_t>(context.number % 300), true);
            }
        };
    }
    std::minstd_rand random(1);
    for (int step = 0; step < 3'000; ++step)
    {
        const auto action = random() % 8;
        nowMs += action < 2 ? static_cast<std::int64_t>(random() % 100) : 0;
        const std::minstd_rand before = random;
        for (Timers* const timers : both)
        {
            random = before;
            try
            {
                action == 0  ? timers->pass()
                : action < 6 ? static_cast<void>(timers->add(interval(random), random() % 3 != 0))
                             : static_cast<void>(timers->add(interval(random), true, handle(*timers, random)));
            }
            catch (std::size_t number)
            {
                timers->texts.push_back("thrown by " + std::to_string(number));
            }
        }
        ASSERT_EQ(model.texts, real.texts) << step;
        ASSERT_TRUE(real.timer.checkInvariants()) << step;
        ASSERT_TRUE(step % 50 != 0 || model.count() == real.count()) << step;
        real.texts = model.texts = {};
    }
}

} // namespace
