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

TEST_F(TweaksSchedules, AReaderSeesTheValuesInTheirOrderWhileTheTableGrows)
{
    exploreBothWays([] {
        using Kind = TweakTable::Kind;
        TweakTable table;
        table.setNumber("t_read", 1);
        table.setNumber("t_other", 7);
        const auto change = [&] {
            table.reserve(100);
            table.setNumber("T_READ", 2);
            table.setText("t_read", "three");
            table.reserve(200);
            table.remove("t_read");
            table.setNumber("t_read", 5);
        };
        int last = 1;
        const auto read = [&] {
            for (int i = 0; i < 5; ++i)
            {
                const auto [kind, number] = table.read("t_Read");
                const int seen = kind == Kind::Number ? static_cast<int>(number) : kind == Kind::Text ? 3 : 4;
                check(seen >= last && seen <= 5, "no value comes back");
                last = seen;
                check(table.read("t_other").number == 7, "the other value is there");
            }
        };
        runTogether({{"change", change}, {"read", read}});
        check(table.read("t_read").number == 5 && table.size() == 2, "the last value is there");
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
