#include "tests/support/Support.h"

#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/windows/MemWatcher.h"
#include "platform/Threads.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

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

std::vector<std::string> CapturingClient::lines() const
{
    const std::lock_guard guard(m_mutex);
    return m_lines;
}

std::vector<std::string> CapturingClient::messages() const
{
    std::vector<std::string> messages;
    for (const std::string& line : lines())
    {
        const std::size_t level = line.find(',') + 1;
        const std::size_t thread = line.find(',', level) + 1;
        const std::size_t logger = line.find(',', thread) + 1;
        messages.push_back(line.substr(level, thread - level) + line.substr(logger, line.size() - logger - 1));
    }
    return messages;
}

int CapturingClient::flushes() const
{
    const std::lock_guard guard(m_mutex);
    return m_flushes;
}

void runInThreads(int count, const std::function<void(int)>& work)
{
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index)
    {
        threads.emplace_back(work, index);
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}

ScratchFolder::ScratchFolder()
{
    static std::atomic<int> count = 0;
    const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string name = std::string("scratch-") + (test == nullptr ? "child" : test->name());
    m_path = fs::current_path() / (name + std::to_string(count++));
    fs::remove_all(m_path);
    fs::create_directories(m_path);
}

ScratchFolder::~ScratchFolder()
{
    fs::current_path(m_workingFolder);
    // One by one: with a file that is still open, remove_all does not end on Windows.
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

std::vector<std::string> ScratchFolder::files() const
{
    std::vector<std::string> names;
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

std::map<std::string, std::function<void()>>& childScenarios()
{
    static std::map<std::string, std::function<void()>> scenarios;
    return scenarios;
}

ChildResult runChild(const std::string& scenario)
{
    const std::string output = (fs::current_path() / (scenario + "-output.txt")).string();
    const int status = runProgram(testing::internal::GetArgvs().front(), {"--child", scenario, output});
    std::string text = ScratchFolder::read(output);
    std::erase(text, '\r');
    fs::remove(output);
    return {status, text};
}

void waitForOwnThreads()
{
    static_cast<void>(MemShield::instance()); // starts them
    for (int threads = 0; threads < 2; platform::sleepMs(1))
    {
        threads = 0;
        MemWatcher::instance().iterateThreads([&](std::uint32_t, std::uint64_t) { ++threads; });
    }
}

void expectAbnormalEnd(const ChildResult& child)
{
    EXPECT_TRUE(child.status == ABNORMAL_END_WINDOWS || child.status == ABNORMAL_END_POSIX) << child.status;
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
