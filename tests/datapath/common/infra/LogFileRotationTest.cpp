// When and how the live file becomes a numbered one, over real folders and over failing system calls.

#include "datapath/common/infra/GenFileLogger.h"
#include "platform/Text.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <optional>
#include <system_error>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

constexpr std::uint64_t LIMIT = 10'485'760; // bytes

/// In the synchronous mode, so that a write is over when it returns.
class SynchronousLogger : public GenFileLogger
{
public:
    SynchronousLogger(const std::string& path, bool isCompressed, std::optional<std::uint32_t> maxFiles = {})
        : GenFileLogger(path, 1, Writer::NotStarted)
    {
        m_compressOnRotate = isCompressed;
        m_maxFiles = maxFiles.value_or(m_maxFiles);
    }

    void writeText(const std::string& text) { write(text.data(), static_cast<std::uint32_t>(text.size())); }
};

struct LogFileRotation : testing::Test
{
    /// A live file of that length.
    void makeLiveFile(std::uint64_t length) const
    {
        folder.write("log.txt", "old\n");
        std::filesystem::resize_file(folder.path("log.txt"), length);
    }

    /// The files beside the live one that a rotation leaves, each with the start of its name cut off.
    std::string afterRotation(const Texts& before, std::optional<std::uint32_t> maxFiles = {},
                              bool isCompressed = false)
    {
        folder.removeFiles();
        std::ranges::for_each(before, [&](const std::string& name) { folder.write("log" + name, "numbered"); });
        makeLiveFile(LIMIT + 1);
        SynchronousLogger(folder.path("log"), isCompressed, maxFiles).writeText("new\n");
        EXPECT_EQ("new", ScratchFolder::read(folder.path("log.txt")).substr(0, 3));
        std::string after;
        for (const std::string& name : folder.files())
        {
            after += name == "log.txt" ? "" : name.substr(3) + " ";
        }
        return after;
    }

    ScratchFolder folder;
};

TEST_F(LogFileRotation, NumbersGoOnAndTheOldestFileGoes)
{
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
}

TEST_F(LogFileRotation, ACompressedLiveFileIsNumberedFirst)
{
    EXPECT_EQ("000002.txt 000003.txt.gz 000004.txt.gz ",
              afterRotation({".txt.gz", "000001.txt", "000002.txt"}, 2, true));
    EXPECT_EQ("000003.txt 000004.txt ", afterRotation({".txt.gz", "000001.txt", "000002.txt"}, 1));
}

TEST_F(LogFileRotation, NamesThatOnlyLookLikeOursCountAsTheOldest)
{
    EXPECT_EQ("000004.txt 000005.txt ", afterRotation({".txt.old", "000004.txt"}, 2));
    EXPECT_EQ(" 12x.txt -3.txt 000013.txt ", afterRotation({"-3.txt", " 12x.txt"}, 3));
    EXPECT_EQ("000001.txt 99999999999.txt ", afterRotation({"99999999999.txt"}, 3));
    std::filesystem::create_directory(folder.path("log000900.txt"));
    folder.write("LOG000950.txt", "");
    folder.write("lo", "");
    makeLiveFile(LIMIT + 1);
    SynchronousLogger(folder.path("log"), false, 1).writeText("new\n");
    EXPECT_TRUE(std::filesystem::exists(folder.path("log000001.txt")) && std::filesystem::exists(folder.path("lo")));
}

TEST_F(LogFileRotation, TheDefaultKeepsAThousandFiles)
{
    Texts files;
    repeat(999, [&] { files.push_back("00" + std::to_string(1001 + files.size()) + ".txt"); });
    const std::string all = afterRotation(files);
    EXPECT_TRUE(all.starts_with("001001.txt ") && all.ends_with("002000.txt "));
    files.push_back("002000.txt");
    EXPECT_TRUE(afterRotation(files).starts_with("001002.txt "));
}

TEST_F(LogFileRotation, FilesAreFoundUnderAnyPathAndLimitedByTweaks)
{
    folder.write("tweaks_extension.txt", "t_GenFileLoggerMaxFiles = 7\nt_FileLoggerMaxFilesOverride = 2\n");
    Texts bases = {"log", folder.path("a\\b")}; // on Linux the backslash is a part of the name
    if (PATH_SEPARATOR == '/')
    {
        bases.emplace_back("./dot");
    }
    testing::internal::CaptureStderr();
    for (const std::string& base : bases)
    {
        SynchronousLogger logger(base, false);
        for (const char* const line : {"1\n", "2\n", "3\n", "4\n"})
        {
            logger.writeText(std::string(LIMIT, 'x') + line);
        }
        const auto line = [&](const char* end) { return ScratchFolder::read(base + end).substr(LIMIT, 1); };
        EXPECT_EQ("234", line("000002.txt") + line("000003.txt") + line(".txt")) << base;
        EXPECT_FALSE(std::filesystem::exists(base + "000001.txt"));
    }
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(LogFileRotation, ALineThatTheDiskTookInPartStaysInItsFile)
{
    static std::size_t room = 0;
    static const auto writeFile = fileCalls.writeFile;
    makeLiveFile(LIMIT - 3);
    SynchronousLogger logger(folder.path("log"), false, 1);
    {
        room = 6;
        const ScopedReplacement fullDisk(
            fileCalls.writeFile, +[](FileHandle file, const void* bytes, std::size_t size) {
                const std::size_t taken = std::min(size, std::exchange(room, 0));
                return taken == 0 ? Transfer{0, ErrorNumber::AccessDenied} : writeFile(file, bytes, taken);
            });
        logger.writeText("cut in two\n");
        logger.writeText("kept\n");
    }
    logger.writeText("new\n");
    EXPECT_TRUE(ScratchFolder::readText(folder.path("log000001.txt")).ends_with("cut in two\nkept\n"));
}

TEST_F(LogFileRotation, AFileIsFullWhenItHasPassedTheLimit)
{
    makeLiveFile(LIMIT);
    SynchronousLogger logger(folder.path("log"), false, 1000);
    logger.writeText("appended\n");
    EXPECT_EQ(Texts{"log.txt"}, folder.files());
    logger.writeText("new\n");
    EXPECT_EQ((Texts{"log.txt", "log000001.txt"}), folder.files());
    EXPECT_PRED2(matches, ScratchFolder::read(folder.path("log000001.txt")).substr(LIMIT), "appended~");
}

TEST_F(LogFileRotation, WhateverFailsIsReportedAndTriedAgain)
{
    const std::string live = folder.path("log.txt");
    folder.write("log000004.txt", "");
    makeLiveFile(LIMIT + 1);
    SynchronousLogger logger(folder.path("log"), false, 1);
    const auto expectLonger = [&](std::uint64_t bytes, auto& entry, auto broken) {
        const ScopedReplacement replacement(entry, broken);
        logger.writeText("x");
        EXPECT_EQ(bytes, std::filesystem::file_size(live) - LIMIT);
    };
    testing::internal::CaptureStderr();
    expectLonger(2, fileCalls.findFirstEntry, [](const char*, FolderEntry&) {
        return OpenedFolder{FolderHandle::Invalid, ErrorNumber::AccessDenied};
    });
    expectLonger(3, fileCalls.findNextEntry, [](FolderHandle, FolderEntry&) { return ErrorNumber::AccessDenied; });
    {
        const ScopedReplacement removeFails(fileCalls.removeFile, [](const char*) { return 13; });
        expectLonger(4, fileCalls.renameFile, [](const char*, const char*) { return 17; });
    }
    const auto message = [](int error) { return "(" + std::generic_category().message(error) + ")\n"; };
    EXPECT_EQ("FindFirstFile failed (5)\nfailed to enumerate files\nfailed to enumerate files\n"
              "Error renaming file orig=" +
                  live + " target=" + folder.path("log000005.txt") + " err=17" + message(17) +
                  "Error removing file name=" + folder.path("log000004.txt") + " err=13" + message(13),
              testing::internal::GetCapturedStderr());

    const std::string failure = "failed to open logger file. going to work without logger\n";
    EXPECT_EQ(failure + failure, stdoutOf([&] {
                  const ScopedReplacement openFails(
                      fileCalls.openFile, +[](const char*, OpenMode) {
                          return OpenedFile{FileHandle::Invalid, ErrorNumber::AccessDenied};
                      });
                  logger.writeText("lost\n");
                  SynchronousLogger("/log", false); // the root is a folder too
              }));
    logger.writeText("lost too\n");
    EXPECT_EQ(Texts{"log000005.txt"}, folder.files());
}

TEST_F(LogFileRotation, AFileThatVanishesIsMadeAgainByTheNextRotation)
{
    makeLiveFile(LIMIT + 1);
    SynchronousLogger logger(folder.path("log"), false, 1);
    std::filesystem::remove(folder.path("log.txt"));
    logger.writeText("new\n");
    EXPECT_EQ("new", ScratchFolder::read(folder.path("log.txt")).substr(0, 3));
    EXPECT_EQ(Texts{"log.txt"}, folder.files());
}

} // namespace
