#include "datapath/common/infra/InputTextFile.h"
#include "platform/Text.h"
#include "tests/support/Support.h"

#include <sstream>

#include <gtest/gtest.h>

namespace
{

using platform::ErrorNumber;
using platform::FileHandle;
using platform::Transfer;

std::string readAll(const std::string& path)
{
    InputTextFile file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

Transfer (*realRead)(FileHandle, void*, std::size_t) = platform::fileCalls.readFile;

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

    realRead = platform::fileCalls.readFile;
    const ScopedReplacement oneByteReads(
        platform::fileCalls.readFile,
        +[](FileHandle file, void* buffer, std::size_t) { return realRead(file, buffer, 1); });
    EXPECT_EQ(expected, readAll(path));
    EXPECT_EQ(expectedOfMarked, readAll(marked));
}

TEST(InputTextFile, FailuresAreNoEndOfAText)
{
    const ScratchFolder folder;
    InputTextFile missing(folder.path("missing"));
    EXPECT_FALSE(missing.isOpen());
    EXPECT_TRUE(missing.fail());

    static int reads = 0;
    realRead = platform::fileCalls.readFile;
    const ScopedReplacement secondReadFails(
        platform::fileCalls.readFile, +[](FileHandle file, void* buffer, std::size_t size) {
            return ++reads == 1 ? realRead(file, buffer, size) : Transfer{0, ErrorNumber::IoDevice};
        });
    InputTextFile broken(folder.write("text", "one two"));
    std::string word;
    EXPECT_TRUE(broken >> word);
    EXPECT_FALSE(broken >> word);
    EXPECT_TRUE(broken.bad());
}

} // namespace
