#pragma once

// Threads as the system gives them. Every function may be called from any thread. Thread ids are
// the system's own (GetCurrentThreadId; gettid) and can be used again once a thread has ended.

#include "platform/Call.h"
#include "platform/ErrorNumber.h"
#include "platform/UniqueHandle.h"

#include <cstdint>
#include <optional>
#include <string>

namespace platform
{

using ThreadProcedure = void (*)(void* argument);

enum class ThreadPriority
{
    Normal,
    TimeCritical ///< as high as the system lets this process go; where it refuses, normal. Not for what it starts.
};

/// An open thread, for its times.
enum class ThreadHandle : std::intptr_t
{
    Invalid = 0
};

struct ThreadCalls
{
    Call<ErrorNumber(ThreadProcedure procedure, void* argument, ThreadPriority priority)> startThread;
    Call<std::uint32_t()> currentThreadId;
    Call<void(const std::string& name)> nameThread;
    Call<ThreadHandle(std::uint32_t threadId)> openThread;
    Call<std::optional<std::uint64_t>(ThreadHandle thread)> threadUserTime;
    Call<void(ThreadHandle thread)> closeThread;
    Call<std::uint64_t()> currentThreadCycles;
    Call<void(std::uint32_t durationMs)> sleepMs;
};

/// The implementation in use. Tests replace single entries before other threads call them.
extern ThreadCalls threadCalls;

/// CreateThread; pthread_create, detached: nothing of the thread is left behind when the procedure
/// returns. The argument must live until the procedure is done with it.
[[nodiscard]] inline ErrorNumber startThread(ThreadProcedure procedure, void* argument,
                                             ThreadPriority priority = ThreadPriority::Normal)
{
    return threadCalls.startThread(procedure, argument, priority);
}

/// GetCurrentThreadId; gettid.
[[nodiscard]] inline std::uint32_t currentThreadId() { return threadCalls.currentThreadId(); }

/// SetThreadDescription, where the system has it; pthread_setname_np. What debuggers and lists of threads call the
/// calling thread; the first 15 bytes of it on Linux.
inline void nameThread(const std::string& name) { threadCalls.nameThread(name); }

/// OpenThread with query access; a look at /proc. Invalid if this process has no such thread.
[[nodiscard]] inline ThreadHandle openThread(std::uint32_t threadId) { return threadCalls.openThread(threadId); }

/// GetThreadTimes; /proc. The thread's user time in 100-ns units, nothing on failure.
[[nodiscard]] inline std::optional<std::uint64_t> threadUserTime(ThreadHandle thread)
{
    return threadCalls.threadUserTime(thread);
}

/// CloseHandle.
inline void closeThread(ThreadHandle thread) { threadCalls.closeThread(thread); }

using OwnedThread = UniqueHandle<ThreadHandle, closeThread>;

/// QueryThreadCycleTime; the thread's CPU clock in ns. Never goes back within one thread; 0 where the
/// system does not count.
[[nodiscard]] inline std::uint64_t currentThreadCycles() { return threadCalls.currentThreadCycles(); }

/// Sleep; nanosleep. Not shortened by signals.
inline void sleepMs(std::uint32_t durationMs) { threadCalls.sleepMs(durationMs); }

} // namespace platform
