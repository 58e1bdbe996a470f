#include "datapath/common/infra/ConsistentFile.h"

#include "datapath/common/infra/Crc32.h"
#include "datapath/common/infra/windows/Directories.h"
#include "platform/Files.h"
#include "platform/Text.h"
#include "tests/support/Support.h"

#include <random>
#include <sstream>

#include <gtest/gtest.h>

namespace
{

using platform::ErrorNumber;

struct ConsistentFileTest : LogTest
{
    /// Both files of a copy, the signature right for lines that each end with a line feed.
    void write(int slot, const std::string& sequence, const std::string& text) const
    {
        Crc32 crc;
        crc.update(text);
        const std::string name = "file." + std::to_string(slot);
        folder.write(name, text);
        folder.write(name + ".sig", sequence + "\n" + std::to_string(crc.value()) + "\n");
    }
};

TEST_F(ConsistentFileTest, TellsWhereTheNextCopyGoes)
{
    const auto nextOf = [](const ConsistentFile& file) {
        return std::to_string(file.nextSlot()) + ":" + std::to_string(file.nextSequence());
    };
    const std::string path = folder.path("file");
    EXPECT_EQ("0:1", nextOf(ConsistentFile(path)));
    write(0, "4", "zero\n");
    EXPECT_EQ("1:5", nextOf(ConsistentFile(path)));
    write(1, "5", "one\n");
    ConsistentFile file(path);
    EXPECT_EQ("0:6", nextOf(file));
    write(0, " \t+18446744073709551614 x", "newest\n");
    std::ostringstream text;
    EXPECT_EQ(RC_OK, file.load(text));
    EXPECT_EQ("newest\n", text.str());
    EXPECT_EQ("1:18446744073709551615", nextOf(file));
    write(0, "x", "no number\n");
    EXPECT_EQ(RC_OK, file.load(text));
    EXPECT_EQ("newest\none\n", text.str());
}

TEST_F(ConsistentFileTest, ACopyThatVanishesWhileItIsLoadedIsAnError)
{
    write(1, "1", "text\n");
    ConsistentFile file(folder.path("file"));
    static const auto realOpen = platform::fileCalls.openFile;
    static int openings = 0;
    const ScopedReplacement fifthOpeningFails(
        platform::fileCalls.openFile, +[](const char* path, platform::OpenMode mode) {
            return ++openings < 5 ? realOpen(path, mode)
                                  : platform::OpenedFile{platform::FileHandle::Invalid, ErrorNumber::FileNotFound};
        });
    std::ostringstream text;
    EXPECT_EQ(RC_ERROR, file.load(text));
    EXPECT_EQ("", text.str());
    EXPECT_EQ("Error,NON,ConsistentFile,load,Could not open file for read: " + folder.path("file.1"), client.last());
}

TEST_F(ConsistentFileTest, ATextThatCouldNotBeReadToItsEndIsNeverTakenForWhole)
{
    write(0, "1", "one\ntwo\n");
    ConsistentFile file(folder.path("file"));
    static const auto realRead = platform::fileCalls.readFile;
    static int readsBeforeTheError = 0;
    const ScopedReplacement oneByteReads(
        platform::fileCalls.readFile, +[](platform::FileHandle handle, void* buffer, std::size_t) {
            return readsBeforeTheError-- == 0 ? platform::Transfer{0, ErrorNumber::IoDevice}
                                              : realRead(handle, buffer, 1);
        });
    int failures = 0;
    for (bool isFaultMet = true; isFaultMet; ++failures)
    {
        readsBeforeTheError = failures;
        std::ostringstream text;
        const RcStatus status = file.load(text);
        isFaultMet = readsBeforeTheError < 0;
        EXPECT_EQ(isFaultMet ? RC_ERROR : RC_OK, status) << failures;
    }
    EXPECT_GT(failures, 20);
    EXPECT_EQ("1:2", std::to_string(file.nextSlot()) + ":" + std::to_string(file.nextSequence()));
}

TEST_F(ConsistentFileTest, LoadsOfOneObjectDoNotMix)
{
    std::string lines;
    repeat(1000, [&, i = 0]() mutable { lines += std::to_string(i++) + "\n"; });
    write(0, "1", lines);
    ConsistentFile file(folder.path("file"));
    runInThreads(4, [&](int) {
        std::ostringstream text;
        EXPECT_EQ(RC_OK, file.load(text));
        EXPECT_EQ(lines, text.str());
    });
}

using DirectoriesTest = LogTest;

TEST_F(DirectoriesTest, CreatesTheFolderAndItsParentButNoLongerChain)
{
    Directories::ensureExists(folder.path("a/b/"));
    Directories::ensureExists(folder.path("a/b"));
    Directories::ensureExists(folder.write("plain", "") + platform::PATH_SEPARATOR);
    EXPECT_TRUE(std::filesystem::is_directory(folder.path("a/b")));
    EXPECT_TRUE(client.messages().empty());

    const std::string path = folder.path("x/y/z");
    EXPECT_EQ("mkdir failed for parent " + folder.path("x/y") + " and it does not exist\n",
              stderrOf([&] { Directories::ensureExists(path); }));
    EXPECT_EQ("Assert,NON,Directories,ensureExists, datapath/common/infra/windows/Directories.cpp 48: "
              "(*_errno()) == 17 failed. mkdir failed for dir " +
                  path + " and it does not exist",
              client.messages().at(0));
    EXPECT_FALSE(std::filesystem::exists(folder.path("x")));
}

} // namespace
