#pragma once

// The running process and the processes it starts. Every function may be called from any thread.

#include "platform/Call.h"
#include "platform/ErrorNumber.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace platform
{

struct ProcessCalls
{
    Call<std::uint32_t(char* buffer, std::uint32_t size)> moduleFileName;
    Call<ErrorNumber(std::u16string& commandLine)> createProcess;
    Call<void()> endProcess;
};

/// The implementation in use. Tests replace single entries before other threads call them.
extern ProcessCalls processCalls;

/// GetModuleFileNameA; /proc/self/exe. Writes the running program's full path, narrow, with the system's own
/// separators and zero-terminated, and returns its length. A path that does not fit is cut to size - 1
/// characters and size is returned. Returns 0 on failure, with an empty buffer.
inline std::uint32_t moduleFileName(char* buffer, std::uint32_t size)
{
    return processCalls.moduleFileName(buffer, size);
}

/// CreateProcessW; fork and execve. Starts the program that the command line's first token names,
/// without a console window or terminal, without handles or descriptors of ours, with our
/// environment and working folder. A bare name is looked for in the running program's folder, the
/// working folder and the PATH. The process is not waited for and outlives us. The command line is
/// UTF-16 and may be modified; it is split into arguments by the C runtime's rules for Windows.
[[nodiscard]] inline ErrorNumber createProcess(std::u16string& commandLine)
{
    return processCalls.createProcess(commandLine);
}

/// TerminateProcess with exit code 3; abort with the default action restored. Nothing of the
/// program runs afterwards: no destructor, no exit handler.
[[noreturn]] inline void endProcess()
{
    processCalls.endProcess();
    std::abort(); // a replaced entry must not return, or throw to come back
}

} // namespace platform
