// The file logger over real files: its queue, budget, flushes and modes, and what is in the file at the end.

#include "datapath/common/infra/FileLoggerClient.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemoryReport.h"
#include "datapath/common/infra/Tweaks.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>

#include <gtest/gtest.h>

namespace
{

std::atomic<bool> isDiskHeldBack = false;
std::atomic<int> tornWrites = 0; // writes that do not end where a line ends

platform::Transfer writeWhenAllowed(platform::FileHandle file, const void* bytes, std::size_t size)
{
    tornWrites += static_cast<const char*>(bytes)[size - 1] != '\n' ? 1 : 0;
    waitUntil([] { return !isDiskHeldBack; });
    return platform::fileCalls.writeFile.original(file, bytes, size);
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

    std::string text() const { return ScratchFolder::readText(base + ".txt"); }

    const ScratchFolder folder;
    const std::string base = folder.path("app.log");
    const ScopedReplacement disk{platform::fileCalls.writeFile, writeWhenAllowed};
};

TEST_F(FileLogger, TweaksChooseItsModes)
{
    const CapturingClient others;
    const std::string line = "\n\n~-~-~ ~:~:~.~, -----------------Log Start---------------------- info "
                             "----------------------\ntime,level,thread,logger,method,message,exception\nline\n";
    struct Mode
    {
        const char *tweak, *value, *valueBefore;
        std::string afterTheCall, afterTheEnd; // patterns of what is in the file
    };
    for (const auto& [tweak, value, valueBefore, afterTheCall, afterTheEnd] :
         {Mode{"t_FileLoggerEnabled", "off", "on", "", ""}, Mode{"t_FileLoggerFlushEveryLine", "on", "off", line, line},
          Mode{"t_disableLogMemoryAllocationTracking", "on", "off", "~", line}})
    {
        Tweaks::instance().update(tweak, value);
        auto client = std::make_unique<FileLoggerClient>(base, 0, "info");
        client->log("");
        client->log("line\n");
        EXPECT_PRED2(matches, text(), afterTheCall) << tweak;
        client.reset();
        EXPECT_PRED2(matches, text(), afterTheEnd) << tweak;
        folder.removeFiles();
        Tweaks::instance().update(tweak, valueBefore);
    }
    EXPECT_EQ(3, others.count("~Starting ThreadWrapper of type class FileLoggerClient internalId=# "));
}

TEST_F(FileLogger, TweaksChooseItsLimits)
{
    const auto settings = [](std::uint32_t maxMemoryMiB) { return GenFileLogger::tweakedSettings("", maxMemoryMiB); };
    EXPECT_TRUE(settings(3).maxBytes == 3'145'728 && settings(3).resumeBytes == 2'516'582);
    EXPECT_TRUE(settings(4097).maxBytes == 1'048'576 && settings(0xFFFF'FFFF).maxBytes == 0xFFFF'FFFF);
    Tweaks::instance().update("t_GenFileLoggerMaxFiles", "7");
    EXPECT_EQ(7U, settings(3).files.maxFiles);
    Tweaks::instance().update("t_FileLoggerMaxFilesOverride", "2");
    EXPECT_EQ(2U, settings(3).files.maxFiles);
    Tweaks::instance().update("t_OlmFlushFileMaxPeriodMs", "1");
    FileLoggerClient client(base, 3, "");
    whileDiskIsHeldBack(
        [&] { EXPECT_EQ("Flush is not completed t_OlmFlushFileMaxPeriodMs=1 \n", stderrOf([&] { client.flush(); })); });
}

TEST_F(FileLogger, LinesOfManyThreadsAreAllWrittenInEachThreadsOrderWhileOtherClientsComeAndGo)
{
    constexpr int THREADS = 8;
    constexpr int LINES = 45'000;
    // The threads first race for the first use of the Logger; the client comes when that is over.
    runInThreads(THREADS, [](int) { Logger::instance().setThreadName("racer"); });
    std::atomic<int> logging = THREADS;
    {
        FileLoggerClient client(base, 4095U, "");
        Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
        runInThreads(THREADS + 1, [&](int thread) {
            for (; thread == THREADS && logging != 0; std::filesystem::remove("guest.txt"))
            {
                FileLoggerClient guest("guest", 1, "");
                Logger::instance().registerClient(&guest, Logger::ALL_LEVELS);
            }
            Logger::instance().setAsyncThreadName("racer");
            repeat(thread == THREADS ? 0 : LINES, [&, line = 0]() mutable {
                logNumbered(line % 10'000 == 0 ? LogLevel::Error : LogLevel::Info, thread, line);
                ++line;
            });
            Logger::instance().setAsyncThreadName("");
            --logging;
        });
    }
    EXPECT_LT(2U, folder.files().size());
    OrderOfThreads order{"~,#/racer,NON,,logNumbered,"};
    Texts lines = folder.logLines();
    std::erase_if(lines, [](const std::string& line) { return line.find("logNumbered") == std::string::npos; });
    std::ranges::for_each(lines, std::ref(order));
    EXPECT_EQ(THREADS, std::ranges::count(order.next, LINES, &std::pair<const int, int>::second));
    EXPECT_EQ(0, tornWrites); // so a process that is killed leaves whole lines
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
        client.log(std::string(300'000, 'x') + "\n"); // keeps the writer busy
        client.log(" line...\n");
        client.log("anything\n");
        MemoryReport::memShieldDumpLocked();
        EXPECT_LE(1,
                  report.count("~dumpalloc: ~m_class=s8 ~infra/HeapMemoryAllocationTracker.cpp ~m_line=47 ~m_size=9 ~"
                               "m_arrayLength=9 "));
        EXPECT_EQ(before + 300'001 + 9 + 9 + 3 * 80, MemShield::systemHeapBytes());
        client.log(std::string(1U << 20U, 'y')); // exceeds the budget
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
        client.log("resumed\n");
        client.flush();
        const std::string written = text().substr(text().find("xxx"));
        const std::size_t end = written.find("x\n2") + 2;
        EXPECT_PRED2(matches, written.substr(end), "~-~-~ ~:~:~.~," + base + "-pausing logger due to OOM\nresumed\n");
        EXPECT_TRUE(end >= BUDGET - length && end < BUDGET + 200'000 && end % length == 0) << end;
        EXPECT_EQ(before, MemShield::systemHeapBytes());
        folder.removeFiles();
    }
}

/// Runs in a child process. The client is destroyed if main returns.
void logManyLinesToFile(bool isGuarded)
{
    MemShield::setEnabled(isGuarded);
    waitForOwnThreads();
    static FileLoggerClient client((std::filesystem::current_path() / "app.log").string(), 4095U, "");
    Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
    repeat(10'001, [number = 0]() mutable { logNumbered(LogLevel::Info, 1, number++); });
}

CHILD_SCENARIO(returnAfterManyLines) { logManyLinesToFile(false); }

CHILD_SCENARIO(misuseAfterManyLines)
{
    logManyLinesToFile(true);
    int ours = 0;
    MemShield::instance().freeAndUnregister(&ours, SourcePlace::here());
}

TEST_F(FileLogger, HoweverTheProcessEndsEveryLineIsInTheFile)
{
    const auto end = [&] { return text().substr(text().find("i=10000 ")); };
    EXPECT_EQ(0, runChild("returnAfterManyLines").status);
    EXPECT_PRED2(matches, end(), "i=10000 end\n~");
    folder.removeFiles();
    expectAbnormalEnd("misuseAfterManyLines");
    EXPECT_PRED2(matches, end(), "i=10000 end\n~,NON,MemShield,~\n");
}

} // namespace
