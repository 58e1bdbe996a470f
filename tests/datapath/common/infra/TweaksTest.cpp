#include "datapath/common/infra/Tweaks.h"

#include "datapath/common/infra/DynamicTweaks.h"
#include "tests/support/Support.h"

#include <array>
#include <sstream>

#include <gtest/gtest.h>

namespace
{

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
    for (const auto& [text, printed] : std::map<std::string, std::string>{
             {"oN", "1"}, {"\"No\"", "0"}, {"0X-f", "-15"}, {"-0x10", "0"}, {"12abc", "12"}, {"\" on \"", "\" on \""}})
    {
        EXPECT_EQ(printed, Tweaks::Tweak(text).toString()) << text;
    }
    for (const char* const text : {"", "yes!", "0x", "9223372036854775808", "\x80"})
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
    Tweaks& tweaks = Tweaks::instance();
    const auto set = [&](const char* text) -> Tweaks& { return (tweaks.update("t_x", text), tweaks); };
    EXPECT_EQ(2147483647, set("2147483647").intVal("T_X"));
    EXPECT_EQ(-2147483647, set("-2147483647").intVal("t_x"));
    EXPECT_EQ(4294967295, set("0xFFFFFFFF").uintVal("t_x"));
    EXPECT_TRUE(set("-3").boolVal("t_x"));
    EXPECT_FALSE(set("0x0").boolVal("t_x", true));
    EXPECT_EQ(-7, tweaks.intVal("t_missing", -7));
    EXPECT_EQ(4294967295, tweaks.uintVal("t_missing", 4294967295));
    EXPECT_TRUE(tweaks.boolVal("t_missing", true));

    expectAssertion("Tweaks,intVal,Assertion (ival <= ((u32)-1) / 2", 524,
                    [&] { return set("2147483648").intVal("t_x"); });
    expectAssertion("Tweaks,intVal,Assertion (-1 * ival <= ((u32)-1) / 2", 525,
                    [&] { return set("-2147483648").intVal("t_x"); });
    expectAssertion("Tweaks,uintVal,Assertion (ival <= ((u32)-1)", 536,
                    [&] { return set("4294967296").uintVal("t_x"); });
    set("\"s\"");
    expectAssertion("Tweaks::Tweak,longVal,Assertion (false", 123, [&] { return tweaks.boolVal("t_x"); });
    EXPECT_EQ(1, client.count("Error,NON,Tweaks::Tweak,longVal,value is not int"));
    expectAssertion("Tweaks,longVal,Assertion (false", 497, [&] { return tweaks.uintVal("T_none"); });
    EXPECT_EQ(1, client.count("Error,NON,Tweaks,longVal,tweak \"T_none\" not found"));
}

TEST_F(TweaksTest, AnExtensionTextReturnsItsLinesAndIsAppliedOnlyWhileTheTableIsMade)
{
    folder.write("tweaks_extension.txt", "t_a = 3");
    Tweaks& tweaks = Tweaks::instance();
    std::istringstream text("t_a = 1 ; first\nT_B=2;;\nno value\n t_a\t=\t1 \r\n;\n = \"x = y\" ;\r\n");
    client.newMessages();
    Texts fields;
    for (const TweakLine& line : tweaks.applyExtensionText(text))
    {
        fields.push_back(line.name + "|" + line.valueText + "|" + line.comment);
    }
    const std::string repeated = "t_a|1|Multiple definitions of this tweak, pick one.";
    EXPECT_EQ((Texts{repeated, "T_B|2|;", repeated, "|\"x = y\"|"}), fields);
    EXPECT_EQ("Assert,NON,Tweaks,update, datapath/common/infra/Tweaks.cpp 228: isPeriodicUpdate || !m_isInitialized "
              "failed. Trying to update non-periodically after initialization",
              client.newMessages().at(0));
    EXPECT_EQ(2, client.count("Error,NON,Tweaks,update,multiple definition for tweak \"t_a\""));
    EXPECT_EQ(3 + 2, tweaks.longVal("t_a") + tweaks.longVal("t_b"));
}

TEST_F(TweaksTest, DynamicMembersFollowTheTable)
{
    Tweaks& tweaks = Tweaks::instance();
    const DynamicTweaks& dynamic = DynamicTweaks::instance();
    tweaks.update("t_deadlockCheckerIntervalSec", "61");
    EXPECT_EQ(61, dynamic.t_deadlockCheckerIntervalSec);
    tweaks.update("t_deadlockCheckerIntervalSec", "");
    EXPECT_EQ(DEADLOCK_CHECKER_INTERVAL_SEC.defaultVal, dynamic.t_deadlockCheckerIntervalSec);

    using Switches = std::array<bool, 5>;
    for (const auto& [name, effect] :
         std::map<std::string, Switches>{{"t_IOVerboseLogs", {false, true, true, true, true}},
                                         {"t_KrnBackupVerboseLogs", {true, false, false, false, false}},
                                         {"t_KrnRestoreVerboseLogs", {true, false, false, false, false}},
                                         {"t_httpCurlVerbose", {false, true, false, false, false}},
                                         {"t_StreamReaderVerboseLogs", {false, false, true, false, false}},
                                         {"t_KrnPorterVerboseLogs", {false, false, false, true, false}},
                                         {"t_BatchIOVerboseLogs", {false, false, false, false, true}},
                                         {"t_CloudVerboseLogs", {false, false, false, false, true}}})
    {
        tweaks.update(name, "on");
        EXPECT_EQ(effect,
                  (Switches{dynamic.krnBackupOrRestoreVerbose, dynamic.curlOrIoVerbose, dynamic.streamReaderOrIoVerbose,
                            dynamic.krnPorterOrIoVerbose, dynamic.batchIoOrCloudOrIoVerbose}))
            << name;
        tweaks.update(name, "");
    }
    expectAssertion("Tweaks::Tweak,longVal,Assertion (false", 123, [&] { tweaks.update("t_IOVerboseLogs", "\"x\""); });
}

} // namespace
