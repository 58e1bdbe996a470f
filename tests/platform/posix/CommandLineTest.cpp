#include "platform/posix/CommandLine.h"

#include <gtest/gtest.h>

namespace
{

using Arguments = std::vector<std::string>;
using platform::posix::splitCommandLine;

TEST(CommandLine, ArgumentsAreSplitAsProgramsOnWindowsSeeThem)
{
    EXPECT_EQ((Arguments{"agent.exe", "-GUI", "a", "b c"}), splitCommandLine("agent.exe -GUI  a\t\"b c\""));
    EXPECT_EQ((Arguments{"agent.exe", "-GUI", ""}), splitCommandLine("agent.exe -GUI     \"\""));
    EXPECT_EQ((Arguments{"a", "x\\y", "\\\\z\\"}), splitCommandLine("a x\\y \\\\z\\"));
    EXPECT_EQ((Arguments{"a", "x\"y", "x\\", "x\\\"y z"}), splitCommandLine("a x\\\"y \"x\\\\\" \"x\\\\\\\"y z\""));
    EXPECT_EQ((Arguments{"a", "one\"two three"}), splitCommandLine("a \"one\"\"two three\""));
    EXPECT_EQ((Arguments{"a", "ends", "early", "x"}), splitCommandLine("a \"ends\" early\"\" \"x"));
    EXPECT_EQ((Arguments{"a", "open to the end "}), splitCommandLine("a \"open to the end "));
}

TEST(CommandLine, TheProgramsTokenKnowsQuotesOnly)
{
    EXPECT_EQ((Arguments{"C:\\my files\\agent.exe", "x"}), splitCommandLine("\"C:\\my files\\agent.exe\" x"));
    EXPECT_EQ((Arguments{"dir\\", "x"}), splitCommandLine("\"dir\\\" x"));
    EXPECT_EQ((Arguments{""}), splitCommandLine(""));
}

} // namespace
