// The file logger and the hub of the log under many schedules.

#include "datapath/common/infra/FileLoggerClient.h"
#include "datapath/common/infra/Tweaks.h"
#include "tests/simulated/Scenarios.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <optional>
#include <sstream>

namespace
{

const auto writeFile = platform::fileCalls.writeFile;
const auto lengthOfFile = platform::fileCalls.lengthOfFile;
std::uint32_t diskMs = 0; // that a write takes; 0: a moment's rest

platform::Transfer writeSlowly(platform::FileHandle file, const void* bytes, std::size_t size)
{
    diskMs == 0 ? platform::relax() : platform::sleepMs(diskMs);
    return writeFile(file, bytes, size);
}

constexpr std::uint64_t FULL = 5; // bytes of a file that is rotated

platform::FileLength tenMebibytesWhenFull(platform::FileHandle file)
{
    const auto [bytes, error] = lengthOfFile(file);
    return {bytes * (10'485'760 / FULL + 1), error};
}

enum class Mode
{
    Usual,
    LineByLine,
    Synchronous
};

/// With a budget in bytes, at half of which a pause ends; without opening lines, and with flushes that have no limit.
struct SmallLogger final : GenFileLogger
{
    explicit SmallLogger(const std::string& path, Mode mode = Mode::Usual, std::uint32_t budget = 1'000'000)
        : GenFileLogger(path, 1, Writer::NotStarted)
    {
        m_flushEveryLine = mode == Mode::Synchronous;
        m_asyncFlushEveryLine = mode == Mode::LineByLine;
        m_flushMaxPeriodMs = 0;
        m_memoryTracker.reset(GuardedMemory::create<HeapMemoryAllocationTracker>(
            {"", SourcePlace::here()}, budget, budget / 2,
            DynamicTweaks::instance().t_disableLogMemoryAllocationTracking, path));
        startWriter();
    }
    ~SmallLogger() override { stopWriter(); }

    /// "a0", and so many bytes more.
    void line(char thread, int number, std::size_t more = 0)
    {
        const std::string text = thread + std::to_string(number) + std::string(more, '.') + "\n";
        write(text.data(), static_cast<std::uint32_t>(text.size()));
    }
    bool flush() { return flushAndWait(); }

private:
    void run() override { nameThread("writer"), GenFileLogger::run(); }
};

/// Each schedule has files and a logger of its own.
struct LogSchedules : testing::Test
{
    explicit LogSchedules(bool isGuarded = false)
    {
        MemShield::setEnabled(isGuarded);
        waitForOwnThreads();
    }

    /// What follows that character in each line that begins with it, up to a point.
    std::string linesOf(char thread) const
    {
        Texts files = folder.files();
        std::rotate(files.begin(), files.begin() + 1, files.end()); // the live file is the last
        std::string found;
        for (const std::string& file : files)
        {
            std::istringstream lines(ScratchFolder::readText(folder.path(file)));
            for (std::string line; std::getline(lines, line);)
            {
                found += line.starts_with(thread) ? line.substr(1, line.find('.') - 1) : "";
            }
        }
        return found;
    }

    void logInTwoThreads(Mode mode) const
    {
        folder.removeFiles();
        SmallLogger logger(base, mode);
        runTogether({{"one", [&] { logger.line('a', 0); }},
                     {"two", [&] {
                          advance(2'000'000); // the writer waits for more no longer, and may go on first
                          platform::relax();
                          logger.line('b', 0);
                      }}});
        platform::sleepMs(10);
        check(linesOf('a') == "0" && linesOf('b') == "0", "lines come into the file by themselves");
    }

    void flushAndStop() const
    {
        folder.removeFiles();
        {
            SmallLogger logger(base);
            const auto logAndFlush = [&](char thread) {
                logger.line(thread, 0);
                check(logger.flush() && linesOf(thread) == "0", "what came before a flush is in the file");
            };
            runTogether({{"one", [&] { logAndFlush('a'); }},
                         {"two", [&] { logAndFlush('b'); }},
                         {"producer", [&] { logger.line('c', 0), logger.line('c', 1); }}});
            logger.line('c', 2);
        }
        check(linesOf('c') == "012", "each line is there once and in order");
    }

    void pauseAndResume() const
    {
        constexpr std::uint32_t BUDGET = 8; // bytes, of which two lines take six
        folder.removeFiles();
        SmallLogger logger(base, Mode::Usual, BUDGET);
        diskMs = 100;
        logger.line('x', 0);
        platform::sleepMs(10); // the writer waits for the disk
        const auto produce = [&](char thread) { logger.line(thread, 0), logger.line(thread, 1); };
        runTogether({{"one", [&] { produce('a'); }}, {"two", [&] { produce('b'); }}});
        diskMs = 0;
        runTogether({{"flusher", [&] { check(logger.flush(), "a flush ends"); }},
                     {"late", [&] { advance(100'000'000), logger.line('c', 0); }}});
        logger.line('d', 0);
        check(logger.flush() && linesOf('d') == "0", "the pause is over when what began it is written");
        check((linesOf('a') + linesOf('b')).size() == 2, "what there is room for is taken");
        check(linesOf('2') == "026-01-01 00:00:00", "one notice tells of the pause");
    }

    const ScratchFolder folder;
    const std::string base = folder.path("log");
    const ScopedReplacement disk{platform::fileCalls.writeFile, writeSlowly};
};

struct GuardedLogSchedules : LogSchedules
{
    GuardedLogSchedules() : LogSchedules(true) {}
};

TEST_F(LogSchedules, EachLineComesIntoTheFileOnceByItself)
{
    exploreBothWays([&] { logInTwoThreads(Mode::Usual); });
    exploreBothWays([&] { logInTwoThreads(Mode::LineByLine); }, 500);
}

TEST_F(GuardedLogSchedules, EachLineComesIntoTheFileOnceByItself)
{
    exploreBothWays([&] { logInTwoThreads(Mode::Usual); }, 1'000);
}

TEST_F(LogSchedules, WhatCameBeforeAFlushOrTheStopIsInTheFile)
{
    exploreBothWays([&] { flushAndStop(); });
}

TEST_F(GuardedLogSchedules, WhatCameBeforeAFlushOrTheStopIsInTheFile)
{
    exploreBothWays([&] { flushAndStop(); }, 1'000);
}

TEST_F(LogSchedules, ABudgetThatIsUsedUpPausesOnceAndComesBack)
{
    exploreBothWays([&] { pauseAndResume(); }, 1'000);
}

TEST_F(GuardedLogSchedules, ABudgetThatIsUsedUpPausesOnceAndComesBack)
{
    exploreBothWays([&] { pauseAndResume(); }, 1'000);
}

TEST_F(LogSchedules, RotatedFilesHoldEachLineOnceAndInItsOrder)
{
    const ScopedReplacement longer(platform::fileCalls.lengthOfFile, tenMebibytesWhenFull);
    for (const Mode mode : {Mode::Usual, Mode::Synchronous})
    {
        exploreBothWays(
            [&] {
                folder.removeFiles();
                {
                    SmallLogger logger(base, mode);
                    const auto produce = [&](char thread) { logger.line(thread, 0, 40'000), logger.line(thread, 1); };
                    runTogether({{"one", [&] { produce('a'); }}, {"two", [&] { produce('b'); }}});
                }
                check(linesOf('a') == "01" && linesOf('b') == "01", "each line is there once");
                const Texts files = folder.files();
                check(files.size() > 1, "the file is rotated");
                std::for_each(files.begin() + 1, files.end(), [&](const std::string& file) {
                    check(std::filesystem::file_size(folder.path(file)) >= FULL, "a file is full when it is rotated");
                });
            },
            500);
    }
}

TEST_F(LogSchedules, AFlushThatGivesUpSaysSoAndLeavesItsSignalToOneLaterFlush)
{
    Tweaks::instance().update("t_OlmFlushFileMaxPeriodMs", "50");
    exploreBothWays([&] {
        const std::string report = "Flush is not completed t_OlmFlushFileMaxPeriodMs=50 \n";
        std::ostringstream standardError;
        std::streambuf* const before = std::cerr.rdbuf(standardError.rdbuf());
        folder.removeFiles();
        diskMs = 0;
        FileLoggerClient client(base, 3, "");
        const auto flushTells = [&] { return standardError.str(""), client.flush(), standardError.str(); };
        check(flushTells().empty(), "a flush that ends in time tells nothing");
        diskMs = 50;
        std::string told;
        runTogether(
            {{"flusher", [&] { client.log("a0\n"), told = flushTells(); }}, {"producer", [&] { client.log("b0\n"); }}});
        check(told == report || (told.empty() && linesOf('a') == "0"), "a flush ends with its lines or gives up");
        platform::sleepMs(1'000);
        diskMs = 1'000;
        client.log("b1\n");
        check(told.empty() || flushTells().empty(), "the signal of the flush that gave up is left");
        check(flushTells() == report, "no other signal is left");
        std::cerr.rdbuf(before);
    });
}

TEST(TrackerSchedules, CountsEachByteAndTellsAPauseOnce)
{
    exploreBothWays([] {
        const DynamicTweak<bool> never;
        HeapMemoryAllocationTracker tracker(10, 5, never, "budget");
        int refused = 0;
        int told = 0;
        const auto take = [&] {
            bool justPaused = false;
            tracker.reserve(6, justPaused) ? tracker.free(6) : void(++refused);
            told += justPaused ? 1 : 0;
        };
        runTogether({{"one", take}, {"two", take}, {"three", [&] {
                                                        tracker.reserveIgnoringLimit(1), take(), tracker.free(1);
                                                    }}});
        check(told == (refused != 0 ? 1 : 0), "the one that begins the pause is told");
        bool isUnused = false;
        check(tracker.reserve(10, isUnused), "nothing is counted any more");
    });
}

/// Another thread may go on while one is inside.
struct Client : LoggerClient
{
    Client() { Logger::instance().registerClient(this, Logger::ALL_LEVELS); }
    ~Client() override { leave(); }
    void log(const std::string& line) override
    {
        check(!isGone, "nobody comes after the client was unregistered");
        ++inside;
        numbers += line.starts_with('a') ? line.substr(1, 1) : "";
        --inside;
    }
    void leave()
    {
        Logger::instance().unregisterClient(this);
        isGone = true;
        check(inside == 0, "nobody is inside after the client was unregistered");
    }

    platform::Atomic<int> inside = 0;
    bool isGone = false;
    std::string numbers{}; // of the lines
};

void log(int number, LogLevel level = LogLevel::Info)
{
    Logger::instance().dispatch("a" + std::to_string(number) + "\n", level, LoggerId::NON);
}

TEST_F(LogSchedules, AnUnregisteredClientIsLeftAloneAndTheOthersMissNothing)
{
    exploreBothWays([] {
        const Client staying;
        Client leaving;
        std::optional<Client> first;
        std::optional<Client> second;
        runTogether({{"logger", [&] { log(1), log(2); }},
                     {"one", [&] { leaving.leave(), first.emplace(); }},
                     {"two", [&] { leaving.leave(), second.emplace(); }}});
        log(3);
        check(staying.numbers == "123", "a client that stays misses nothing");
        check(std::string("12").starts_with(leaving.numbers), "a client that leaves has what came before");
        check(first->numbers.ends_with("3") && second->numbers.ends_with("3"), "a client that comes is called");
    });
}

TEST_F(LogSchedules, AFileClientGoesWhileOthersLogAndFlush)
{
    exploreBothWays([&] {
        folder.removeFiles();
        const Client staying;
        runTogether({{"logger", [&] { log(1, LogLevel::Error), log(2, LogLevel::Error); }},
                     {"owner", [&] {
                          FileLoggerClient client(base, 1, "");
                          Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
                      }}});
        check(staying.numbers == "12", "a client that stays misses nothing");
        check(std::string("12").find(linesOf('a')) != std::string::npos, "each line is there once and in order");
    });
}

} // namespace
