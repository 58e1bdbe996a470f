// What the program does over a system that fails. A scenario runs again and again in a child process: first its first
// call of the platform fails, then its second, and so on, until a run meets no fault. Either only that call fails, or
// all calls from it on.
//
// On standard output the child prints what the program promises, and "fault NAME" when the first call fails. The order
// of these lines shows which promises came before the fault.

#include "Agent/CheckpointGui/AgentLauncher.h"
#include "datapath/common/infra/GenFileLogger.h"
#include "datapath/common/infra/MemoryReport.h"
#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/base/Crc32.h"
#include "platform/Counters.h"
#include "platform/Entry.h"
#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/Shell.h"
#include "platform/Text.h"
#include "platform/Threads.h"
#include "platform/Time.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <thread>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

constexpr int HANGS = 99;           // the exit code of a child that hangs
const std::string FAULT = "fault "; // followed by the name of the first call that fails

// A process takes a tenth of a second under Wine, and waits for a second at its end under the thread sanitizer.
#ifdef __SANITIZE_THREAD__
constexpr bool IS_PROCESS_SLOW = true;
#else
constexpr bool IS_PROCESS_SLOW = PATH_SEPARATOR != '/';
#endif

int faultyCall = 0; // the first call is number 0
bool areLaterFaulty = false;
std::atomic<int> calls = 0;

bool isFaulty(const char* name)
{
    const int call = calls++;
    if (call == faultyCall)
    {
        std::cout << FAULT + name + "\n" << std::flush;
    }
    return call == faultyCall || (areLaterFaulty && call > faultyCall);
}

/// Replaces an entry of a platform table by a function that fails when isFaulty says so.
template <auto ENTRY> struct Fallible;
template <class Table, class Result, class... Arguments, Call<Result(Arguments...)> Table::*ENTRY>
struct Fallible<ENTRY>
{
    static void install(Table& table, Result failure)
    {
        s_name = (table.*ENTRY).name;
        s_failure = failure;
        s_working = std::exchange((table.*ENTRY).current, run);
    }

private:
    static Result run(Arguments... arguments) { return isFaulty(s_name) ? s_failure : s_working(arguments...); }

    static inline const char* s_name = nullptr;
    static inline Result s_failure{};
    static inline Result (*s_working)(Arguments...) = nullptr;
};

void installFaults()
{
    constexpr int NO_PERMISSION = 13; // the C library's EACCES
    Fallible<&FileCalls::openFile>::install(fileCalls, {FileHandle::Invalid, ErrorNumber::AccessDenied});
    Fallible<&FileCalls::readFile>::install(fileCalls, {0, ErrorNumber::IoDevice});
    Fallible<&FileCalls::writeFile>::install(fileCalls, {0, ErrorNumber::DiskFull});
    Fallible<&FileCalls::lengthOfFile>::install(fileCalls, {0, ErrorNumber::IoDevice});
    Fallible<&FileCalls::flushFile>::install(fileCalls, ErrorNumber::IoDevice);
    Fallible<&FileCalls::closeFile>::install(fileCalls, ErrorNumber::IoDevice);
    Fallible<&FileCalls::createFolder>::install(fileCalls, ErrorNumber::AccessDenied);
    Fallible<&FileCalls::createFolderErrno>::install(fileCalls, NO_PERMISSION);
    Fallible<&FileCalls::pathExists>::install(fileCalls, false);
    Fallible<&FileCalls::removeFile>::install(fileCalls, NO_PERMISSION);
    Fallible<&FileCalls::renameFile>::install(fileCalls, NO_PERMISSION);
    Fallible<&FileCalls::replaceFile>::install(fileCalls, ErrorNumber::AccessDenied);
    Fallible<&FileCalls::removeFolder>::install(fileCalls, ErrorNumber::AccessDenied);
    Fallible<&FileCalls::flushFolder>::install(fileCalls, ErrorNumber::IoDevice);
    Fallible<&FileCalls::lockFolder>::install(fileCalls, {FileHandle::Invalid, ErrorNumber::SharingViolation});
    Fallible<&FileCalls::findFirstEntry>::install(fileCalls, {FolderHandle::Invalid, ErrorNumber::AccessDenied});
    Fallible<&FileCalls::findNextEntry>::install(fileCalls, ErrorNumber::IoDevice);
    Fallible<&ThreadCalls::startThread>::install(threadCalls, ErrorNumber::NotEnoughMemory);
    Fallible<&ThreadCalls::openThread>::install(threadCalls, ThreadHandle::Invalid);
    Fallible<&ThreadCalls::threadUserTime>::install(threadCalls, std::nullopt);
    Fallible<&TimeCalls::performanceCounter>::install(timeCalls, false);
    Fallible<&TimeCalls::performanceFrequency>::install(timeCalls, false);
    Fallible<&TimeCalls::processCpuTime>::install(timeCalls, std::nullopt);
    Fallible<&CounterCalls::openCpuCounter>::install(counterCalls, CpuCounter::Invalid);
    Fallible<&CounterCalls::readCpuCounter>::install(counterCalls, -1);
    Fallible<&CounterCalls::openOwnProcess>::install(counterCalls, ProcessHandle::Invalid);
    Fallible<&CounterCalls::processMemory>::install(counterCalls, false);
    Fallible<&ProcessCalls::moduleFileName>::install(processCalls, 0);
    Fallible<&ProcessCalls::createProcess>::install(processCalls, ErrorNumber::NotEnoughMemory);
    Fallible<&ShellCalls::commonAppDataFolder>::install(shellCalls, -1);
    Fallible<&ShellCalls::appendToPath>::install(shellCalls, false);
    Fallible<&DialogCalls::runDialog>::install(dialogCalls, -1);
}

/// The system of a child: works in the working folder, shows no dialog and starts no agent. The file "fault" tells
/// which call fails.
struct FailingSystem
{
    FailingSystem()
    {
        std::ifstream("fault") >> faultyCall >> areLaterFaulty;
        std::thread([] {
            std::this_thread::sleep_for(std::chrono::seconds(30));
            std::_Exit(HANGS);
        }).detach();
        installFaults();
    }

    const ScopedReplacement replacements[4] = {
        {shellCalls.commonAppDataFolder, [](char* buffer) { return std::strcpy(buffer, "."), 0; }},
        {dialogCalls.runDialog, [](ModuleHandle, int, DialogProcedure) -> std::intptr_t { return 1; }},
        {processCalls.moduleFileName, [](char* buffer, std::uint32_t) { return std::strcpy(buffer, "program"), 7U; }},
        {processCalls.createProcess,
         [](std::u16string&) { return std::cout << "started" << std::endl, ErrorNumber::Success; }},
    };
};

/// Runs the work over a FailingSystem, which is never destroyed: threads may still call it when the process ends.
void runOverFailingSystem(const std::function<void()>& work)
{
    [[maybe_unused]] static const auto& stays = *new FailingSystem;
    work();
}

/// Writes the log to standard output.
struct StdoutClient : LoggerClient
{
    StdoutClient() { Logger::instance().registerClient(this, Logger::ALL_LEVELS); }
    ~StdoutClient() override { Logger::instance().unregisterClient(this); }
    void log(const std::string& line) override { std::cout << line + "\n" << std::flush; }
};

CHILD_SCENARIO(startOfTheProgram)
{
    runOverFailingSystem([] { wWinMain(nullptr, nullptr, nullptr, 0); });
}

CHILD_SCENARIO(loadingOfTweaks)
{
    const StdoutClient log;
    runOverFailingSystem([] {
        const std::int64_t value = Tweaks::instance().value(QLOG_MAX_FILES);
        std::cout << "value " << value << std::endl;
    });
}

CHILD_SCENARIO(launchOfTheAgent)
{
    const StdoutClient log;
    runOverFailingSystem([] { runAgent(u"nightly"); });
}

CHILD_SCENARIO(memoryReport)
{
    const StdoutClient log;
    runOverFailingSystem([] { MemoryReport::printAllocations(); });
}

CHILD_SCENARIO(loggingOverARotation)
{
    const ScopedReplacement fullAfterSixLines(fileCalls.lengthOfFile, [](FileHandle file) {
        const auto [bytes, error] = fileCalls.lengthOfFile.original(file);
        return FileLength{bytes * (10'485'760 / 40), error};
    });
    MemShield::setEnabled(false);
    runOverFailingSystem([] {
        GenFileLogger logger({{"app.log", 1}, 1'000'000, 500'000, 0, {.flushEveryLine = false}});
        for (int line = 0; line < 9; ++line)
        {
            const std::string text = "line " + std::to_string(line) + "\n";
            logger.write(text.data(), static_cast<std::uint32_t>(text.size()));
            if (line % 3 == 2 && logger.flush())
            {
                std::cout << "flushed " << line + 1 << std::endl;
            }
        }
    });
}

/// What a run leaves.
struct Outcome
{
    std::string output; ///< standard output, and after it the program's log
    std::string failed; ///< the name of the first call that failed, empty if none did
    bool isForGood;     ///< all calls after the first failed one failed, too
    bool hasEnded;      ///< a failed check or assertion has ended the process

    [[nodiscard]] bool has(std::string_view text) const { return output.find(text) != std::string::npos; }
    /// Whether one of these calls has failed, or may have failed after another one.
    [[nodiscard]] bool hasFailed(const Texts& names) const
    {
        return isForGood ? !failed.empty() : std::ranges::count(names, failed) != 0;
    }
};

struct FaultSweep : testing::Test
{
    Outcome runWith(const std::string& scenario, int call, bool isForGood) const
    {
        folder.write("fault", std::to_string(call) + " " + std::to_string(isForGood));
        auto [status, output] = runChild(scenario);
        const std::size_t fault = output.find(FAULT);
        const std::size_t name = fault + FAULT.size();
        const std::string failed =
            fault == std::string::npos ? "" : output.substr(name, output.find('\n', name) - name);
        output += ScratchFolder::readText(folder.path("Tavro/logs/TavroVssAgentGUI.exe.log.txt"));
        const bool hasEnded = status == ABNORMAL_END_WINDOWS || status == ABNORMAL_END_POSIX;
        EXPECT_TRUE(status == 0 || (hasEnded && !failed.empty())) << status;
        return {output, failed, isForGood, hasEnded};
    }

    static bool hasLog()
    {
        const std::filesystem::recursive_directory_iterator files(".");
        return std::any_of(begin(files), end(files),
                           [](const auto& file) { return file.path().extension() == ".txt"; });
    }

    /// Runs the scenario once for each fault, over the files that prepare makes, and checks the outcome of each run
    /// that comes to its end.
    void sweep(
        const std::string& scenario, const std::function<void(const Outcome&)>& check,
        const std::function<void()>& prepare = [] {}) const
    {
        const char* const thorough = std::getenv("TAVRO_THOROUGH");
        const bool isThorough = thorough != nullptr && thorough == std::string("1");
        const int step = IS_PROCESS_SLOW && !isThorough ? 4 : 1;
        for (const bool isForGood : {false, true})
        {
            bool isFaultMet = true;
            for (int call = 0; isFaultMet; call += step)
            {
                for (const auto& entry : std::filesystem::directory_iterator("."))
                {
                    std::filesystem::remove_all(entry.path());
                }
                prepare();
                const Outcome run = runWith(scenario, call, isForGood);
                SCOPED_TRACE(run.failed + (isForGood ? " for good" : " once") + "\n" + run.output);
                // If the log could not be opened, or takes no more text, the text of an assertion is lost.
                EXPECT_TRUE(!run.hasEnded || run.has("Assertion (") || run.has(",Assert,") ||
                            run.has("without logger") || (isForGood && hasLog()));
                run.hasEnded ? void() : check(run);
                isFaultMet = !run.failed.empty();
            }
        }
    }

    const ScratchFolder folder;
};

TEST_F(FaultSweep, TheProgramStartsAndLogsWhereverThereIsALog)
{
    sweep("startOfTheProgram", [](const Outcome& run) {
        EXPECT_TRUE(run.has(",wWinMain,Done.") ||
                    run.hasFailed({"commonAppDataFolder", "appendToPath", "createFolder", "openFile", "writeFile"}));
    });
}

TEST_F(FaultSweep, OverAValidPairTheTweaksAreTheOldOrTheNewOnes)
{
    const auto writePairs = [this] {
        std::filesystem::create_directory("olm_tweaks");
        for (const std::string slot : {"0", "1"})
        {
            const std::string text = "t_qlogMaxFiles = 1" + slot + "\n";
            Crc32 crc;
            crc.update(text);
            folder.write("olm_tweaks/tweaks.txt." + slot, text);
            folder.write("olm_tweaks/tweaks.txt." + slot + ".sig", "4" + slot + "\n" + std::to_string(crc.value()));
        }
    };
    const auto check = [](const Outcome& run) {
        EXPECT_TRUE(run.has("value 11\n") || (run.has("value 10\n") && !run.failed.empty()) ||
                    (run.has("value 3\n") && run.isForGood && run.has("File does not exist")));
    };
    sweep("loadingOfTweaks", check, writePairs);
}

TEST_F(FaultSweep, TheAgentIsStartedOrItIsToldWhyNot)
{
    const auto check = [](const Outcome& run) {
        EXPECT_NE(run.has("started\n"), run.has("Error 8 in CreateProcessW."));
        EXPECT_TRUE(run.has("cmdline: TavroVssAgent.exe -GUI host 80 peer 81 \"nightly\"\n") ||
                    run.hasFailed({"moduleFileName", "openFile", "readFile"}));
    };
    sweep("launchOfTheAgent", check, [this] { folder.write("program.conf", "host 80 peer 81"); });
}

TEST_F(FaultSweep, AMemoryReportComesToItsEnd)
{
    sweep("memoryReport", [](const Outcome& run) {
        EXPECT_TRUE(run.has("memory information: ") || run.hasFailed({"processMemory"}));
        EXPECT_TRUE(run.has(",printCpu,"));
    });
}

TEST_F(FaultSweep, LinesStayWholeAndInOrderAndThoseOfAFlushAreThere)
{
    const auto check = [this](const Outcome& run) {
        int lines = 0;
        for (const std::string& line : folder.logLines())
        {
            EXPECT_TRUE(!line.starts_with("l") || line == "line " + std::to_string(lines++)) << line;
        }
        const bool mayDropLines = run.hasFailed({"openFile"}); // promises then hold until the fault only
        const std::string promises = run.output.substr(0, mayDropLines ? run.output.find(FAULT) : std::string::npos);
        const std::size_t flush = promises.rfind("flushed ");
        const int flushed = flush == std::string::npos ? 0 : promises[flush + std::strlen("flushed ")] - '0';
        EXPECT_LE(flushed, lines);
        EXPECT_TRUE(flushed == 9 || mayDropLines);
    };
    const auto makeOldLog = [this] { folder.write("app.log000001.txt", ""); }; // the rotation removes it
    sweep("loggingOverARotation", check, makeOldLog);
}

} // namespace
