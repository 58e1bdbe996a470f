#pragma once

// Threads of this process: starting them, their ids, names and times.
//
//     const ErrorNumber error = startThread(procedure, &work);
//
// Every function may be called from any thread. Thread ids are the system's own (GetCurrentThreadId; gettid); the
// system may use one again when its thread has ended.

#include "platform/Call.h"
#include "platform/ErrorNumber.h"
#include "platform/UniqueHandle.h"

#include <cstdint>
#include <optional>
#include <string>

namespace platform
{

using ThreadProcedure = void (*)(void* argument);

/// How urgently the system runs a thread.
enum class ThreadPriority
{
    Normal,
    TimeCritical ///< above normal threads where the system allows that; the threads that it starts are normal
};

/// An open handle to a thread, to read its times. Whoever opened it closes it.
enum class ThreadHandle : std::intptr_t
{
    Invalid = 0
};

/// The table of this header's calls, which tests replace.
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
    Call<bool()> fenceAllThreads;
};

extern ThreadCalls threadCalls;

/// CreateThread; pthread_create, detached. Nobody joins the thread: the system releases it when the procedure returns.
/// The argument must live until the procedure no longer uses it.
[[nodiscard]] inline ErrorNumber startThread(ThreadProcedure procedure, void* argument,
                                             ThreadPriority priority = ThreadPriority::Normal)
{
    return threadCalls.startThread(procedure, argument, priority);
}

/// GetCurrentThreadId; gettid.
[[nodiscard]] inline std::uint32_t currentThreadId() { return threadCalls.currentThreadId(); }

/// SetThreadDescription, where the system has it; pthread_setname_np. Names the calling thread for debuggers and lists
/// of threads. Linux keeps the first 15 bytes.
inline void nameThread(const std::string& name) { threadCalls.nameThread(name); }

/// OpenThread with query access; /proc. Returns Invalid if there is no such thread. Windows also opens threads of other
/// processes.
[[nodiscard]] inline ThreadHandle openThread(std::uint32_t threadId) { return threadCalls.openThread(threadId); }

/// GetThreadTimes; /proc. The user time of the thread in 100-ns units, or nothing on failure.
[[nodiscard]] inline std::optional<std::uint64_t> threadUserTime(ThreadHandle thread)
{
    return threadCalls.threadUserTime(thread);
}

/// CloseHandle.
inline void closeThread(ThreadHandle thread) { threadCalls.closeThread(thread); }

using OwnedThread = UniqueHandle<ThreadHandle, closeThread>;

/// QueryThreadCycleTime, in cycles; the CPU clock of the thread, in ns. Never decreases within one thread; always 0
/// where the system does not count.
[[nodiscard]] inline std::uint64_t currentThreadCycles() { return threadCalls.currentThreadCycles(); }

/// Sleep; nanosleep. Not shortened by signals.
inline void sleepMs(std::uint32_t durationMs) { threadCalls.sleepMs(durationMs); }

/// membarrier. The rare side of an asymmetric fence: when it returns, every thread of this process has passed a full
/// memory fence since the call, so that the frequent side needs a fence for the compiler only. It takes some
/// microseconds. Returns false, and does nothing, where the system has no such call; whether it has one does not change
/// while the process runs. Always false on Windows, because FlushProcessWriteBuffers does nothing under Wine.
[[nodiscard]] inline bool fenceAllThreads() { return threadCalls.fenceAllThreads(); }

} // namespace platform
