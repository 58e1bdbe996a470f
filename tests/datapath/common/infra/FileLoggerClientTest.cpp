// The file logger over real files: its queue, budget, flushes and modes, and what is in the file at the end.

#include "datapath/common/infra/FileLoggerClient.h"
#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemoryReport.h"
#include "platform/Text.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace
{

const auto writeFile = platform::fileCalls.writeFile;
std::atomic<bool> isDiskHeldBack = false;
std::atomic<std::size_t> diskRoom = SIZE_MAX; // bytes

std::atomic<int> diskWrites = 0;
std::atomic<int> tornWrites = 0; // that do not end where a line ends

platform::Transfer writeWhenAllowed(platform::FileHandle file, const void* bytes, std::size_t size)
{
    ++diskWrites;
    tornWrites += static_cast<const char*>(bytes)[size - 1] != '\n' ? 1 : 0;
    waitUntil([] { return !isDiskHeldBack; });
    const std::size_t taken = std::min(size, diskRoom.load());
    diskRoom -= diskRoom == SIZE_MAX ? 0 : taken;
    return taken == 0 ? platform::Transfer{0, platform::ErrorNumber::AccessDenied} : writeFile(file, bytes, taken);
}

void whileDiskIsHeldBack(const std::function<void()>& work)
{
    isDiskHeldBack = true;
    work();
    isDiskHeldBack = false;
}

struct FileLogger : testing::Test
{
    FileLogger() { MemShield::setEnabled(false); }

    std::string text(const std::string& file = "app.log.txt") const
    {
        return ScratchFolder::readText(folder.path(file));
    }

    /// Expects whole lines in all files, the oldest first, up to the last line feed.
    std::map<int, int> expectOrder(std::string_view head) const
    {
        Texts files = folder.files();
        std::rotate(files.begin(), files.begin() + 1, files.end()); // the live file is the last
        std::string all;
        std::ranges::for_each(files, [&](const std::string& file) { all += text(file); });
        EXPECT_NE(std::string::npos, all.find(HEADER));
        std::istringstream lines(all.substr(all.find(HEADER) + HEADER.size()));
        OrderOfThreads order{head};
        for (std::string line; std::getline(lines, line) && !lines.eof();)
        {
            order(line);
        }
        return order.next;
    }

    /// Logs without waiting for the file, then waits for it.
    static void logAndFlush(FileLoggerClient& client, const Texts& lines)
    {
        std::ranges::for_each(lines, [&](const std::string& line) { client.log(line); });
        client.flush();
    }

    inline static const std::string HEADER = "time,level,thread,logger,method,message,exception\n";

    ScratchFolder folder;
    std::string base = folder.path("app.log");
    ScopedReplacement replacedDisk{platform::fileCalls.writeFile, writeWhenAllowed};
};

TEST_F(FileLogger, EachRunBeginsWithItsHeaderAndContinuesTheFile)
{
    for (const std::string info : {"", "second"})
    {
        FileLoggerClient client(base, 3, info);
        client.log("line\n");
        EXPECT_EQ("class FileLoggerClient", client.getTypeName());
    }
    const std::string start = "\n\n~-~-~ ~:~:~.~, -----------------Log Start---------------------- ";
    const std::string rest = " ----------------------\n" + HEADER + "line\n";
    EXPECT_TRUE(matches(text(), start + rest + start + "second" + rest)) << text();
    EXPECT_TRUE(ScratchFolder::read(base + ".txt").ends_with("line" + std::string(platform::LINE_END)));
}

TEST_F(FileLogger, LinesOfManyThreadsAreAllWrittenInEachThreadsOrder)
{
    constexpr int THREADS = 8;
    constexpr int LINES = 200'000;
    {
        FileLoggerClient client(base, 4095U, "");
        runInThreads(THREADS, [&](int thread) {
            repeat(LINES, [&, line = 0]() mutable {
                client.log("thread=" + std::to_string(thread) + " i=" + std::to_string(line++) + " end\n");
                line % 10'000 == 0 ? client.flush() : void();
            });
        });
    }
    EXPECT_LT(3U, folder.files().size());
    const std::map<int, int> counts = expectOrder("");
    EXPECT_EQ(THREADS, std::ranges::count(counts, LINES, &std::pair<const int, int>::second));
    EXPECT_EQ(0, tornWrites);
}

TEST_F(FileLogger, GuardedTextsAreBlocksOfTheirOwn)
{
    MemShield::setEnabled(true);
    waitForOwnThreads();
    const CapturingClient report;
    FileLoggerClient client(base, 1, "");
    client.flush();
    const std::uint64_t before = MemShield::systemHeapBytes();
    whileDiskIsHeldBack([&] {
        client.log(std::string(300'000, 'x') + "\n"); // keeps the writer
        client.log(" line...\n");
        client.log("anything\n");
        MemoryReport::memShieldDumpLocked();
        EXPECT_LE(1,
                  report.count("~dumpalloc: ~m_class=s8 ~infra/HeapMemoryAllocationTracker.cpp ~m_line=47 ~m_size=9 ~"
                               "m_arrayLength=9 "));
        EXPECT_EQ(before + 300'001 + 9 + 9 + 3 * 80, MemShield::systemHeapBytes());
        client.log(std::string(1U << 20U, 'y')); // pauses
    });
    client.flush();
    EXPECT_PRED2(matches, text(), "~x\n line...\nanything\n~,~-pausing logger due to OOM\n");
    EXPECT_EQ(before, MemShield::systemHeapBytes());
}

TEST_F(FileLogger, BudgetPausesOnceDropsAndResumes)
{
    waitForOwnThreads();
    constexpr std::size_t BUDGET = 3U << 20U;
    for (const std::size_t length : {60U, 128U, 33'000U, 70'000U})
    {
        const std::string line = std::string(length - 1, 'x') + "\n";
        FileLoggerClient client(base, 3, "");
        client.flush();
        const std::uint64_t before = MemShield::systemHeapBytes();
        whileDiskIsHeldBack([&] {
            repeat(static_cast<int>(2 * BUDGET / length), [&] { client.log(line); });
            EXPECT_GE(BUDGET / 10 * 11, MemShield::systemHeapBytes() - before) << length;
        });
        client.flush();
        logAndFlush(client, {"resumed\n"});
        const std::string written = text().substr(text().find("xxx"));
        const std::size_t end = written.find("x\n2") + 2;
        EXPECT_TRUE(matches(written.substr(end), "~-~-~ ~:~:~.~," + base + "-pausing logger due to OOM\nresumed\n"));
        EXPECT_TRUE(end >= BUDGET - length && end < BUDGET + 200'000 && end % length == 0) << end;
        EXPECT_EQ(before, MemShield::systemHeapBytes());
        folder.removeFiles();
    }
}

TEST_F(FileLogger, WithoutTrackingNothingIsDropped)
{
    folder.write("tweaks_extension.txt", "t_disableLogMemoryAllocationTracking = true\n");
    {
        FileLoggerClient client(base, 0, "");
        client.log("");
        client.log("line\n");
    }
    EXPECT_TRUE(text().ends_with("exception\nline\n"));
}

TEST_F(FileLogger, SynchronousModeWritesEachLineBeforeTheCallReturns)
{
    folder.write("tweaks_extension.txt", "t_FileLoggerFlushEveryLine = 1\nt_OlmFlushFileMaxPeriodMs = 0\n");
    FileLoggerClient client(base, 0, "");
    client.log("line\n");
    EXPECT_TRUE(text().ends_with("exception\nline\n"));
    client.write(nullptr, 0);
    client.flush(); // waits for nobody
}

TEST_F(FileLogger, WriterCanHandOverLineByLineAndAFlushWaitWithoutLimit)
{
    folder.write("tweaks_extension.txt", "t_AsyncFileLoggerFlushEveryLine = 1\nt_OlmFlushFileMaxPeriodMs = 0\n");
    FileLoggerClient client(base, 3, "");
    client.flush();
    diskWrites = 0;
    whileDiskIsHeldBack([&] {
        client.log("a\n");
        client.log(std::string(100'000, 'x') + "\n"); // longer than what the queue has in one piece
        client.log("b\n");
        client.write(nullptr, 0);
    });
    client.flush();
    EXPECT_LE(3, diskWrites);
    EXPECT_TRUE(text().ends_with(HEADER + "a\n" + std::string(100'000, 'x') + "\nb\n"));
}

TEST_F(FileLogger, GrowthOfItsFileByOthersMakesItRotateToo)
{
    FileLoggerClient client(base, 3, "");
    client.flush();
    folder.write("app.log.txt", std::string(10'485'761, '\n'));
    logAndFlush(client, {"seen with this one\n"});
    logAndFlush(client, {"moved by this one\n"});
    EXPECT_EQ("moved by this one\n", text());
}

TEST_F(FileLogger, SwitchedOffItOpensItsFileAndWritesNothing)
{
    folder.write("tweaks_extension.txt", "t_FileLoggerEnabled = off\n");
    FileLoggerClient client(base, 3, "");
    logAndFlush(client, {"line\n"});
    EXPECT_EQ((Texts{"app.log.txt", "tweaks_extension.txt"}), folder.files());
    EXPECT_EQ("", text());
}

TEST_F(FileLogger, WithoutAFileItGoesOn)
{
    EXPECT_EQ("Error creating directory (" + folder.path("no/such") +
                  ") for logs (rt=0)GetLastError 3\nfailed to open logger file. going to work without logger\n",
              stdoutOf([&] {
                  FileLoggerClient client(folder.path("no/such/app.log"), 3, "");
                  logAndFlush(client, {"line\n"});
              }));
}

TEST_F(FileLogger, AfterAFullDiskLinesAreWholeAgain)
{
    FileLoggerClient client(base, 3, "");
    client.flush();
    diskRoom = 100'000;
    Texts lines;
    repeat(10'000, [&] { lines.push_back("a line of twenty\n" + std::to_string(lines.size()) + "\n"); });
    logAndFlush(client, lines);
    diskRoom = SIZE_MAX;
    logAndFlush(client, {"room again\n"});
    const std::string written = text().substr(text().find(HEADER) + HEADER.size());
    std::string expected;
    for (auto line = lines.begin(); expected.size() + 11 < written.size() && line != lines.end(); ++line)
    {
        expected += *line;
    }
    EXPECT_EQ(expected + "room again\n", written);
    EXPECT_LT(108'890U, expected.size()); // what the disk took and one block more
}

/// In a child process: every line goes to the file in the working folder.
void logToFile(bool isGuarded)
{
    MemShield::setEnabled(isGuarded);
    waitForOwnThreads();
    const std::string base = (std::filesystem::current_path() / "app.log").string();
    Logger::instance().registerClient(GuardedMemory::create<FileLoggerClient>({"", SourcePlace::here()}, base, 4095U, ""),
                                      Logger::ALL_LEVELS);
}

void logNumbers(int count)
{
    const auto thread = static_cast<int>(platform::currentThreadId());
    repeat(count + 1, [=, i = 0]() mutable { logNumbered(LogLevel::Info, thread, i++); });
}

CHILD_SCENARIO(assertBehindManyLines)
{
    logToFile(false);
    logNumbers(10'000);
    CheckFailure(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(1), "false") << "the end" << std::endl;
}

CHILD_SCENARIO(misuseBehindManyLines)
{
    logToFile(true);
    logNumbers(10'000);
    int ours = 0;
    MemShield::instance().freeAndUnregister(&ours, SourcePlace::here());
}

CHILD_SCENARIO(killedWhileLogging)
{
    logToFile(false);
    std::thread([] { logNumbers(10'000'000); }).detach();
    std::thread([] { logNumbers(10'000'000); }).detach();
    platform::sleepMs(20 + std::random_device()() % 50);
    platform::endProcess();
}

TEST_F(FileLogger, WhatEndsTheProcessIsInTheFileBehindAllLines)
{
    expectAbnormalEnd("assertBehindManyLines");
    EXPECT_TRUE(matches(text().substr(text().find("i=10000 ")), "i=10000 end\n~,Assert,~ failed. the end\n"));
    EXPECT_EQ(10'001 + 5, std::ranges::count(text(), '\n'));
    folder.removeFiles();
    expectAbnormalEnd("misuseBehindManyLines");
    EXPECT_TRUE(matches(text().substr(text().find("i=10000 ")), "i=10000 end\n~,NON,MemShield,~\n")) << text();
}

CHILD_SCENARIO(clientsThatEnd)
{
    MemShield::setEnabled(false);
    const std::string folder = (std::filesystem::current_path() / "").string();
    static FileLoggerClient lasting(folder + "static", 4095U, "");
    FileLoggerClient local(folder + "local", 4095U, "");
    Logger::instance().registerClient(&lasting, Logger::ALL_LEVELS);
    Logger::instance().registerClient(&local, Logger::ALL_LEVELS);
    logNumbers(20'000);
}

TEST_F(FileLogger, AClientOfAnyLifetimeEndsWithEverythingInItsFile)
{
    repeat(5, [&] {
        EXPECT_EQ(0, runChild("clientsThatEnd").status);
        EXPECT_NE(std::string::npos, text("local.txt").find("i=20000 end\n"));
        EXPECT_NE(std::string::npos, text("static.txt").find("i=20000 end\n"));
    });
}

TEST_F(FileLogger, AKilledProcessLeavesWholeLines)
{
    int count = 0;
    repeat(5, [&] {
        expectAbnormalEnd("killedWhileLogging");
        const std::map<int, int> counts = expectOrder("~-~-~ ~:~:~.~,Info,#,NON,,logNumbered,");
        count += counts.empty() ? 0 : counts.begin()->second;
        folder.removeFiles();
    });
    EXPECT_LT(0, count);
}

} // namespace
