#include "datapath/common/infra/Tweaks.h"

#include "datapath/common/infra/DynamicTweaks.h"
#include "datapath/common/infra/TweakCatalogue.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <atomic>
#include <sstream>

#include <gtest/gtest.h>

namespace
{

/// A table of its own, read from the working folder.
struct FreshTweaks : Tweaks
{
};

struct TweaksTest : LogTest
{
    void expectAssertion(const std::string& methodAndCondition, int number, const std::function<void()>& work)
    {
        EXPECT_THROW(work(), ProcessEnded);
        EXPECT_EQ("Error,NON," + methodAndCondition + ") failed datapath/common/infra/Tweaks.cpp " +
                      std::to_string(number),
                  client.last());
    }

    ScopedProcessEnd throwing;
};

TEST_F(TweaksTest, ValueTextsAreNumbersBooleanWordsOrBetweenQuotes)
{
    for (const char* const text : {"", " ", "yes!", "a = b", "0x", "0x0x", "--1", "9223372036854775808", "\x80"})
    {
        expectAssertion("Tweaks::Tweak,Tweak,Assertion (false", 71, [=] { Tweaks::Tweak tweak(text); });
    }
    for (const char* const text : {"\"", "\"a", "\"yes\" "})
    {
        expectAssertion("Tweaks::Tweak,Tweak,Assertion (val.length() > 1 && (val[val.length() -1] == '\"')", 32,
                        [=] { Tweaks::Tweak tweak(text); });
    }
}

TEST_F(TweaksTest, UpdatesReplaceTheSpellingTellTheOldValueAndAreLogged)
{
    Tweaks& tweaks = Tweaks::instance();
    DynamicTweaks::instance().refresh();
    client.newMessages();
    EXPECT_EQ("", tweaks.update("t_a", "5"));
    EXPECT_EQ("5", tweaks.update("T_A", "\"x\""));
    EXPECT_TRUE(tweaks.setDefaultValIfNotSet("t_B", "on"));
    EXPECT_FALSE(tweaks.setDefaultValIfNotSet("t_a", "no value"));
    EXPECT_EQ((Texts{"Info,NON,Tweaks,update,Updating tweak:  name=t_a  val=5  ret= ",
                     "Info,NON,Tweaks,update,Updating tweak:  name=T_A  val=\"x\"  ret=5 ",
                     "Info,NON,Tweaks,setDefaultValIfNotSet,default tweak added:  name=t_B  val=on  ret= "}),
              client.newMessages());
    tweaks.update("t_aa", "0x10");
    tweaks.update("t_", "1");
    tweaks.print();
    EXPECT_EQ((Texts{"t_=1", "T_A=\"x\"", "t_aa=16", "t_B=1"}), client.messagesAfter("Control,NON,Tweaks,print,"));
    for (const char* const name : {"T_", "t_a", "T_AA", "T_b"})
    {
        EXPECT_NE("", tweaks.update(name, ""));
        EXPECT_EQ(9, tweaks.longVal(name, 9));
    }
    tweaks.print();
    EXPECT_EQ("Control,NON,Tweaks,print,tweaks are empty", client.last());
    expectAssertion("Tweaks::Tweak,Tweak,Assertion (false", 71, [&] { tweaks.setDefaultValIfNotSet("t_e", ""); });
}

TEST_F(TweaksTest, GettersCheckKindAndRange)
{
    FreshTweaks tweaks;
    const auto set = [&](const char* text) -> Tweaks& { return (tweaks.update("t_x", text), tweaks); };
    EXPECT_EQ(2147483647, set("2147483647").intVal("T_X"));
    EXPECT_EQ(-2147483647, set("-2147483647").intVal("t_x"));
    EXPECT_EQ(4294967295, set("0xFFFFFFFF").uintVal("t_x"));
    EXPECT_TRUE(set("-3").boolVal("t_x"));
    EXPECT_FALSE(set("0x0").boolVal("t_x", true));
    EXPECT_EQ(-7, tweaks.intVal("t_missing", -7));
    EXPECT_EQ(4294967295, tweaks.uintVal("t_missing", 4294967295));
    EXPECT_TRUE(tweaks.boolVal("t_missing", true));

    const std::string check = "Tweaks,intVal,Assertion (";
    expectAssertion(check + "ival <= ((u32)-1) / 2", 524, [&] { return set("2147483648").intVal("t_x"); });
    expectAssertion(check + "-1 * ival <= ((u32)-1) / 2", 525, [&] { return set("-2147483648").intVal("t_x"); });
    expectAssertion("Tweaks,uintVal,Assertion (ival >= 0", 535, [&] { return set("-1").uintVal("t_x"); });
    expectAssertion("Tweaks,uintVal,Assertion (ival <= ((u32)-1)", 536,
                    [&] { return set("4294967296").uintVal("t_x"); });
    set("\"s\"");
    expectAssertion("Tweaks::Tweak,longVal,Assertion (false", 123, [&] { return tweaks.boolVal("t_x"); });
    EXPECT_EQ(1, client.count("Error,NON,Tweaks::Tweak,longVal,value is not int"));
    expectAssertion("Tweaks,longVal,Assertion (false", 497, [&] { return tweaks.uintVal("T_none"); });
    EXPECT_EQ(1, client.count("Error,NON,Tweaks,longVal,tweak \"T_none\" not found"));
}

TEST_F(TweaksTest, ATextLeavesItsLinesAndIsAppliedOnlyWhileTheTableIsMade)
{
    folder.write("tweaks_extension.txt", "t_a = 3");
    FreshTweaks tweaks;
    EXPECT_EQ(3, tweaks.longVal("t_a"));
    std::istringstream text("t_a = 1 ; first\nT_A=2;;\nno value\n t_a\t=\t1 \r\n;\n = x = y ;\r\n");
    std::deque<TweakLine> lines;
    client.newMessages();
    EXPECT_THROW(tweaks.Tweaks::update(text, lines, false), ProcessEnded); // by the last line
    const Texts messages = client.newMessages();
    EXPECT_EQ("Assert,NON,Tweaks,update, datapath/common/infra/Tweaks.cpp 228: isPeriodicUpdate || !m_isInitialized "
              "failed. Trying to update non-periodically after initialization",
              messages.at(0));
    EXPECT_EQ("Error,NON,Tweaks,update,multiple definition for tweak \"t_a\"", messages.at(1));
    EXPECT_EQ(2, tweaks.longVal("t_a"));
    Texts fields;
    for (const TweakLine& line : lines)
    {
        fields.push_back(line.name + "|" + line.valueText + "|" + line.comment);
    }
    const std::string repeated = "t_a|1|Multiple definitions of this tweak, pick one.";
    EXPECT_EQ((Texts{repeated, "T_A|2|;", repeated, "|x = y|"}), fields);
}

TEST_F(TweaksTest, DynamicMembersFollowTheTable)
{
    folder.write("tweaks_extension.txt", "t_KrnRestoreVerboseLogs = on\nt_deadlockCheckerIntervalSec = 61\n");
    Tweaks& tweaks = Tweaks::instance();
    const DynamicTweaks& dynamic = DynamicTweaks::instance();
    EXPECT_TRUE(dynamic.krnBackupOrRestoreVerbose);
    EXPECT_EQ(61, dynamic.t_deadlockCheckerIntervalSec);
    tweaks.update("t_deadlockCheckerIntervalSec", "");
    EXPECT_EQ(60, dynamic.t_deadlockCheckerIntervalSec);
    EXPECT_EQ(900U, dynamic.t_defaultDlcTimeoutSec);
    EXPECT_FALSE(dynamic.t_ActiveObjectVerboseLogs || dynamic.t_disableLogMemoryAllocationTracking);

    const auto derived = [&] {
        return std::array<bool, 5>{dynamic.krnBackupOrRestoreVerbose, dynamic.curlOrIoVerbose,
                                   dynamic.streamReaderOrIoVerbose, dynamic.krnPorterOrIoVerbose,
                                   dynamic.batchIoOrCloudOrIoVerbose};
    };
    tweaks.update("t_KrnRestoreVerboseLogs", "off");
    using Effect = std::pair<const char*, std::array<bool, 5>>;
    for (const auto& [name, effect] : std::vector<Effect>{
             {"t_IOVerboseLogs", {false, true, true, true, true}},
             {"t_KrnBackupVerboseLogs", {true, false, false, false, false}},
             {"t_httpCurlVerbose", {false, true, false, false, false}},
             {"t_StreamReaderVerboseLogs", {false, false, true, false, false}},
             {"t_KrnPorterVerboseLogs", {false, false, false, true, false}},
             {"t_BatchIOVerboseLogs", {false, false, false, false, true}},
             {"t_CloudVerboseLogs", {false, false, false, false, true}},
         })
    {
        tweaks.update(name, "on");
        EXPECT_EQ(effect, derived()) << name;
        tweaks.update(name, "");
        EXPECT_EQ((std::array<bool, 5>{}), derived()) << name;
    }
    expectAssertion("Tweaks::Tweak,longVal,Assertion (false", 123, [&] { tweaks.update("t_IOVerboseLogs", "\"x\""); });
}

TEST_F(TweaksTest, ThreadsReadAndUpdateAtOnce)
{
    std::atomic<int> running = 4;
    runInThreads(8, [&](int index) {
        if (index % 2 == 0)
        {
            for (int i = 0; i < 200; ++i)
            {
                Tweaks::instance().update("t_defaultDlcTimeoutSec", std::to_string(900 + i % 2));
                Tweaks::instance().setDefaultValIfNotSet("t_own" + std::to_string(index), "1");
            }
            --running;
        }
        while (running != 0)
        {
            EXPECT_EQ(900U, DynamicTweaks::instance().t_defaultDlcTimeoutSec & ~1U);
            EXPECT_EQ(900U, Tweaks::instance().uintVal("T_DEFAULTDLCTIMEOUTSEC", 900) & ~1U);
        }
    });
    EXPECT_EQ(Tweaks::instance().uintVal("t_defaultDlcTimeoutSec"), DynamicTweaks::instance().t_defaultDlcTimeoutSec);
}

TEST(TweakCatalogue, IsOrderedAndHoldsEachNameOnce)
{
    EXPECT_EQ(TweakCatalogue.end(),
              std::ranges::adjacent_find(TweakCatalogue, std::ranges::greater_equal(), &TweakDescriptor::name));
    const auto isDynamic = [](const TweakDescriptor& tweak) { return tweak.isDynamic; };
    EXPECT_EQ(5, std::ranges::count_if(TweakCatalogue, isDynamic));
    EXPECT_EQ(31U, TweakCatalogue.size());
}

} // namespace
