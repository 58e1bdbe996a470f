// Timers and their clock under many schedules.

#include "datapath/common/infra/windows/WindowsTimer.h"
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
    int ends = 0; // of its future
};

struct TimerSchedules : testing::Test
{
    TimerSchedules() { waitForOwnThreads(); }
};

TEST_F(TimerSchedules, EachTimerIsCalledOrReplacedWhateverPassesDo)
{
    static int numReplaced; // as the log tells
    // After a failure its threads may stand in it for ever, so it stays.
    new HookedClient("replacing existing timer", [](const std::string&) { ++numReplaced; });
    exploreBothWays([] {
        numReplaced = 0;
        WindowsTimer timer;
        Alarm once;
        Alarm again;
        Alarm fresh;
        int numObservers = 0; // of the second timer
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

TEST_F(TimerSchedules, NoReaderIsGivenLessThanWasHandedOutBefore)
{
    static std::size_t numReadings;
    const ScopedReplacement counter{platform::timeCalls.performanceCounter, [](std::int64_t& value) {
                                        value = now() - std::array{40, 0, 80}.at(numReadings++ % 3); // steps back
                                        return true;
                                    }};
    exploreBothWays([] {
        numReadings = 0;
        WindowsTimer timer;
        std::int64_t highest = 0; // that was handed out
        const auto read = [&] {
            const std::int64_t before = highest;
            std::int64_t value = 0;
            timer.getPerformanceCounter(value);
            check(value >= before, "it does not go back");
            highest = std::max(highest, value);
        };
        runTogether({{"one", read}, {"two", read}, {"three", read}});
    });
}

} // namespace
