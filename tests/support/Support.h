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

/// Keeps every line that it is given. Several threads may log at once.
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
    /// For each message that begins with this start, what follows it.
    [[nodiscard]] Texts messagesAfter(const std::string& start) const;
    /// How many messages match the pattern.
    [[nodiscard]] std::ptrdiff_t count(std::string_view pattern) const;
    [[nodiscard]] std::string last() const { return messages().back(); }
    [[nodiscard]] int flushes() const;

private:
    mutable std::mutex m_mutex;
    Texts m_lines;
    std::size_t m_known = 0; // how many messages newMessages has returned
    int m_flushes = 0;
};

/// While it exists, calls the hook with each line that contains the part.
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

struct ProcessEnded
{
};
/// While it exists, ProcessEnded is thrown where the process would end.
struct ScopedProcessEnd
{
    ScopedReplacement replacement{platform::processCalls.endProcess, [] { throw ProcessEnded(); }};
};

/// From its construction on, lines of level Assert do not end the process.
struct IgnoredAsserts : LogAssertHook
{
    IgnoredAsserts() { Logger::instance().setAssertHook(this); }
    bool onAssert(const std::string& /*line*/) override { return true; }
};

void repeat(int times, const std::function<void()>& work);

/// Runs the work in that many threads at once, each with its index, and waits for all of them.
void runInThreads(int count, const std::function<void(int)>& work);

/// Lets threads release buffers that other threads have made: each thread makes one buffer a round, or null, puts it in
/// a random place that all threads share, and releases the buffer that was there. At the end the rest is released.
void exchangeInThreads(int threads, int rounds, const std::function<char*(std::uint32_t random)>& make,
                       const std::function<void(char*)>& release);

/// Returns when the condition is true. Looks each millisecond.
void waitUntil(const std::function<bool()>& condition);

/// Called with lines, expects that each consists of a head, which is a pattern, and "thread=T i=N end", and that the
/// lines of each thread T have the numbers N from 0 on, in order.
struct OrderOfThreads
{
    void operator()(const std::string& line);

    const std::string_view head;
    std::map<int, int> next{}; // the next number by thread
};
/// Logs a line for OrderOfThreads.
void logNumbered(LogLevel level, int thread, int number);

/// What the work writes to standard output, or to standard error.
std::string stdoutOf(const std::function<void()>& work);
std::string stderrOf(const std::function<void()>& work);

/// Returns when the infrastructure's own two threads run and have made all their allocations.
void waitForOwnThreads();

/// A new folder, which is the working folder while this object exists and is then removed with everything in it. Names
/// may have slashes; paths have the system's separators.
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
    /// The content without carriage returns.
    [[nodiscard]] static std::string readText(const std::string& path);
    /// The sorted names of the files in the folder.
    [[nodiscard]] Texts files() const;
    /// The lines of all files, which belong to one log, oldest first. The live file is the first by name and has the
    /// newest lines.
    [[nodiscard]] Texts logLines() const;
    void removeFiles() const;

private:
    const std::filesystem::path m_workingFolder = std::filesystem::current_path();
    std::filesystem::path m_path;
};

/// A test in a folder of its own, with a client for all lines. Lines of level Assert do not end the process.
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
    std::string output; ///< its standard output without carriage returns
};

inline constexpr int ABNORMAL_END_WINDOWS = 3;
inline constexpr int ABNORMAL_END_POSIX = 128 + 6; // SIGABRT

/// Runs a scenario, declared with CHILD_SCENARIO, in a fresh process.
ChildResult runChild(const std::string& scenario);

/// Expects that the scenario ends its process as a failed check does, and that its output matches the pattern. Returns
/// the output.
std::string expectAbnormalEnd(const std::string& scenario, std::string_view pattern = "~");

/// Whether a text matches the pattern, in which ~ stands for any text and # for a positive number.
bool matches(std::string_view text, std::string_view pattern);

/// Expects as many texts as patterns, each of which matches its text.
void expectMatches(const Texts& patterns, const Texts& texts);

/// A scenario for runChild: CHILD_SCENARIO(name) { ... }
#define CHILD_SCENARIO(name)                                                                                           \
    static void name();                                                                                                \
    static const bool name##Registered = childScenarios().try_emplace(#name, name).second;                             \
    static void name()

std::map<std::string, std::function<void()>>& childScenarios();

/// How many handles or descriptors this process has open.
int openHandles();

/// Starts a program, waits for it and returns its status as in ChildResult. The first argument is the path, and a null
/// pointer follows the last one.
int runProgram(const char* const* arguments);
