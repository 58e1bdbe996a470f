// The table of tweaks and the dynamic tweaks, under many schedules.

#include "datapath/common/infra/DynamicTweaks.h"
#include "datapath/common/infra/Tweaks.h"
#include "tests/simulated/Scenarios.h"
#include "tests/support/Support.h"

namespace
{

struct TweaksSchedules : testing::Test
{
    TweaksSchedules() { waitForOwnThreads(); }
};

TEST_F(TweaksSchedules, TheLastValueOfTheTableIsWhatIsReadInTheEnd)
{
    exploreBothWays([] {
        Tweaks& tweaks = Tweaks::instance();
        const DynamicTweaks& dynamic = DynamicTweaks::instance();
        runTogether({{"on", [&] { tweaks.update("t_IOVerboseLogs", "on"); }},
                     {"off", [&] { tweaks.update("t_IOVerboseLogs", "off"); }}});
        const bool isOn = tweaks.boolVal("t_IOVerboseLogs");
        check(dynamic.t_IOVerboseLogs == isOn && dynamic.curlOrIoVerbose == isOn, "the last value is read");
        tweaks.update("t_IOVerboseLogs", ""); // as it was
    });
}

TEST_F(TweaksSchedules, OneOfTwoThreadsAddsTheDefault)
{
    exploreBothWays([] {
        Tweaks& tweaks = Tweaks::instance();
        int added = 0;
        const auto add = [&] { added += tweaks.setDefaultValIfNotSet("t_own", "1") ? 1 : 0; };
        runTogether({{"one", add}, {"two", add}});
        check(added == 1, "it is added once");
        tweaks.update("t_own", "");
    });
}

} // namespace
