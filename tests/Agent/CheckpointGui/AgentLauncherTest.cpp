// The launch over replaced process calls and a real settings file.

#include "Agent/CheckpointGui/AgentLauncher.h"
#include "platform/Files.h"
#include "platform/Process.h"
#include "tests/support/Support.h"

#include <cstring>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

std::string programPath;
std::u16string startedCommandLine;

class AgentLauncher : public testing::Test
{
protected:
    AgentLauncher()
    {
        programPath = folder.path("program.exe");
        processCalls.moduleFileName = [](char* buffer, std::uint32_t size) {
            EXPECT_EQ(260U, size);
            std::strcpy(buffer, programPath.c_str());
            return static_cast<std::uint32_t>(programPath.size());
        };
        processCalls.createProcess = [](std::u16string& commandLine) {
            startedCommandLine = commandLine;
            return ErrorNumber::Success;
        };
    }

    ScratchFolder folder;
};

TEST_F(AgentLauncher, EveryPieceIsLoggedAndTheAgentStartedWithThem)
{
    static CapturingClient client;
    folder.write("program.exe.conf", "\t10.0.0.1  80\r\npeer\n\n90 ignored\n");
    runAgent(u"\u00e9 \U0001F600");
    EXPECT_EQ(u"TavroVssAgent.exe -GUI 10.0.0.1 80 peer 90 \"\u00e9 \U0001F600\"", startedCommandLine);
    const std::string head = "Info,NON,,runAgent,";
    EXPECT_EQ((std::vector<std::string>{
                  head + "GetModuleFileNameA retrieved the following file name: " + programPath,
                  head + "Configuration file name: " + programPath + ".conf", head + "localURL: 10.0.0.1",
                  head + "localPort: 80", head + "peerURL: peer", head + "peerPort: 90",
                  head + "cmdline: TavroVssAgent.exe -GUI 10.0.0.1 80 peer 90 \"\xC3\xA9 \xF0\x9F\x98\x80\""}),
              client.messages());
}

TEST_F(AgentLauncher, MissingSettingsStayEmptyAndBytesAreWidenedOneByOne)
{
    runAgent(u"");
    EXPECT_EQ(u"TavroVssAgent.exe -GUI     \"\"", startedCommandLine);
    folder.write("program.exe.conf", "h\xC3\xB6st 80");
    runAgent(u"a\"b");
    EXPECT_EQ(u"TavroVssAgent.exe -GUI h\u00c3\u00b6st 80   \"a\"b\"", startedCommandLine);
}

TEST_F(AgentLauncher, ARefusedLaunchIsLoggedWithTheSystemsNumber)
{
    static CapturingClient client;
    processCalls.createProcess = [](std::u16string&) { return ErrorNumber::FileNotFound; };
    runAgent(u"name");
    EXPECT_EQ("Error,NON,,runAgent,Error 2 in CreateProcessW.", client.messages().back());
    EXPECT_EQ(1, client.flushes());
}

} // namespace
