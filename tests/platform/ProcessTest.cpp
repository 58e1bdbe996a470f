// The contract of the running program's path. What starting a program does is seen by the tests that
// drive the finished program.

#include "platform/Process.h"

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
    EXPECT_NE(std::string::npos, path.find("\\unit_tests"));

    std::array<char, 8> small{};
    EXPECT_EQ(small.size(), moduleFileName(small.data(), small.size()));
    EXPECT_EQ(path.substr(0, small.size() - 1), small.data());
}

TEST(Process, ProgramsThatCannotBeStartedAreRefusedWithTheSystemsNumber)
{
    std::u16string missing = u"no-such-program-anywhere.exe argument";
    EXPECT_EQ(ErrorNumber::FileNotFound, createProcess(missing));
    std::u16string inMissingFolder = u"no-such-folder\\program.exe";
    EXPECT_NE(ErrorNumber::Success, createProcess(inMissingFolder));
}

} // namespace
