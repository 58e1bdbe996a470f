// The file logger and the hub of the log under many schedules.

#include "datapath/common/infra/GenFileLogger.h"
#include "tests/simulated/Scenarios.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <optional>

namespace
{

std::uint32_t diskMs = 0; // how long a write takes; with 0 other threads may go on first
int diskWrites = 0;

platform::Transfer writeSlowly(platform::FileHandle file, const void* bytes, std::size_t size)
{
    ++diskWrites;
    diskMs == 0 ? platform::relax() : platform::sleepMs(diskMs);
    return platform::fileCalls.writeFile.original(file, bytes, size);
}

constexpr std::uint64_t FULL = 5; // bytes; a file of this length is rotated

platform::FileLength tenMebibytesWhenFull(platform::FileHandle file)
{
    const auto [bytes, error] = platform::fileCalls.lengthOfFile.original(file);
    return {bytes * (10'485'760 / FULL + 1), error};
}

/// Writes a line of the thread's letter, a number and further bytes, such as "a0..".
void write(GenFileLogger& logger, char thread, int number, std::size_t furtherBytes = 0)
{
    const std::string text = thread + std::to_string(number) + std::string(furtherBytes, '.') + "\n";
    logger.write(text.data(), static_cast<std::uint32_t>(text.size()));
}

/// Each schedule makes its own files and its own logger.
struct LogSchedules : testing::Test
{
    explicit LogSchedules(bool isGuarded = false)
    {
        MemShield::setEnabled(isGuarded);
        waitForOwnThreads();
    }

    /// The numbers of a thread's lines in all files, in their order.
    std::string linesOf(char thread) const
    {
        std::string found;
        for (const std::string& line : folder.logLines())
        {
            found += line.starts_with(thread) ? line.substr(1, line.find('.') - 1) : "";
        }
        return found;
    }

    void flushAndStop() const
    {
        folder.removeFiles();
        {
            GenFileLogger logger(settings);
            const auto logAndFlush = [&](char thread) {
                write(logger, thread, 0);
                check(logger.flush() && linesOf(thread) == "0", "what came before a flush is in the file");
            };
            runTogether({{"one", [&] { logAndFlush('a'); }},
                         {"two", [&] { logAndFlush('b'); }},
                         {"producer", [&] { write(logger, 'c', 0), write(logger, 'c', 1); }}});
            logger.write(nullptr, 0);
            write(logger, 'c', 2);
        }
        check(linesOf('c') == "012", "each line is there once and in order");
    }

    const ScratchFolder folder;
    GenFileLogger::Settings settings{.files = {.basePath = folder.path("log")},
                                     .maxBytes = 1'000'000,
                                     .modes = {.flushEveryLine = false},
                                     .threadType = "class writer"};
    const ScopedReplacement disk{platform::fileCalls.writeFile, writeSlowly};
};

struct GuardedLogSchedules : LogSchedules
{
    GuardedLogSchedules() : LogSchedules(true) {}
};

TEST_F(LogSchedules, EachLineComesIntoTheFileOnceByItself)
{
    for (const bool isLineByLine : {false, true})
    {
        settings.modes.asyncFlushEveryLine = isLineByLine;
        exploreBothWays([&] {
            folder.removeFiles();
            diskWrites = 0;
            GenFileLogger logger(settings);
            runTogether({{"one", [&] { write(logger, 'a', 0); }},
                         {"two", [&] {
                              advance(2'000'000); // ends the writer's wait for more lines
                              platform::relax();
                              write(logger, 'b', 0);
                          }}});
            platform::sleepMs(10);
            check(linesOf('a') == "0" && linesOf('b') == "0", "lines come into the file by themselves");
            check(!isLineByLine || diskWrites == 2, "each line is flushed");
        });
    }
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
    settings.maxBytes = 8; // two lines take six
    settings.resumeBytes = 4;
    exploreBothWays([&] {
        folder.removeFiles();
        GenFileLogger logger(settings);
        diskMs = 100;
        write(logger, 'x', 0);
        platform::sleepMs(10); // until the writer waits for the disk
        runTogether({{"one", [&] { write(logger, 'a', 0), write(logger, 'a', 1); }},
                     {"two", [&] { write(logger, 'b', 0), write(logger, 'b', 1); }}});
        diskMs = 0;
        runTogether({{"flusher", [&] { check(logger.flush(), "a flush ends"); }},
                     {"late", [&] { advance(100'000'000), write(logger, 'c', 0); }}});
        write(logger, 'd', 0);
        check(logger.flush() && linesOf('d') == "0", "the pause is over when what began it is written");
        check((linesOf('a') + linesOf('b')).size() == 2, "what there is room for is taken");
        check(linesOf('2') == "026-01-01 00:00:00", "one notice tells of the pause");
    });
}

TEST_F(LogSchedules, RotatedFilesHoldEachLineOnceAndInItsOrder)
{
    const ScopedReplacement longer(platform::fileCalls.lengthOfFile, tenMebibytesWhenFull);
    for (const bool isSynchronous : {false, true})
    {
        settings.modes.flushEveryLine = isSynchronous;
        exploreBothWays(
            [&] {
                folder.removeFiles();
                {
                    GenFileLogger logger(settings);
                    const auto produce = [&](char thread) {
                        write(logger, thread, 0, 40'000), write(logger, thread, 1);
                    };
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

TEST_F(LogSchedules, AFlushThatGivesUpLeavesItsSignalToOneLaterFlush)
{
    settings.flushMaxPeriodMs = 50;
    exploreBothWays([&] {
        folder.removeFiles();
        GenFileLogger logger(settings);
        diskMs = 50;
        bool isInTime = false;
        runTogether({{"flusher", [&] { write(logger, 'a', 0), isInTime = logger.flush(); }},
                     {"producer", [&] { write(logger, 'b', 0); }}});
        check(!isInTime || linesOf('a') == "0", "a flush ends with its lines or gives up");
        platform::sleepMs(1'000);
        diskMs = 1'000;
        write(logger, 'b', 1);
        check(isInTime || logger.flush(), "the signal of the flush that gave up is left");
        check(!logger.flush(), "no other signal is left");
        diskMs = 0;
    });
}

/// Its log function has switch points, so another thread may go on while one is inside.
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
    std::string numbers{}; // those of the lines that it was given
};

void log(const std::string& number) { Logger::instance().dispatch("a" + number + "\n", LogLevel::Info, LoggerId::NON); }

TEST_F(LogSchedules, AnUnregisteredClientIsLeftAloneAndTheOthersMissNothing)
{
    exploreBothWays([] {
        const Client staying;
        Client leaving;
        std::optional<Client> first;
        std::optional<Client> second;
        runTogether({{"logger", [&] { log("1"), log("2"); }},
                     {"one", [&] { leaving.leave(), first.emplace(); }},
                     {"two", [&] { leaving.leave(), second.emplace(); }}});
        log("3");
        check(staying.numbers == "123", "a client that stays misses nothing");
        check(std::string("12").starts_with(leaving.numbers), "a client that leaves has what came before");
        check(first->numbers.ends_with("3") && second->numbers.ends_with("3"), "a client that comes is called");
    });
}

} // namespace
