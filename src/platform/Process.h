#pragma once

// The running process and the processes that it starts.
//
//     std::u16string commandLine = u"TavroVssAgent.exe -GUI";
//     const ErrorNumber error = createProcess(commandLine);
//
// Every function may be called from any thread.

#include "platform/Call.h"
#include "platform/ErrorNumber.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace platform
{

/// Why createProcess looks in a folder for a bare name.
enum class SearchRule : std::uint8_t
{
    ProgramFolder, ///< the folder of the running program
    WorkingFolder,
    SystemFolder, ///< a folder of the operating system
    PathVariable  ///< named by the environment's PATH
};

/// A folder, with a separator at its end.
struct SearchedFolder
{
    std::string path;
    SearchRule rule;
};

/// The folders in which createProcess looks for a bare name, in their order, if it is called by the program with that
/// path. The first file of the name counts, even if it cannot be executed.
[[nodiscard]] std::vector<SearchedFolder> searchedFolders(const std::string& programPath);

/// The table of this header's calls, which tests replace.
struct ProcessCalls
{
    Call<std::uint32_t(char* buffer, std::uint32_t size)> moduleFileName;
    Call<ErrorNumber(std::u16string& commandLine)> createProcess;
    Call<void()> endProcess;
};

extern ProcessCalls processCalls;

/// GetModuleFileNameA; /proc/self/exe. Writes the full path of the running program, narrow, zero-terminated and with
/// the system's own separators, and returns its length. Cuts a path that does not fit to size - 1 characters and
/// returns size. On failure the buffer is empty and 0 is returned.
inline std::uint32_t moduleFileName(char* buffer, std::uint32_t size)
{
    return processCalls.moduleFileName(buffer, size);
}

/// CreateProcessW; fork and execve. Starts the program that the first token of the command line names. It gets this
/// process's environment and working folder, but no console window or terminal and none of its handles or descriptors.
/// A bare name is looked for in the running program's folder, the working folder and the PATH. The new process is not
/// waited for and outlives this one. The command line is UTF-16 and may be modified; it is split into arguments by the
/// rules of the C runtime for Windows.
[[nodiscard]] inline ErrorNumber createProcess(std::u16string& commandLine)
{
    return processCalls.createProcess(commandLine);
}

/// TerminateProcess with exit code 3; abort with the default action restored. No destructor and no exit handler of the
/// program runs afterwards.
[[noreturn]] inline void endProcess()
{
    processCalls.endProcess();
    std::abort(); // not reached: a replacement that lets the caller go on throws
}

} // namespace platform
