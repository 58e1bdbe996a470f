#pragma once

// Helpers that tests share.

#include "datapath/common/infra/Log.h"
#include "platform/Call.h"
#include "platform/Process.h"

#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

using Texts = std::vector<std::string>;

/// Keeps every line it is given; safe for several threads.
class CapturingClient : public LoggerClient
{
public:
    /// Registers itself for the given levels, for as long as it exists.
    explicit CapturingClient(std::uint32_t levelMask = Logger::ALL_LEVELS);
    ~CapturingClient() override { Logger::instance().unregisterClient(this); }

    void log(const std::string& line) override;
    void flush() override;

    [[nodiscard]] Texts lines() const;
    /// The lines without their time and thread: "Info,NON,Logger,registerClient,message".
    [[nodiscard]] Texts messages() const;
    /// The messages since the last call.
    Texts newMessages();
    /// The rest of each message that starts so.
    [[nodiscard]] Texts messagesAfter(const std::string& start) const;
    /// How many messages are as the pattern says.
    [[nodiscard]] std::ptrdiff_t count(std::string_view pattern) const;
    [[nodiscard]] std::string last() const { return messages().back(); }
    [[nodiscard]] int flushes() const;

private:
    mutable std::mutex m_mutex;
    Texts m_lines;
    std::size_t m_known = 0; // messages
    int m_flushes = 0;
};

/// Calls a function with each line that has that part, for as long as it exists.
struct HookedClient : LoggerClient
{
    HookedClient(std::string part, std::function<void(const std::string&)> hook);
    ~HookedClient() override { Logger::instance().unregisterClient(this); }
    void log(const std::string& line) override { line.find(m_part) != std::string::npos ? m_hook(line) : void(); }

    const std::string m_part;
    const std::function<void(const std::string&)> m_hook;
};

/// Replaces one entry of a platform table for a scope.
class ScopedReplacement
{
public:
    template <class Signature>
    ScopedReplacement(platform::Call<Signature>& call, typename platform::Call<Signature>::Function replacement)
        : m_putBack([&call, replaced = std::exchange(call.current, replacement)] { call.current = replaced; })
    {
    }
    ScopedReplacement(const ScopedReplacement&) = delete;
    ScopedReplacement& operator=(const ScopedReplacement&) = delete;
    ~ScopedReplacement() { m_putBack(); }

private:
    std::function<void()> m_putBack;
};

/// While it lives, what would end the process throws ProcessEnded instead.
struct ProcessEnded
{
};
struct ScopedProcessEnd
{
    ScopedReplacement replacement{platform::processCalls.endProcess, [] { throw ProcessEnded(); }};
};

/// Lets the program go on after lines of level Assert, from its construction on.
struct IgnoredAsserts : LogAssertHook
{
    IgnoredAsserts() { Logger::instance().setAssertHook(this); }
    bool onAssert(const std::string& /*line*/) override { return true; }
};

void repeat(int times, const std::function<void()>& work);

/// Runs the work in that many threads, each with its index, and waits for all.
void runInThreads(int count, const std::function<void(int)>& work);

/// In each of that many threads, puts that many buffers, or none, in place of others, which it releases; then releases
/// the rest.
void exchangeInThreads(int threads, int rounds, const std::function<char*(std::uint32_t random)>& make,
                       const std::function<void(char*)>& release);

/// Looks each millisecond until it is so.
void waitUntil(const std::function<bool()>& condition);

/// Expects lines of a head, which is a pattern, and "thread=1 i=0 end", and the numbers of each thread one after the
/// other, from 0 on.
struct OrderOfThreads
{
    void operator()(const std::string& line);

    const std::string_view head;
    std::map<int, int> next{}; // of each thread
};
/// Logs such a line.
void logNumbered(LogLevel level, int thread, int number);

/// What the work writes to standard output, or to standard error.
std::string stdoutOf(const std::function<void()>& work);
std::string stderrOf(const std::function<void()>& work);

/// Returns when the infrastructure's own two threads run and have taken what they take of the guarded allocator.
void waitForOwnThreads();

/// The working folder for as long as it exists, removed with everything in it. Names in it may have slashes; paths are
/// the system's own.
class ScratchFolder
{
public:
    ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder();

    [[nodiscard]] std::string path(const std::string& name) const { return (m_path / name).make_preferred().string(); }
    std::string write(const std::string& name, const std::string& content) const;
    [[nodiscard]] static std::string read(const std::string& path);
    /// With line feeds only.
    [[nodiscard]] static std::string readText(const std::string& path);
    /// The names of its files, sorted.
    [[nodiscard]] Texts files() const;
    /// The lines of all its files, in their order, but those of the first one come last: it is a log's live file.
    [[nodiscard]] Texts logLines() const;
    void removeFiles() const;

private:
    const std::filesystem::path m_workingFolder = std::filesystem::current_path();
    std::filesystem::path m_path;
};

/// In a folder of its own, with all lines at hand; the program goes on after those of level Assert.
struct LogTest : testing::Test
{
    const ScratchFolder folder;
    const IgnoredAsserts ignoredAsserts;
    CapturingClient client;
};

/// What a child process left behind.
struct ChildResult
{
    int status;         ///< exit code, or 128 plus the signal that ended it
    std::string output; ///< of its standard output, line feeds only
};

inline constexpr int ABNORMAL_END_WINDOWS = 3;
inline constexpr int ABNORMAL_END_POSIX = 128 + 6; // SIGABRT

/// Runs a scenario, declared with CHILD_SCENARIO, in a fresh process.
ChildResult runChild(const std::string& scenario);

/// Expects that the scenario ends its process as the program does on errors; returns its output, which is as the
/// pattern says.
std::string expectAbnormalEnd(const std::string& scenario, std::string_view pattern = "~");

/// Whether a text is as the pattern says, in which ~ stands for any text and # for a positive number.
bool matches(std::string_view text, std::string_view pattern);

/// One pattern for each text.
void expectMatches(const Texts& patterns, const Texts& texts);

/// A scenario for runChild: CHILD_SCENARIO(name) { ... }
#define CHILD_SCENARIO(name)                                                                                           \
    static void name();                                                                                                \
    static const bool name##Registered = childScenarios().try_emplace(#name, name).second;                             \
    static void name()

std::map<std::string, std::function<void()>>& childScenarios();

/// How many handles or descriptors this process has open.
int openHandles();

/// Starts a program, waits for it and returns its status as ChildResult has it. The path is the first argument, and a
/// null pointer ends them.
int runProgram(const char* const* arguments);
