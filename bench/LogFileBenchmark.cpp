// Lines of about 120 bytes into rotated files, beside the rotating files of spdlog and Boost.Log with the same text.
// Two bounds: the same line formatted by hand into one buffer under one lock, and the same bytes written in whole
// blocks. Run it in an empty folder; it prints one JSON object.

#include "Medians.h"
#include "datapath/common/infra/FileLoggerClient.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/base/UtcTimestamp.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include <boost/log/attributes/clock.hpp>
#include <boost/log/attributes/current_thread_id.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks.hpp>
#include <boost/log/sources/logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/support/date_time.hpp>
#include <malloc.h>
#include <spdlog/async.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/resource.h>

namespace
{

constexpr int LINES = 600'000;
constexpr int FLUSHED_LINES = 60'000;
constexpr int TIMED_LINES = 200'000;
constexpr std::uint32_t FILE_LENGTH = 10'485'760;
constexpr std::uint32_t FILES = 3;

/// The CPU time of all threads so far, in ns.
double cpuNs()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto ns = [](const timeval& time) {
        return 1e9 * static_cast<double>(time.tv_sec) + 1e3 * static_cast<double>(time.tv_usec);
    };
    return ns(usage.ru_utime) + ns(usage.ru_stime);
}

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
    const double cpuBefore = cpuNs();
    const auto start = SteadyClock::now();
    ++ready;
    std::ranges::for_each(producers, &std::thread::join);
    finish();
    const std::string key = name + "/" + std::to_string(threads);
    results[key + "/cpu"].push_back((cpuNs() - cpuBefore) / (share * threads));
    results[key + "/call"].push_back(inCalls / (share * threads));
    results[key + "/line"].push_back(nsBetween(start, SteadyClock::now()) / (share * threads));
}

/// Measures the percentiles of a call, the two readings of the clock around it included.
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
    std::ranges::sort(all);
    const std::string key = name + "/" + std::to_string(threads);
    results[key + "/p50"].push_back(all[all.size() / 2]);
    results[key + "/p99"].push_back(all[all.size() / 100 * 99]);
    results[key + "/p99.9"].push_back(all[all.size() / 1000 * 999]);
}

void logLine(int value)
{
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
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

/// The same line, formatted by hand into one buffer under one lock; a full buffer is written by whoever fills it.
class ByHand
{
public:
    void log(int value)
    {
        static thread_local std::array<char, 256> line;
        char* out = writeHead(line.data());
        out = append(out, "write took longer than expected, waitedMs=");
        out = std::to_chars(out, line.end(), value).ptr;
        out = append(out, " bytes=");
        out = std::to_chars(out, line.end(), 65536).ptr;
        out = append(out, " queued=");
        out = std::to_chars(out, line.end(), value).ptr;
        out = append(out, " retries=");
        out = std::to_chars(out, line.end(), 3).ptr;
        *out++ = '\n';
        const std::lock_guard guard(m_mutex);
        if (m_buffer.size() + 256 > m_buffer.capacity())
        {
            writeBuffer();
        }
        m_buffer.append(line.data(), out);
    }

    void flush()
    {
        const std::lock_guard guard(m_mutex);
        writeBuffer();
    }

private:
    static char* append(char* out, std::string_view text) { return std::ranges::copy(text, out).out; }

    static char* writeHead(char* out)
    {
        using namespace std::chrono;
        static thread_local sys_time<milliseconds> last{};
        static thread_local std::string time;
        static thread_local const std::string rest =
            ",Info," + std::to_string(platform::currentThreadId()) + ",NON,,logLine,";
        if (const auto now = floor<milliseconds>(system_clock::now()); now != last)
        {
            last = now;
            std::ostringstream text;
            formatUtcTimestamp(text, 3);
            time = text.str();
        }
        return append(append(out, time), rest);
    }

    void writeBuffer()
    {
        if (m_length > FILE_LENGTH)
        {
            std::filesystem::resize_file("hand.txt", 0);
            m_length = 0;
        }
        static_cast<void>(platform::writeFile(m_file.handle, m_buffer.data(), m_buffer.size()));
        m_length += m_buffer.size();
        m_buffer.clear();
    }

    std::mutex m_mutex;
    platform::OpenedFile m_file = platform::openFile("hand.txt", platform::OpenMode::Append);
    std::string m_buffer = [] {
        std::string buffer;
        buffer.reserve(64 * 1024);
        return buffer;
    }();
    std::size_t m_length = 0;
};

/// Boost.Log's asynchronous sink over a rotating file, with a queue of 8192 places that blocks.
class BoostLog
{
    using Queue = boost::log::sinks::bounded_fifo_queue<8192, boost::log::sinks::block_on_overflow>;
    using Sink = boost::log::sinks::asynchronous_sink<boost::log::sinks::text_file_backend, Queue>;

public:
    BoostLog()
    {
        namespace expressions = boost::log::expressions;
        namespace attributes = boost::log::attributes;
        namespace keywords = boost::log::keywords;
        auto backend = boost::make_shared<boost::log::sinks::text_file_backend>(keywords::file_name = "boost%N.txt",
                                                                                keywords::rotation_size = FILE_LENGTH);
        m_sink = boost::make_shared<Sink>(backend);
        m_sink->set_formatter(expressions::stream
                              << expressions::format_date_time<boost::posix_time::ptime>("Time", "%Y-%m-%d %H:%M:%S.%f")
                              << ",Info," << expressions::attr<attributes::current_thread_id::value_type>("Thread")
                              << ",NON,,logLine," << expressions::message);
        boost::log::core::get()->add_global_attribute("Time", attributes::utc_clock());
        boost::log::core::get()->add_global_attribute("Thread", attributes::current_thread_id());
        boost::log::core::get()->add_sink(m_sink);
    }

    static void log(int value)
    {
        static thread_local boost::log::sources::logger logger;
        BOOST_LOG(logger) << "write took longer than expected, waitedMs=" << value << " bytes=" << 65536
                          << " queued=" << value << " retries=" << 3;
    }

    void flush() { m_sink->flush(); }

private:
    boost::shared_ptr<Sink> m_sink;
};

void measureBounds(int threads)
{
    static ByHand byHand;
    const auto log = [](int value) { byHand.log(value); };
    measure("hand", threads, LINES, log, [] { byHand.flush(); });
    measureTail("hand", threads, log);
    static BoostLog boostLog;
    measure("boost", threads, FLUSHED_LINES, BoostLog::log, [] { boostLog.flush(); });
    measureTail("boost", threads, BoostLog::log);
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
            measureBounds(threads);
        }
        measureBytes();
    }
    measureRotation();
    measureMemory();
    printMedians();
}
