// The program from its entry point on, over replaced dialog and process calls and a real settings file.

#include "Agent/CheckpointGui/AgentLauncher.h"
#include "Agent/CheckpointGui/CheckpointDialog.h"
#include "datapath/common/infra/MemShield.h"
#include "platform/Entry.h"
#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/Shell.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

constexpr std::uintptr_t EDIT_CHANGED = 0x0300U << 16U | 1002U;

std::u16string editText;
std::u16string startedCommandLine;
std::string programPath;
std::string appDataFolder;
std::string calls;
CapturingClient* client = nullptr;

/// Of the thread that makes it: lines of the others come when they come.
struct OwnLines : CapturingClient
{
    void log(const std::string& line) override
    {
        if (currentThreadId() == thread)
        {
            CapturingClient::log(line);
        }
    }
    const std::uint32_t thread = currentThreadId();
};

class CheckpointProgram : public testing::Test
{
protected:
    CheckpointProgram()
    {
        static auto* const capturing = new OwnLines; // stays registered
        client = capturing;
        programPath = folder.path("program.exe");
        appDataFolder = folder.path("");
    }

    ScratchFolder folder;
    const ScopedReplacement replacements[7] = {
        {shellCalls.commonAppDataFolder,
         [](char* buffer) {
             std::strcpy(buffer, appDataFolder.c_str());
             return 0;
         }},
        {dialogCalls.endDialog,
         [](DialogHandle, std::intptr_t result) {
             calls += "end " + std::to_string(result) + ";";
             return true;
         }},
        {dialogCalls.dialogItem,
         [](DialogHandle, int id) { return reinterpret_cast<ControlHandle>(std::intptr_t{id}); }},
        {dialogCalls.enableControl,
         [](ControlHandle control, bool enable) {
             calls +=
                 (enable ? "enable " : "disable ") + std::to_string(reinterpret_cast<std::intptr_t>(control)) + ";";
             return true;
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
             startedCommandLine = commandLine;
             calls += "start;";
             return ErrorNumber::FileNotFound;
         }},
    };
};

TEST_F(CheckpointProgram, LogsEveryStepFromItsStartToItsEndAndFlushesLast)
{
    folder.write("tweaks_extension.txt", "T_ENABLEMEMSHIELD = Off\nt_fileLoggerEnabled = 1\n");
    folder.enter();
    folder.write("program.exe.conf", "\t10.0.0.1  80\r\npeer\n\n90 ignored\n");
    const ScopedReplacement dialog(
        dialogCalls.runDialog, [](ModuleHandle module, int dialogId, DialogProcedure procedure) -> std::intptr_t {
            EXPECT_TRUE(module == client && dialogId == 101);
            EXPECT_EQ(1, procedure(nullptr, MESSAGE_INIT_DIALOG, 0, 0));
            EXPECT_EQ(0, procedure(nullptr, MESSAGE_COMMAND, EDIT_CHANGED, 0));
            editText = u"\u00e9 \U0001F600";
            EXPECT_EQ(0, procedure(nullptr, MESSAGE_COMMAND, EDIT_CHANGED, 0));
            EXPECT_EQ(0, procedure(nullptr, MESSAGE_COMMAND, 0x0100U << 16U | 1002U, 0)); // the edit got the focus
            EXPECT_EQ(0, procedure(nullptr, MESSAGE_COMMAND, 0x0300U << 16U | 1003U, 0)); // another control changed
            EXPECT_EQ(0, procedure(nullptr, 0x000F, 0, 0));
            EXPECT_EQ(1, procedure(nullptr, MESSAGE_COMMAND, CONTROL_OK, 0));
            EXPECT_EQ("disable 1;enable 1;start;end 1;", calls);
            return procedure(nullptr, MESSAGE_COMMAND, CONTROL_CANCEL, 0);
        });
    EXPECT_EQ(0, wWinMain(client, nullptr, nullptr, 0));
    EXPECT_EQ(u"TavroVssAgent.exe -GUI 10.0.0.1 80 peer 90 \"\u00e9 \U0001F600\"", startedCommandLine);
    EXPECT_FALSE(MemShield::isEnabled());
    const std::string head = "Info,NON,,";
    std::vector<std::string> messages = client->messages();
    const auto start = std::ranges::find(messages, head + "wWinMain,Invoked.");
    const std::string listing = "Control,NON,Tweaks,print,";
    EXPECT_EQ((std::vector<std::string>{listing + "T_ENABLEMEMSHIELD=0", listing + "t_FileLoggerCompressOnRotate=1",
                                        listing + "t_fileLoggerEnabled=1", listing + "t_qlogMaxFiles=3",
                                        listing + "t_requesterEventWaitForSharedMemoryReadTimeoutMsec=80000",
                                        listing + "t_requesterEventWaitForThawStartTimeoutMsec=9500",
                                        listing + "t_requesterQuiescedEventWaitTimeoutMsec=72000",
                                        listing + "t_runnerEventFreezeCompleteTimeoutMsec=75000",
                                        listing + "t_runnerEventThawCompleteTimeoutMsec=15000",
                                        listing + "t_WaitAsyncTimeoutMsec=62000"}),
              std::vector<std::string>(start - 10, start));
    messages.erase(messages.begin(), start);
    EXPECT_EQ(
        (std::vector<std::string>{
            head + "wWinMain,Invoked.", head + "wWinMain,Showing dialog...", head + "Checkpoint,IDOK",
            head + "runAgent,GetModuleFileNameA retrieved the following file name: " + programPath,
            head + "runAgent,Configuration file name: " + programPath + ".conf", head + "runAgent,localURL: 10.0.0.1",
            head + "runAgent,localPort: 80", head + "runAgent,peerURL: peer", head + "runAgent,peerPort: 90",
            head + "runAgent,cmdline: TavroVssAgent.exe -GUI 10.0.0.1 80 peer 90 "
                   "\"\xC3\xA9 \xF0\x9F\x98\x80\"",
            "Error,NON,,runAgent,Error 2 in CreateProcessW.", head + "Checkpoint,IDCANCEL", head + "wWinMain,Done."}),
        messages);
    EXPECT_EQ(4,
              client->flushes()); // of the Error lines about two missing tweak files and the agent, and the last of all

    const std::string ownId = "," + std::to_string(currentThreadId()) + ",";
    std::string logged = ScratchFolder::read(folder.path("Tavro/logs/TavroVssAgentGUI.exe.log.txt"));
    std::erase(logged, '\r');
    std::istringstream stream(logged);
    std::string written;
    for (std::string line; std::getline(stream, line);)
    {
        const bool isOwn = line.find(",NON,") == std::string::npos || line.find(ownId) != std::string::npos;
        written += isOwn ? line + "\n" : "";
    }
    const std::vector<std::string> lines = client->lines();
    std::string expected;
    for (auto line = std::ranges::find_if(lines, [](const auto& text) { return text.find("Control") < 30; });
         line != lines.end(); ++line)
    {
        expected += *line;
    }
    const std::string header = "time,level,thread,logger,method,message,exception\n";
    EXPECT_EQ(header + expected, written.substr(written.find(header)));
}

TEST_F(CheckpointProgram, RunsWithoutALogWhereItsFolderCannotBe)
{
    folder.enter();
    const ScopedReplacement dialog(dialogCalls.runDialog,
                                   [](ModuleHandle, int, DialogProcedure) -> std::intptr_t { return 0; });
    appDataFolder = folder.path("no/such");
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, wWinMain(nullptr, nullptr, nullptr, 0));
    EXPECT_EQ("failed to create directory lastError=3 \n", testing::internal::GetCapturedStdout());

    const ScopedReplacement noFolder(shellCalls.commonAppDataFolder, [](char*) { return -1; });
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, wWinMain(nullptr, nullptr, nullptr, 0));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST_F(CheckpointProgram, MissingSettingsStayEmptyAndBytesAreWidenedOneByOne)
{
    runAgent(u"");
    EXPECT_EQ(u"TavroVssAgent.exe -GUI     \"\"", startedCommandLine);
    folder.write("program.exe.conf", "h\xC3\xB6st 80");
    runAgent(u"a\"b");
    EXPECT_EQ(u"TavroVssAgent.exe -GUI h\u00c3\u00b6st 80   \"a\"b\"", startedCommandLine);

    static auto* const realRead = fileCalls.readFile;
    static int reads = 0;
    const ScopedReplacement secondReadFails(
        fileCalls.readFile, +[](FileHandle file, void* buffer, std::size_t size) {
            return ++reads == 1 ? realRead(file, buffer, size) : Transfer{0, ErrorNumber::IoDevice};
        });
    runAgent(u"torn");
    EXPECT_EQ(u"TavroVssAgent.exe -GUI h\u00c3\u00b6st    \"torn\"", startedCommandLine);
}

TEST_F(CheckpointProgram, NamesArriveWholeUpToTheLengthThatOneWordHolds)
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

} // namespace
