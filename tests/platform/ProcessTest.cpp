// The contract of the running program's path, and of programs that cannot be started. The tests of the finished program
// show what starting one does.

#include "platform/Process.h"
#include "platform/Text.h"
#include "tests/support/Support.h"

#include <array>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

TEST(Process, TheProgramsPathIsWholeOrCutToTheBuffer)
{
    std::array<char, 1024> whole{};
    const std::uint32_t length = moduleFileName(whole.data(), whole.size());
    const std::string path(whole.data());
    EXPECT_EQ(path.size(), length);
    EXPECT_NE(std::string::npos, path.find(PATH_SEPARATOR + std::string("unit_tests")));

    std::array<char, 8> small{};
    EXPECT_EQ(small.size(), moduleFileName(small.data(), small.size()));
    EXPECT_EQ(path.substr(0, small.size() - 1), small.data());
}

TEST(Process, ProgramsThatCannotBeStartedAreRefusedWithTheSystemsNumber)
{
    const ScratchFolder folder;
    const auto start = [](const std::string& path) {
        std::u16string commandLine(path.begin(), path.end());
        return createProcess(commandLine);
    };
    EXPECT_EQ(ErrorNumber::FileNotFound, start("no-such-program-anywhere.exe argument"));
    EXPECT_EQ(ErrorNumber::FileNotFound, start(folder.path("missing.exe")));
    // Wine reports a missing file in the next two cases.
    const ErrorNumber inMissingFolder = start(folder.path("missing/program.exe"));
    EXPECT_TRUE(inMissingFolder == ErrorNumber::PathNotFound || inMissingFolder == ErrorNumber::FileNotFound);
    const ErrorNumber ofFolder = start(folder.path(""));
    EXPECT_TRUE(ofFolder == ErrorNumber::AccessDenied || ofFolder == ErrorNumber::FileNotFound);
    const std::string text = folder.write("text.exe", "no program at all");
    std::filesystem::permissions(folder.path("text.exe"), std::filesystem::perms::owner_all);
    EXPECT_EQ(ErrorNumber::BadExecutable, start(text));
}

} // namespace
