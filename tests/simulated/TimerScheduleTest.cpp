// Timers and their clock under many schedules.

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/windows/WindowsTimer.h"
#include "platform/Random.h"
#include "platform/Threads.h"
#include "platform/Time.h"
#include "tests/simulated/Scenarios.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <array>

namespace
{

constexpr std::int64_t MS = 1'000'000;

/// What became of a timer.
struct Alarm : FutureInternal::FutureObserver<RcStatus>
{
    static void ring(void* alarm) { ++static_cast<Alarm*>(alarm)->calls; }
    void update(const RcStatus& /*value*/) override { ++ends; }

    int calls = 0;
    int ends = 0; // how often its future was set
};

struct TimerSchedules : testing::Test
{
    TimerSchedules() { waitForOwnThreads(); }
};

TEST_F(TimerSchedules, EachTimerIsCalledOrReplacedWhateverPassesDo)
{
    static int numReplaced; // from the log
    // Never destroyed: threads of a failed schedule may be inside it for ever.
    new HookedClient("replacing existing timer", [](const std::string&) { ++numReplaced; });
    exploreBothWays([] {
        numReplaced = 0;
        WindowsTimer timer;
        Alarm once;
        Alarm again;
        Alarm fresh;
        int numObservers = 0; // added to the second timer
        const TimerHandle onceHandle = timer.addTimer(Alarm::ring, &once, 0, true, 0);
        const TimerHandle againHandle = timer.addTimer(Alarm::ring, &again, 1, false, 0);
        timer.completionOf(onceHandle)->addObserver(&once);
        advance(5 * MS);
        const auto observe = [&] {
            auto completion = timer.completionOf(againHandle);
            completion ? ++numObservers, completion->addObserver(&again) : void();
        };
        const auto replace = [&](TimerHandle handle) {
            timer.addTimer(Alarm::ring, &fresh, 0, true, handle);
            check(timer.checkInvariants(), "each timer is in the order once");
        };
        runTogether({{"pass", [&] { observe(), timer.activateTimers(); }},
                     {"other pass", [&] { observe(), timer.activateTimers(); }},
                     {"replacer", [&] { replace(onceHandle), replace(againHandle); }}});
        const int calls = again.calls;
        advance(5 * MS);
        timer.activateTimers();
        check(fresh.calls == 2 && once.calls <= 1, "a timer is called once");
        check(once.calls + once.ends != 0 && once.ends == numReplaced - 1, "or it is replaced, and its future is set");
        check(again.calls == calls && again.ends == numObservers, "what is replaced is not called any more");
        check(!timer.completionOf(onceHandle) && !timer.completionOf(againHandle), "nothing is left");
    });
}

TEST_F(TimerSchedules, TheTimerThreadLooksEveryTenthOfASecondAndIsWatched)
{
    static std::vector<std::int64_t> callsMs; // times since the thread was started
    static std::int64_t start;
    static std::uint32_t seed = 0;
    const ScopedReplacement random(platform::randomCalls.seedRandom, [](std::uint32_t value) { seed = value; });
    const CapturingClient client;
    ITimer& timer = Timer::instance();
    const std::int64_t startMs = timer.getTimestampMs();
    start = now();
    timer.start();
    const auto call = [](void* /*context*/) {
        EXPECT_EQ("", Logger::instance().getThreadName(static_cast<std::int32_t>(platform::currentThreadId())));
        callsMs.push_back((now() - start) / MS);
    };
    const TimerHandle periodic = timer.addTimer(call, nullptr, 250, false);
    platform::sleepMs(1'050);
    EXPECT_EQ((std::vector<std::int64_t>{300, 600, 900}), callsMs);
    EXPECT_TRUE(seed == startMs || seed == startMs + 1) << seed;
    WindowsTimer::instance().addTimer([](void*) { platform::sleepMs(190'000); }, nullptr, 0, true, periodic);
    platform::sleepMs(600'000);
    // Three checks come meanwhile. The first finds the timer alive, the second comes one interval later.
    EXPECT_EQ(Texts{"120 sec"}, client.messagesAfter("Error,NON,DlcKeepalive,checkLease,timer is stuck for "));
    EXPECT_EQ(0, client.count("~,ThreadWrapper,~") + client.count("~,MemWatcher,~"));
}

TEST_F(TimerSchedules, NoReaderIsGivenLessThanWasHandedOutBefore)
{
    static std::size_t numReadings;
    const ScopedReplacement counter{platform::timeCalls.performanceCounter, [](std::int64_t& value) {
                                        value = now() - std::array{40, 0, 80}.at(numReadings++ % 3); // steps back
                                        return true;
                                    }};
    exploreBothWays([] {
        numReadings = 0;
        Clock clock;
        std::int64_t highest = 0; // value that was handed out
        const auto read = [&] {
            const std::int64_t before = highest;
            const std::int64_t value = clock.ticks();
            check(value >= before, "it does not go back");
            highest = std::max(highest, value);
        };
        runTogether({{"one", read}, {"two", read}, {"three", read}});
    });
}

} // namespace
