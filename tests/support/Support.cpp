#include "tests/support/Support.h"

#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/SystemHeapBytes.h"
#include "datapath/common/infra/windows/MemWatcher.h"
#include "platform/Threads.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

CapturingClient::CapturingClient(std::uint32_t levelMask) { Logger::instance().registerClient(this, levelMask); }

void CapturingClient::log(const std::string& line)
{
    const std::lock_guard guard(m_mutex);
    m_lines.push_back(line);
}

void CapturingClient::flush()
{
    const std::lock_guard guard(m_mutex);
    ++m_flushes;
}

Texts CapturingClient::lines() const
{
    const std::lock_guard guard(m_mutex);
    return m_lines;
}

Texts CapturingClient::messages() const
{
    Texts messages;
    for (const std::string& line : lines())
    {
        const std::size_t level = line.find(',') + 1;
        const std::size_t thread = line.find(',', level) + 1;
        const std::size_t logger = line.find(',', thread) + 1;
        messages.push_back(line.substr(level, thread - level) + line.substr(logger, line.size() - logger - 1));
    }
    return messages;
}

Texts CapturingClient::newMessages()
{
    Texts messages = CapturingClient::messages();
    messages.erase(messages.begin(), messages.begin() + static_cast<std::ptrdiff_t>(m_known));
    m_known += messages.size();
    return messages;
}

Texts CapturingClient::messagesAfter(const std::string& start) const
{
    Texts rests = messages();
    std::erase_if(rests, [&](const std::string& message) { return !message.starts_with(start); });
    std::ranges::for_each(rests, [&](std::string& message) { message.erase(0, start.size()); });
    return rests;
}

std::ptrdiff_t CapturingClient::count(std::string_view pattern) const
{
    return std::ranges::count_if(messages(), [=](const std::string& message) { return matches(message, pattern); });
}

int CapturingClient::flushes() const
{
    const std::lock_guard guard(m_mutex);
    return m_flushes;
}

HookedClient::HookedClient(std::string part, std::function<void(const std::string&)> hook)
    : m_part(std::move(part)), m_hook(std::move(hook))
{
    Logger::instance().registerClient(this, Logger::ALL_LEVELS);
}

void repeat(int times, const std::function<void()>& work)
{
    while (times-- > 0)
    {
        work();
    }
}

void runInThreads(int count, const std::function<void(int)>& work)
{
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index)
    {
        threads.emplace_back(work, index);
    }
    std::ranges::for_each(threads, &std::thread::join);
}

void exchangeInThreads(int threads, int rounds, const std::function<char*(std::uint32_t random)>& make,
                       const std::function<void(char*)>& release)
{
#ifdef __SANITIZE_THREAD__
    rounds /= 10; // each takes ten times as long
#endif
    std::vector<std::atomic<char*>> buffers(1'000); // shared by all threads
    const auto put = [&](std::atomic<char*>& buffer, char* fresh) {
        char* const old = buffer.exchange(fresh);
        old != nullptr ? release(old) : void();
    };
    runInThreads(threads, [&](int index) {
        std::mt19937 random(static_cast<unsigned>(index));
        repeat(rounds, [&] { put(buffers[random() % buffers.size()], make(static_cast<std::uint32_t>(random()))); });
        SystemHeapBytes::leaveShare();
    });
    std::ranges::for_each(buffers, [&](std::atomic<char*>& buffer) { put(buffer, nullptr); });
}

void waitUntil(const std::function<bool()>& condition)
{
    while (!condition())
    {
        platform::sleepMs(1);
    }
}

void OrderOfThreads::operator()(const std::string& line)
{
    int thread = -1;
    int number = -1;
    int length = -1;
    const std::size_t start = std::min(line.find("thread="), line.size());
    ASSERT_EQ(2, std::sscanf(line.c_str() + start, "thread=%d i=%d end%n", &thread, &number, &length)) << line;
    ASSERT_TRUE(matches(line.substr(0, start), head) && line.size() == start + static_cast<std::size_t>(length))
        << line;
    ASSERT_EQ(next[thread]++, number) << line;
}

void logNumbered(LogLevel level, int thread, int number)
{
    LogItem(LoggerId::NON, level, TAVRO_METHOD) << "thread=" << thread << " i=" << number << " end" << std::endl;
}

std::string stdoutOf(const std::function<void()>& work)
{
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
}

std::string stderrOf(const std::function<void()>& work)
{
    testing::internal::CaptureStderr();
    work();
    return testing::internal::GetCapturedStderr();
}

ScratchFolder::ScratchFolder()
{
    static std::atomic<int> count = 0;
    const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
    // Not shared with a test that runs at the same time, such as one of the same name in another suite.
    std::string name = "scratch-";
    name += test == nullptr ? "child-" + std::to_string(platform::currentThreadId())
                            : std::string(test->test_suite_name()) + "." + test->name();
    std::ranges::replace(name, '/', '-');
    m_path = fs::current_path() / (name + "-" + std::to_string(count++));
    fs::remove_all(m_path);
    fs::create_directories(m_path);
    fs::current_path(m_path);
}

ScratchFolder::~ScratchFolder()
{
    fs::current_path(m_workingFolder);
    // One by one, because remove_all never returns on Windows if one of the files is still open.
    std::vector<fs::path> paths{m_path};
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(paths.front()))
    {
        paths.push_back(entry.path());
    }
    std::error_code ignored;
    std::for_each(paths.rbegin(), paths.rend(), [&](const fs::path& path) { fs::remove(path, ignored); });
}

std::string ScratchFolder::write(const std::string& name, const std::string& content) const
{
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
}

std::string ScratchFolder::read(const std::string& path)
{
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::string ScratchFolder::readText(const std::string& path)
{
    std::string text = read(path);
    std::erase(text, '\r');
    return text;
}

void ScratchFolder::removeFiles() const
{
    std::ranges::for_each(files(), [&](const std::string& name) { fs::remove(path(name)); });
}

Texts ScratchFolder::files() const
{
    Texts names;
    for (const fs::directory_entry& entry : fs::directory_iterator(m_path))
    {
        if (entry.is_regular_file())
        {
            names.push_back(entry.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

Texts ScratchFolder::logLines() const
{
    Texts names = files();
    std::rotate(names.begin(), names.begin() + (names.empty() ? 0 : 1), names.end());
    Texts lines;
    for (const std::string& name : names)
    {
        std::istringstream text(readText(path(name)));
        for (std::string line; std::getline(text, line);)
        {
            lines.push_back(line);
        }
    }
    return lines;
}

std::map<std::string, std::function<void()>>& childScenarios()
{
    static std::map<std::string, std::function<void()>> scenarios;
    return scenarios;
}

ChildResult runChild(const std::string& scenario)
{
    const std::string output = (fs::current_path() / (scenario + "-output.txt")).string();
    const std::string program = testing::internal::GetArgvs().front();
    const char* const arguments[] = {program.c_str(), "--child", scenario.c_str(), output.c_str(), nullptr};
    const int status = runProgram(arguments);
    const std::string text = ScratchFolder::readText(output);
    fs::remove(output);
    return {status, text};
}

void waitForOwnThreads()
{
    static_cast<void>(MemShield::instance()); // starts them
    waitUntil([] {
        int threads = 0;
        MemWatcher::instance().iterateThreads([&](std::uint32_t, std::uint64_t) { ++threads; });
        return threads >= 2;
    });
}

std::string expectAbnormalEnd(const std::string& scenario, std::string_view pattern)
{
    const auto [status, output] = runChild(scenario);
    EXPECT_TRUE(status == ABNORMAL_END_WINDOWS || status == ABNORMAL_END_POSIX) << status;
    EXPECT_TRUE(matches(output, pattern)) << scenario << "\n" << output;
    return output;
}

void expectMatches(const Texts& patterns, const Texts& texts)
{
    EXPECT_TRUE(std::ranges::equal(texts, patterns, matches)) << testing::PrintToString(texts);
}

bool matches(std::string_view text, std::string_view pattern)
{
    const std::size_t literal = std::min(pattern.find_first_of("~#"), pattern.size());
    if (!text.starts_with(pattern.substr(0, literal)))
    {
        return false;
    }
    text.remove_prefix(literal);
    if (literal == pattern.size())
    {
        return text.empty();
    }
    const std::string_view rest = pattern.substr(literal + 1);
    if (pattern[literal] == '#')
    {
        const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
        return digits > 0 && text[0] != '0' && matches(text.substr(digits), rest);
    }
    for (std::size_t taken = 0; taken <= text.size(); ++taken)
    {
        if (matches(text.substr(taken), rest))
        {
            return true;
        }
    }
    return false;
}
