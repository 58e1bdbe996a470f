// Lines of about 120 bytes into rotated files, beside spdlog's rotating file loggers with the same text, and beside the
// same bytes written in whole blocks. Run it in an empty folder; it prints one JSON object.

#include "Medians.h"
#include "datapath/common/infra/FileLoggerClient.h"
#include "datapath/common/infra/LogItem.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <thread>
#include <vector>

#include <malloc.h>
#include <spdlog/async.h>
#include <spdlog/sinks/rotating_file_sink.h>

namespace
{

constexpr int LINES = 600'000;
constexpr int FLUSHED_LINES = 60'000;
constexpr int TIMED_LINES = 200'000;
constexpr std::uint32_t FILE_LENGTH = 10'485'760;
constexpr std::uint32_t FILES = 3;

/// Each thread logs its share of the lines; finish must return when all of them are in the file.
template <class Log, class Finish>
void measure(const std::string& name, int threads, int lines, const Log& log, const Finish& finish)
{
    const int share = lines / threads;
    std::atomic<int> ready = 0;
    std::atomic<double> inCalls = 0;
    std::vector<std::thread> producers;
    for (int i = 0; i < threads; ++i)
    {
        producers.emplace_back([&] {
            for (++ready; ready <= threads;)
            {
                std::this_thread::yield();
            }
            const auto start = SteadyClock::now();
            for (int line = 0; line < share; ++line)
            {
                log(line);
            }
            inCalls += nsBetween(start, SteadyClock::now());
        });
    }
    while (ready < threads)
    {
        std::this_thread::yield();
    }
    const auto start = SteadyClock::now();
    ++ready;
    std::ranges::for_each(producers, &std::thread::join);
    finish();
    const std::string key = name + "/" + std::to_string(threads);
    results[key + "/call"].push_back(inCalls / (share * threads));
    results[key + "/line"].push_back(nsBetween(start, SteadyClock::now()) / (share * threads));
}

/// Measures the 99.9th percentile of a call.
template <class Log> void measureTail(const std::string& name, int threads, const Log& log)
{
    std::vector<std::vector<double>> times(static_cast<std::size_t>(threads));
    std::vector<std::thread> producers;
    for (std::vector<double>& mine : times)
    {
        producers.emplace_back([&] {
            for (int line = 0; line < TIMED_LINES / threads; ++line)
            {
                const auto start = SteadyClock::now();
                log(line);
                mine.push_back(nsBetween(start, SteadyClock::now()));
            }
        });
    }
    std::ranges::for_each(producers, &std::thread::join);
    std::vector<double> all;
    for (const std::vector<double>& mine : times)
    {
        all.insert(all.end(), mine.begin(), mine.end());
    }
    const auto tail = all.begin() + static_cast<std::ptrdiff_t>(all.size() / 1000 * 999);
    std::nth_element(all.begin(), tail, all.end());
    results[name + "/" + std::to_string(threads) + "/tail"].push_back(*tail);
}

void logLine(int value)
{
    LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
        << "write took longer than expected, waitedMs=" << value << " bytes=" << 65536 << " queued=" << value
        << " retries=" << 3 << std::endl;
}

void peerLine(spdlog::logger& logger, int value)
{
    logger.info("write took longer than expected, waitedMs={} bytes={} queued={} retries={}", value, 65536, value, 3);
}

template <class PeerLogger, class... More> std::shared_ptr<PeerLogger> peer(More&&... more)
{
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>("peer.txt", FILE_LENGTH, FILES);
    auto logger = std::make_shared<PeerLogger>("NON", std::move(sink), std::forward<More>(more)...);
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e,Info,%t,%n,,logLine,%v", spdlog::pattern_time_type::utc);
    return logger;
}

void measureAsynchronous(FileLoggerClient& client, int threads)
{
    measure("ours", threads, LINES, logLine, [&] { client.flush(); });
    measureTail("ours", threads, logLine);
    client.flush();
    for (const bool isTail : {false, true})
    {
        auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
        auto logger = peer<spdlog::async_logger>(pool, spdlog::async_overflow_policy::block);
        const auto log = [&](int value) { peerLine(*logger, value); };
        const auto finish = [&] {
            pool.reset(); // its destructor writes what is queued
            logger->sinks().front()->flush();
        };
        isTail ? measureTail("peer", threads, log) : measure("peer", threads, LINES, log, finish);
    }
}

/// Hands lines to a logger in its default mode, which is synchronous.
struct SynchronousClient : LoggerClient
{
    void log(const std::string& line) override { logger.write(line.data(), static_cast<std::uint32_t>(line.size())); }

    GenFileLogger logger{(std::filesystem::current_path() / "sync.log").string(), 1};
};

void measureSynchronous(FileLoggerClient& client, SynchronousClient& synchronous, int threads)
{
    const auto useOnly = [&](const LoggerClient* wanted) {
        client.m_levelMask = wanted == &client ? Logger::ALL_LEVELS : 0;
        synchronous.m_levelMask = wanted == &synchronous ? Logger::ALL_LEVELS : 0;
    };
    useOnly(&synchronous);
    measure("oursSync", threads, FLUSHED_LINES, logLine, [] {});
    useOnly(&client);
    auto logger = peer<spdlog::logger>();
    const auto log = [&](int value) { peerLine(*logger, value); };
    const auto finish = [&] { logger->flush(); };
    measure("peerSync", threads, LINES, log, finish);
    logger->flush_on(spdlog::level::trace);
    measure("peerSyncFlushed", threads, FLUSHED_LINES, log, finish);
}

/// Measures writing the bytes of the lines in blocks of 64 KiB, without making the lines.
void measureBytes()
{
    const std::string line = "2024-03-05 07:08:09.042,Info,471100,NON,,logLine,write took longer than expected, "
                             "waitedMs=123456 bytes=65536 queued=123456 retries=3\n";
    std::string block;
    while (block.size() < 64 * 1024)
    {
        block += line;
    }
    const int lines = static_cast<int>(block.size() / line.size());
    const auto start = SteadyClock::now();
    const platform::OpenedFile file = platform::openFile("bytes.txt", platform::OpenMode::Append);
    for (int written = 0; written < LINES; written += lines)
    {
        static_cast<void>(platform::writeFile(file.handle, block.data(), block.size()));
    }
    platform::closeFile(file.handle);
    results["bytes/1/line"].push_back(nsBetween(start, SteadyClock::now()) / LINES);
    std::filesystem::remove("bytes.txt");
}

/// Measures a write that rotates the file beside 10,000 numbered files and removes one of them.
void measureRotation()
{
    std::filesystem::create_directory("many");
    const std::string base = (std::filesystem::current_path() / "many/log").string();
    for (int i = 1; i <= 10'000; ++i)
    {
        std::ofstream("many/log" + std::to_string(1'000'000 + i) + ".txt");
    }
    for (int i = 0; i < REPETITIONS; ++i)
    {
        std::ofstream("many/log.txt").close();
        std::filesystem::resize_file("many/log.txt", FILE_LENGTH + 1);
        GenFileLogger logger(base, 1);
        const auto start = SteadyClock::now();
        logger.write("line\n", 5);
        results["rotation/1/call"].push_back(nsBetween(start, SteadyClock::now()));
    }
    std::filesystem::remove_all("many");
}

std::atomic<bool> isDiskStill = false;

/// Measures what the process takes from the heap while a writer cannot write, as a fraction of the budget.
void measureMemory()
{
    constexpr std::uint32_t BUDGET_MIB = 3;
    const std::string line = "2024-03-05 07:08:09.042,Info,471100,NON,,logLine,write took longer than expected, "
                             "waitedMs=123456 bytes=65536 queued=123456 retries=3\n";
    const auto allocated = [] { return static_cast<double>(mallinfo2().uordblks + mallinfo2().hblkhd); };
    FileLoggerClient client((std::filesystem::current_path() / "still.log").string(), BUDGET_MIB, "");
    client.flush();
    const double before = allocated();
    isDiskStill = true;
    for (int i = 0; i < 100'000; ++i)
    {
        client.log(line);
    }
    results["memory/1/share"].push_back((allocated() - before) / (BUDGET_MIB << 20U));
    isDiskStill = false;
}

} // namespace

int main()
{
    std::ofstream("tweaks_extension.txt") << "t_GenFileLoggerMaxFiles = " << FILES << "\n";
    MemShield::setEnabled(false);
    platform::fileCalls.writeFile.current = [](platform::FileHandle file, const void* bytes, std::size_t size) {
        while (isDiskStill)
        {
            std::this_thread::yield();
        }
        return platform::fileCalls.writeFile.original(file, bytes, size);
    };
    constexpr std::uint32_t NEVER_FULL_MIB = 4095;
    static FileLoggerClient client((std::filesystem::current_path() / "ours.log").string(), NEVER_FULL_MIB, "");
    static SynchronousClient synchronous;
    Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
    Logger::instance().registerClient(&synchronous, 0);
    for (int repetition = 0; repetition < REPETITIONS; ++repetition)
    {
        for (const int threads : {1, 2, 4})
        {
            measureAsynchronous(client, threads);
            measureSynchronous(client, synchronous, threads);
        }
        measureBytes();
    }
    measureRotation();
    measureMemory();
    printMedians();
}
