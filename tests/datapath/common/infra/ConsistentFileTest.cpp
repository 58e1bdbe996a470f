#include "datapath/common/infra/ConsistentFile.h"

#include "datapath/common/infra/base/Crc32.h"
#include "datapath/common/infra/windows/Directories.h"
#include "platform/Files.h"
#include "platform/Text.h"
#include "tests/support/Support.h"

#include <sstream>

#include <gtest/gtest.h>

namespace
{

using platform::ErrorNumber;

struct ConsistentFileTest : LogTest
{
    /// Writes both files of a copy. The signature matches if each line ends with a line feed.
    void write(int slot, const std::string& sequence, const std::string& text) const
    {
        Crc32 crc;
        crc.update(text);
        const std::string name = "file." + std::to_string(slot);
        folder.write(name, text);
        folder.write(name + ".sig", sequence + "\n" + std::to_string(crc.value()) + "\n");
    }

    static std::string nextOf(const ConsistentFile& file)
    {
        return std::to_string(file.nextSlot()) + ":" + std::to_string(file.nextSequence());
    }

    const std::string path = folder.path("file");
};

TEST_F(ConsistentFileTest, TellsWhereTheNextCopyGoes)
{
    EXPECT_EQ("0:1", nextOf(ConsistentFile(path)));
    write(0, "4", "zero\n");
    EXPECT_EQ("1:5", nextOf(ConsistentFile(path)));
    write(1, "5", "one\n");
    EXPECT_EQ("0:6", nextOf(ConsistentFile(path)));
    write(0, " \t+18446744073709551614 x", "newest\n");
    EXPECT_EQ("1:18446744073709551615", nextOf(ConsistentFile(path)));
    write(0, "x", "no number\n");
    EXPECT_EQ("0:6", nextOf(ConsistentFile(path)));
}

TEST_F(ConsistentFileTest, ALookTellsWhatEachCopyIs)
{
    using State = ConsistentFile::CopyState;
    const ConsistentFile file(path);
    EXPECT_EQ(RC_NOT_FOUND, file.look().status);
    write(0, "7", "zero\n");
    write(1, "6", "one\n");
    folder.write("file.1", std::string(600, 'x'));
    const std::size_t logged = client.messages().size();
    ConsistentFile::Look look = file.look();
    EXPECT_EQ(State::Valid, look.copies[0].state);
    EXPECT_EQ(State::Mismatched, look.copies[1].state); // a load would not read it
    EXPECT_TRUE(look.copies[1].isCut);
    EXPECT_EQ(6U, look.copies[1].sequence);
    EXPECT_EQ(0U, look.copies[1].dataCrc);
    EXPECT_NE(0U, look.copies[1].statedCrc);
    EXPECT_EQ(RC_OK, look.status);
    EXPECT_EQ("0 1 8", std::to_string(look.latestSlot) + " " + std::to_string(look.nextSlot) + " " +
                           std::to_string(look.nextSequence));
    write(1, "6", "one\n");
    folder.write("file.0.sig", "7\n0\n");
    look = file.look();
    EXPECT_EQ(State::Mismatched, look.copies[0].state);
    EXPECT_EQ("1 0 7", std::to_string(look.latestSlot) + " " + std::to_string(look.nextSlot) + " " +
                           std::to_string(look.nextSequence));
    EXPECT_EQ(0, platform::removeFile(folder.path("file.1").c_str()));
    look = file.look();
    EXPECT_EQ(State::Incomplete, look.copies[1].state);
    EXPECT_TRUE(look.copies[1].hasSignature);
    EXPECT_EQ(RC_ERROR, look.status);
    EXPECT_EQ(logged, client.messages().size());

    const ScopedReplacement readingBytes(
        platform::fileCalls.readFile, +[](platform::FileHandle, void*, std::size_t) {
            return platform::Transfer{0, ErrorNumber::IoDevice};
        });
    EXPECT_EQ(State::Unreadable, file.look().copies[0].state);
}

TEST_F(ConsistentFileTest, ACopyIsNeverTakenForWholeWhateverCallFails)
{
    ConsistentFile file(path);
    write(0, "1", "one\ntwo\n");
    static int callsBeforeTheFault = 0;
    const ScopedReplacement opening(
        platform::fileCalls.openFile, +[](const char* name, platform::OpenMode mode) {
            return callsBeforeTheFault-- != 0
                       ? platform::fileCalls.openFile.original(name, mode)
                       : platform::OpenedFile{platform::FileHandle::Invalid, ErrorNumber::FileNotFound};
        });
    const ScopedReplacement readingBytes(
        platform::fileCalls.readFile, +[](platform::FileHandle handle, void* buffer, std::size_t) {
            return callsBeforeTheFault-- != 0 ? platform::fileCalls.readFile.original(handle, buffer, 1)
                                              : platform::Transfer{0, ErrorNumber::IoDevice};
        });
    int calls = 0;
    RcStatus status = RC_ERROR;
    for (bool isFaultMet = true; isFaultMet; ++calls)
    {
        callsBeforeTheFault = calls;
        std::ostringstream text;
        status = file.load(text);
        isFaultMet = callsBeforeTheFault < 0;
        EXPECT_TRUE(status == RC_ERROR || text.str() == "one\ntwo\n") << calls;
    }
    EXPECT_EQ(RC_OK, status);
    EXPECT_GT(calls, 25);
    EXPECT_EQ(1, client.count("Error,NON,ConsistentFile,load,Could not open file for read: " + path + ".0"));
    EXPECT_EQ("1:2", nextOf(file));
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
