// The program from its entry point on, over replaced dialog and process calls and a real settings file.

#include "Agent/CheckpointGui/AgentLauncher.h"
#include "Agent/CheckpointGui/CheckpointDialog.h"
#include "platform/Entry.h"
#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/Shell.h"
#include "tests/support/Support.h"

#include <cstring>
#include <tuple>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

std::u16string editText;
std::u16string startedCommandLine;
std::string programPath;
std::string appDataFolder;
std::string calls;

struct CheckpointProgram : testing::Test
{
    CheckpointProgram()
    {
        programPath = folder.path("program.exe");
        appDataFolder = folder.path("");
    }

    const ScratchFolder folder;
    const CapturingClient client;
    const ScopedReplacement replacements[7] = {
        {shellCalls.commonAppDataFolder, [](char* buffer) { return std::strcpy(buffer, appDataFolder.c_str()), 0; }},
        {dialogCalls.endDialog,
         [](DialogHandle, std::intptr_t result) { return calls += "end " + std::to_string(result) + ";", true; }},
        {dialogCalls.dialogItem,
         [](DialogHandle, int id) { return reinterpret_cast<ControlHandle>(std::intptr_t{id}); }},
        {dialogCalls.enableControl,
         [](ControlHandle control, bool enable) {
             EXPECT_EQ(1, reinterpret_cast<std::intptr_t>(control));
             return calls += enable ? "enable 1;" : "disable 1;", true;
         }},
        {dialogCalls.sendItemMessage,
         [](DialogHandle, int id, std::uint32_t message, std::uintptr_t wParam, std::intptr_t lParam) -> std::intptr_t {
             EXPECT_TRUE(id == 1002 && wParam == 0);
             if (message == MESSAGE_EDIT_LINE_LENGTH)
             {
                 return static_cast<std::intptr_t>(editText.size());
             }
             auto* const buffer = reinterpret_cast<char16_t*>(lParam);
             return static_cast<std::intptr_t>(editText.copy(buffer, *buffer));
         }},
        {processCalls.moduleFileName,
         [](char* buffer, std::uint32_t size) {
             EXPECT_EQ(260U, size);
             std::strcpy(buffer, programPath.c_str());
             return static_cast<std::uint32_t>(programPath.size());
         }},
        {processCalls.createProcess,
         [](std::u16string& commandLine) {
             return startedCommandLine = commandLine, calls += "start;", ErrorNumber::FileNotFound;
         }},
    };
};

TEST_F(CheckpointProgram, AnswersItsDialogAndFlushesLast)
{
    const ScopedReplacement dialog(
        dialogCalls.runDialog, [](ModuleHandle module, int dialogId, DialogProcedure procedure) -> std::intptr_t {
            EXPECT_TRUE(module == &calls && dialogId == 101);
            using Step = std::tuple<const char16_t*, std::uint32_t, std::uintptr_t, std::intptr_t, const char*>;
            for (const auto& [text, message, control, result, done] :
                 {Step{u"", MESSAGE_INIT_DIALOG, 0, 1, ""},
                  {u"", MESSAGE_COMMAND, 0x0300U << 16U | 1002U, 0, "disable 1;"},
                  {u"x", MESSAGE_COMMAND, 0x0300U << 16U | 1002U, 0, "enable 1;"},
                  {u"", MESSAGE_COMMAND, 0x0100U << 16U | 1002U, 0, ""}, // the edit got the focus
                  {u"", MESSAGE_COMMAND, 0x0300U << 16U | 1003U, 0, ""}, // another control changed
                  {u"", 0x000F, 0, 0, ""},
                  {u"x", MESSAGE_COMMAND, CONTROL_OK, 1, "start;end 1;"},
                  {u"", MESSAGE_COMMAND, CONTROL_CANCEL, 1, "end 1;"}})
            {
                editText = text;
                calls.clear();
                EXPECT_EQ(result, procedure(nullptr, message, control, 0));
                EXPECT_EQ(done, calls);
            }
            return 1;
        });
    EXPECT_EQ(0, wWinMain(&calls, nullptr, nullptr, 0));
    EXPECT_EQ(1, client.count("Info,NON,,Checkpoint,IDCANCEL"));
    EXPECT_EQ(5, client.flushes()); // for four Error lines (three tweak files, the agent) and at the end
}

TEST_F(CheckpointProgram, RunsWithoutALogWhereItsFolderCannotBe)
{
    const ScopedReplacement dialog(dialogCalls.runDialog,
                                   [](ModuleHandle, int, DialogProcedure) -> std::intptr_t { return 0; });
    appDataFolder = folder.path("no/such");
    const auto run = [] { EXPECT_EQ(0, wWinMain(nullptr, nullptr, nullptr, 0)); };
    EXPECT_EQ("failed to create directory lastError=3 \n", stdoutOf(run));
    const ScopedReplacement noFolder(shellCalls.commonAppDataFolder, [](char*) { return -1; });
    EXPECT_EQ("", stdoutOf(run));
}

TEST_F(CheckpointProgram, ASettingThatCannotBeReadToItsEndStaysEmpty)
{
    folder.write("program.exe.conf", "host 80");
    const ScopedReplacement secondReadFails(
        fileCalls.readFile, +[](FileHandle file, void* buffer, std::size_t size) {
            static int reads = 0;
            return ++reads == 1 ? fileCalls.readFile.original(file, buffer, size) : Transfer{0, ErrorNumber::IoDevice};
        });
    runAgent(u"torn");
    EXPECT_EQ(u"TavroVssAgent.exe -GUI host    \"torn\"", startedCommandLine);
}

TEST_F(CheckpointProgram, NamesArriveWholeUpToTheLengthThatOneWordHolds)
{
    const auto nameOf = [](std::u16string text) {
        editText = std::move(text);
        return getCheckpointName(nullptr);
    };
    EXPECT_EQ(std::u16string(65'535, u'\u0416'), nameOf(std::u16string(65'535, u'\u0416')));
    EXPECT_EQ(u"xxx", nameOf(std::u16string(65'536 + 3, u'x')));
    EXPECT_EQ(u"", nameOf(std::u16string(65'536, u'x')));
    EXPECT_EQ(u"ab", nameOf(std::u16string(u"ab\0cd", 5)));
}

} // namespace
