#include "datapath/common/infra/InputTextFile.h"
#include "platform/Text.h"
#include "tests/support/Support.h"

#include <sstream>

#include <gtest/gtest.h>

namespace
{

std::string readAll(const std::string& path)
{
    InputTextFile file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(InputTextFile, CarriageReturnsBeforeLineFeedsDisappearWhereverAReadEnds)
{
    const ScratchFolder folder;
    const std::string path = folder.write("small", "a\r\nb\rc\r\r\n\r\n\r");
    const std::string expected = "a\nb\rc\r\n\n\r";
    EXPECT_EQ(expected, readAll(path));
    EXPECT_EQ("", readAll(folder.write("empty", "")));
    const std::string large(100'000, 'x'); // more than one read takes
    EXPECT_EQ(large + "\n", readAll(folder.write("large", large + "\r\n")));
    const std::string marked = folder.write("marked", "a\r\n\r\x1A\nb");
    const std::string expectedOfMarked = platform::LINE_END == "\r\n" ? "a\n\r" : "a\n\r\x1A\nb";
    EXPECT_EQ(expectedOfMarked, readAll(marked));

    const ScopedReplacement oneByteReads(
        platform::fileCalls.readFile, +[](platform::FileHandle file, void* buffer, std::size_t) {
            return platform::fileCalls.readFile.original(file, buffer, 1);
        });
    EXPECT_EQ(expected, readAll(path));
    EXPECT_EQ(expectedOfMarked, readAll(marked));
}

} // namespace
