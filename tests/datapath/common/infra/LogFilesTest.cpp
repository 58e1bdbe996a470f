// The files of a log, over real folders, a full disk and failing system calls.

#include "datapath/common/infra/LogFiles.h"
#include "platform/Text.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <system_error>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

constexpr std::uint64_t LIMIT = 10'485'760; // bytes

std::size_t diskRoom = SIZE_MAX; // bytes

Transfer writeWhileThereIsRoom(FileHandle file, const void* bytes, std::size_t size)
{
    const std::size_t taken = std::min(size, diskRoom);
    diskRoom -= diskRoom == SIZE_MAX ? 0 : taken;
    return taken == 0 ? Transfer{0, ErrorNumber::AccessDenied} : fileCalls.writeFile.original(file, bytes, taken);
}

struct OpenLogFiles : LogFiles
{
    explicit OpenLogFiles(const Settings& settings) : LogFiles(settings) { EXPECT_TRUE(open()); }

    void writeAndFlush(std::string_view text, bool isFirst = true) { write(text, isFirst), flush(); }
};

struct LogFilesTest : testing::Test
{
    std::string text(const std::string& name) const { return ScratchFolder::readText(folder.path(name)); }

    void makeLiveFile(std::uint64_t length) const
    {
        folder.write("log.txt", "old\n");
        std::filesystem::resize_file(folder.path("log.txt"), length);
    }

    /// The numbered files that a rotation leaves, each without the start of its name.
    std::string afterRotation(const Texts& before, std::uint32_t maxFiles, bool isCompressed = false) const
    {
        std::ranges::for_each(before, [&](const std::string& name) { folder.write("log" + name, "numbered"); });
        makeLiveFile(LIMIT + 1);
        {
            OpenLogFiles files({base, maxFiles});
            files.setCompressOnRotate(isCompressed);
            files.write("new\n");
        }
        EXPECT_EQ("new\n", text("log.txt"));
        std::string after;
        for (const std::string& name : folder.files())
        {
            after += name.starts_with("log") && name != "log.txt" ? name.substr(3) + " " : "";
            name.starts_with("log") ? std::filesystem::remove(folder.path(name)) : false;
        }
        return after;
    }

    const ScratchFolder folder;
    const std::string base = folder.path("log");
    const ScopedReplacement disk{fileCalls.writeFile, writeWhileThereIsRoom};
};

TEST_F(LogFilesTest, NumbersGoOnAndTheOldestFileGoes)
{
    std::filesystem::create_directory(folder.path("log000900.txt")); // folders and other names do not count
    folder.write("LOG000950.txt", "");
    folder.write("lo", "");
    EXPECT_EQ("000001.txt ", afterRotation({}, 1000));
    EXPECT_EQ("000001.txt.gz ", afterRotation({}, 1000, true));
    EXPECT_EQ("000007.txt 000012.txt.gz 000013.txt ", afterRotation({"000003.txt", "000007.txt", "000012.txt.gz"}, 3));
    EXPECT_EQ("000007.txt 000008.txt ", afterRotation({"000007.txt"}, 2));
    EXPECT_EQ("000008.txt ", afterRotation({"000007.txt"}, 1));
    EXPECT_EQ("000001.txt ", afterRotation({}, 0));
    EXPECT_EQ("000008.txt ", afterRotation({"000007.txt"}, 0));
    EXPECT_EQ("000005.txt 000006.txt ", afterRotation({"000005.txt"}, 0xFFFF'FFFF));
    EXPECT_EQ("099999.txt 100000.txt ", afterRotation({"099999.txt"}, 5));
    EXPECT_EQ("100000.txt 100001.txt ", afterRotation({"099999.txt", "100000.txt"}, 2));
    EXPECT_EQ("1234567.txt 1234568.txt ", afterRotation({"1234567.txt"}, 5));
    // A compressed live file is numbered first.
    EXPECT_EQ("000002.txt 000003.txt.gz 000004.txt.gz ",
              afterRotation({".txt.gz", "000001.txt", "000002.txt"}, 2, true));
    EXPECT_EQ("000003.txt 000004.txt ", afterRotation({".txt.gz", "000001.txt", "000002.txt"}, 1));
    // Names without a number, or with one that is too large, count as number 0.
    EXPECT_EQ("000004.txt 000005.txt ", afterRotation({".txt.old", "000004.txt"}, 2));
    EXPECT_EQ(" 12x.txt -3.txt 000013.txt ", afterRotation({"-3.txt", " 12x.txt"}, 3));
    EXPECT_EQ("000001.txt 99999999999.txt ", afterRotation({"99999999999.txt"}, 3));
    EXPECT_EQ((Texts{"LOG000950.txt", "lo"}), folder.files());
}

TEST_F(LogFilesTest, NumberedFilesAreFoundUnderAnyPath)
{
    Texts bases = {"log", folder.path("a\\b")}; // on Linux the backslash is a part of the name
    PATH_SEPARATOR == '/' ? bases.push_back("./dot") : void();
    EXPECT_EQ("", stderrOf([&] {
                  for (const std::string& path : bases)
                  {
                      OpenLogFiles files({path, 1});
                      repeat(3, [&] { files.write(std::string(LIMIT + 1, 'x')); });
                      EXPECT_TRUE(std::filesystem::exists(path + "000002.txt")) << path;
                      EXPECT_FALSE(std::filesystem::exists(path + "000001.txt")) << path;
                  }
              }));
}

TEST_F(LogFilesTest, AFileIsFullWhenItHasPassedTheLimitWhoeverWroteIt)
{
    makeLiveFile(LIMIT);
    OpenLogFiles files({base});
    files.writeAndFlush("appended\n");
    EXPECT_EQ(Texts{"log.txt"}, folder.files());
    makeLiveFile(LIMIT); // another program has cut it
    files.writeAndFlush("again\n");
    EXPECT_EQ(Texts{"log.txt"}, folder.files());
    files.writeAndFlush("new\n");
    EXPECT_EQ("again\n", text("log000001.txt").substr(LIMIT));
    makeLiveFile(LIMIT + 1); // another program has lengthened it, and then removes it
    files.writeAndFlush("the length is noticed with this one\n");
    std::filesystem::remove(folder.path("log.txt"));
    files.writeAndFlush("in a new file\n");
    EXPECT_EQ("in a new file\n", text("log.txt"));
    files.write(std::string(LIMIT, 'x'), true, false);
    files.writeAndFlush("its last part\n", false);
    EXPECT_TRUE(text("log.txt").ends_with("xits last part\n"));
}

TEST_F(LogFilesTest, WhateverTheDiskTakesTextsAreWholeAndInOneFile)
{
    std::string all;
    {
        OpenLogFiles files({base});
        diskRoom = 100'000;
        for (int number = 0; number < 10'000; ++number)
        {
            const std::string text = "text of two\nlines " + std::to_string(number) + "\n";
            files.write(text);
            all += text;
        }
        diskRoom = SIZE_MAX;
        files.write("room again\n");
    }
    const std::size_t taken = text("log.txt").rfind("room again\n"); // what the disk had room for, and one block more
    EXPECT_EQ(all.substr(0, taken) + "room again\n", text("log.txt"));
    EXPECT_TRUE(taken > 120'000 && all.substr(taken).starts_with("text of two\n")) << taken;

    makeLiveFile(LIMIT - 3);
    OpenLogFiles files({base});
    diskRoom = 6;
    files.writeAndFlush("cut in two\n");
    files.writeAndFlush("kept\n");
    diskRoom = SIZE_MAX;
    files.writeAndFlush("new\n");
    EXPECT_TRUE(text("log000001.txt").ends_with("cut in two\nkept\n"));
}

TEST_F(LogFilesTest, WhateverFailsIsReportedAndTriedAgain)
{
    const std::string live = folder.path("log.txt");
    folder.write("log000004.txt", "");
    makeLiveFile(LIMIT + 1);
    OpenLogFiles files({base, 1});
    const auto expectLonger = [&](std::uint64_t bytes, auto& entry, auto broken) {
        const ScopedReplacement replacement(entry, broken);
        files.writeAndFlush("x");
        EXPECT_EQ(bytes, std::filesystem::file_size(live) - LIMIT);
    };
    const auto message = [](int error) { return "(" + std::generic_category().message(error) + ")\n"; };
    EXPECT_EQ(
        "FindFirstFile failed (5)\nfailed to enumerate files\nfailed to enumerate files\nError renaming file orig=" +
            live + " target=" + folder.path("log000005.txt") + " err=17" + message(17) +
            "Error removing file name=" + folder.path("log000004.txt") + " err=13" + message(13),
        stderrOf([&] {
            expectLonger(2, fileCalls.findFirstEntry, [](const char*, FolderEntry&) {
                return OpenedFolder{FolderHandle::Invalid, ErrorNumber::AccessDenied};
            });
            expectLonger(3, fileCalls.findNextEntry,
                         [](FolderHandle, FolderEntry&) { return ErrorNumber::AccessDenied; });
            const ScopedReplacement removeFails(fileCalls.removeFile, [](const char*) { return 13; });
            expectLonger(4, fileCalls.renameFile, [](const char*, const char*) { return 17; });
        }));

    const std::string failure = "failed to open logger file. going to work without logger\n";
    EXPECT_EQ(failure + failure + "Error creating directory (" + folder.path("no/such") +
                  ") for logs (rt=0)GetLastError 3\n" + failure,
              stdoutOf([&] {
                  const ScopedReplacement openFails(
                      fileCalls.openFile, +[](const char*, OpenMode) {
                          return OpenedFile{FileHandle::Invalid, ErrorNumber::AccessDenied};
                      });
                  files.writeAndFlush("lost\n");
                  EXPECT_FALSE(LogFiles({"/log"}).open()); // the root is a folder too
                  EXPECT_FALSE(LogFiles({folder.path("no/such/log")}).open());
              }));
    files.writeAndFlush("lost too\n");
    EXPECT_EQ(Texts{"log000005.txt"}, folder.files());
}

} // namespace
