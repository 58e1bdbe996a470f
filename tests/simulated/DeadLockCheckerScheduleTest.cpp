// The deadlock checker in virtual time, and under many schedules.

#include "datapath/common/infra/DeadLockChecker.h"
#include "datapath/common/infra/Tweaks.h"
#include "platform/Threads.h"
#include "tests/simulated/Scenarios.h"
#include "tests/support/Support.h"

namespace
{

constexpr std::int64_t NS_PER_MS = 1'000'000;
const std::string LEASE = ",NON,DlcKeepalive,checkLease,";

struct DeadLockCheckerSchedules : LogTest
{
    DeadLockCheckerSchedules() { waitForOwnThreads(); }
};

TEST_F(DeadLockCheckerSchedules, LooksOnceAnInterval)
{
    // Each check sets the interval until the next one; the last element comes first.
    std::vector<std::pair<const char*, std::int64_t>> intervals{
        {"60", 60'000}, {"0", 1'000}, {"2147483647", 4'294'967'294}, {"8", 8'000}, {"7", 7'000}};
    std::vector<std::int64_t> expectedMs;
    std::vector<std::int64_t> measuredMs;
    std::int64_t last = 0;
    const HookedClient looks("DeadLockCheckerManager,run, m_lockSet.size()=1 ", [&](const std::string& /*line*/) {
        const std::int64_t before = std::exchange(last, now());
        before == 0 ? void() : measuredMs.push_back((last - before) / NS_PER_MS);
        if (!intervals.empty())
        {
            Tweaks::instance().update("t_deadlockCheckerIntervalSec", intervals.back().first);
            expectedMs.push_back(intervals.back().second);
            intervals.pop_back();
        }
    });
    platform::sleepMs(4'294'967'294);
    platform::sleepMs(180'000);
    EXPECT_EQ(expectedMs, measuredMs);
}

TEST_F(DeadLockCheckerSchedules, EndsTheProcessAfterTheTimeoutOfWhatIsStuckAlone)
{
    DlcKeepalive stuck("Stuck");
    DlcKeepalive alive("Alive");
    Tweaks::instance().update("t_disableBtPrint", "1");
    repeat(21, [&] { platform::sleepMs(50'000), alive.setAlive(); });
    Texts expected; // the first check finds it alive, and the second comes only one interval later
    for (int seconds = 120; seconds <= 960; seconds += 60)
    {
        expected.push_back(std::to_string(seconds) + " sec");
    }
    EXPECT_EQ(expected, client.messagesAfter("Error" + LEASE + "Stuck is stuck for "));
    EXPECT_EQ(0, client.count("~Alive~"));
    EXPECT_EQ(1, client.count("Control" + LEASE + "Stuck waited too long  deltaSec=960  m_timeoutSec=900 ~"));
}

// A worker changes to an action with a shorter timeout during a check.
TEST_F(DeadLockCheckerSchedules, ATimeoutCountsFromTheProgressThatItCameWith)
{
    exploreBothWays([] {
        constexpr std::uint32_t INTERVAL_SEC = 60;
        DlcKeepalive keepalive("Worker");
        keepalive.setTimeoutSec(900);
        keepalive.checkLease(1'000'000, INTERVAL_SEC);
        runTogether({{"checker", [&] { keepalive.checkLease(1'120'000, INTERVAL_SEC); }},
                     {"worker", [&] { keepalive.disarm(), keepalive.setTimeoutSec(30), keepalive.arm(); }}});
    });
}

TEST_F(DeadLockCheckerSchedules, KeepalivesComeAndGoWhileTheManagerLooks)
{
    exploreBothWays([] {
        const auto live = [](const char* name) {
            platform::sleepMs(60'000); // until the check
            DlcKeepalive keepalive(name);
            keepalive.disarm();
        };
        DlcKeepalive early("Early");
        runTogether({{"one", [&] { live("One"); }}, {"two", [&] { live("Two"); }}});
    });
}

} // namespace
