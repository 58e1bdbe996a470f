// The dialog procedure over replaced dialog and process calls.

#include "Agent/CheckpointGui/CheckpointDialog.h"
#include "platform/Entry.h"
#include "platform/Process.h"
#include "tests/support/Support.h"

#include <gtest/gtest.h>

namespace
{

using namespace platform;

std::u16string editText;
std::string calls;
std::u16string startedCommandLine;

constexpr std::uintptr_t EDIT_CHANGED = 0x0300U << 16U | 1002U;

class CheckpointDialog : public testing::Test
{
protected:
    CheckpointDialog()
    {
        editText.clear();
        calls.clear();
        dialogCalls = {
            .runDialog = nullptr,
            .endDialog =
                [](DialogHandle, std::intptr_t result) {
                    calls += "end " + std::to_string(result) + ";";
                    return true;
                },
            .dialogItem = [](DialogHandle, int id) { return reinterpret_cast<ControlHandle>(std::intptr_t{id}); },
            .enableControl =
                [](ControlHandle control, bool enable) {
                    calls += (enable ? "enable " : "disable ") +
                             std::to_string(reinterpret_cast<std::intptr_t>(control)) + ";";
                    return true;
                },
            .sendItemMessage = [](DialogHandle, int id, std::uint32_t message, std::uintptr_t wParam,
                                  std::intptr_t lParam) -> std::intptr_t {
                EXPECT_EQ(1002, id);
                EXPECT_EQ(0U, wParam);
                if (message == MESSAGE_EDIT_LINE_LENGTH)
                {
                    EXPECT_EQ(0, lParam);
                    return static_cast<std::intptr_t>(editText.size());
                }
                auto* const buffer = reinterpret_cast<char16_t*>(lParam);
                return static_cast<std::intptr_t>(editText.copy(buffer, *buffer));
            },
        };
        processCalls.createProcess = [](std::u16string& commandLine) {
            startedCommandLine = commandLine;
            calls += "start;";
            return ErrorNumber::Success;
        };
    }
};

TEST_F(CheckpointDialog, OkFollowsTheNameAndStartsTheAgent)
{
    static CapturingClient client;
    EXPECT_EQ(1, Checkpoint(nullptr, MESSAGE_INIT_DIALOG, 0, 0));
    EXPECT_EQ(0, Checkpoint(nullptr, MESSAGE_COMMAND, EDIT_CHANGED, 0));
    editText = u"nightly";
    EXPECT_EQ(0, Checkpoint(nullptr, MESSAGE_COMMAND, EDIT_CHANGED, 0));
    EXPECT_EQ(0, Checkpoint(nullptr, MESSAGE_COMMAND, 0x0100U << 16U | 1002U, 0)); // the edit control got the focus
    EXPECT_EQ(0, Checkpoint(nullptr, MESSAGE_COMMAND, 0x0300U << 16U | 1003U, 0)); // another control changed
    EXPECT_EQ(0, Checkpoint(nullptr, 0x000F, 0, 0));
    EXPECT_EQ(1, Checkpoint(nullptr, MESSAGE_COMMAND, CONTROL_OK, 0));
    EXPECT_EQ("disable 1;enable 1;start;end 1;", calls);
    EXPECT_TRUE(startedCommandLine.ends_with(u" \"nightly\""));
    EXPECT_EQ("Info,NON,,Checkpoint,IDOK", client.messages().front());
}

TEST_F(CheckpointDialog, NamesArriveWholeUpToTheLengthThatOneWordHolds)
{
    editText = std::u16string(65'535, u'\u0416');
    EXPECT_EQ(editText, getCheckpointName(nullptr));
    editText = std::u16string(65'536 + 3, u'x');
    EXPECT_EQ(u"xxx", getCheckpointName(nullptr));
    editText = std::u16string(65'536, u'x');
    EXPECT_EQ(u"", getCheckpointName(nullptr));
    editText = std::u16string(u"ab\0cd", 5);
    EXPECT_EQ(u"ab", getCheckpointName(nullptr));
}

TEST_F(CheckpointDialog, TheEntryPointShowsTheDialogBetweenItsLinesAndFlushesLast)
{
    static CapturingClient client;
    dialogCalls.runDialog = [](ModuleHandle module, int dialogId, DialogProcedure procedure) {
        EXPECT_EQ(&client, module);
        EXPECT_EQ(101, dialogId);
        EXPECT_EQ(0, client.flushes());
        return procedure(nullptr, MESSAGE_COMMAND, CONTROL_CANCEL, 0);
    };
    EXPECT_EQ(0, wWinMain(&client, nullptr, nullptr, 0));
    EXPECT_EQ((std::vector<std::string>{"Info,NON,,wWinMain,Invoked.", "Info,NON,,wWinMain,Showing dialog...",
                                        "Info,NON,,Checkpoint,IDCANCEL", "Info,NON,,wWinMain,Done."}),
              client.messages());
    EXPECT_EQ(1, client.flushes());
}

} // namespace
