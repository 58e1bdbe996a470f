#include "platform/Threads.h"

#include "platform/Utf.h"
#include "platform/windows/System.h"

#include <memory>

namespace platform::windows
{

namespace
{

struct ThreadStart
{
    ThreadProcedure procedure;
    void* argument;
};

DWORD WINAPI threadMain(void* argument)
{
    const std::unique_ptr<ThreadStart> owned(static_cast<ThreadStart*>(argument));
    const ThreadStart start = *owned;
    start.procedure(start.argument);
    return 0;
}

ErrorNumber startThread(ThreadProcedure procedure, void* argument, ThreadPriority priority)
{
    auto start = std::make_unique<ThreadStart>(ThreadStart{procedure, argument});
    const HANDLE thread = CreateThread(nullptr, 0, threadMain, start.get(), 0, nullptr);
    if (thread == nullptr)
    {
        return lastError();
    }
    static_cast<void>(start.release()); // the new thread owns it
    if (priority == ThreadPriority::TimeCritical)
    {
        SetThreadPriority(thread, THREAD_PRIORITY_TIME_CRITICAL);
    }
    CloseHandle(thread);
    return ErrorNumber::Success;
}

std::uint32_t currentThreadId() { return GetCurrentThreadId(); }

void nameThread(const std::string& name)
{
    using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
    static const auto setDescription = reinterpret_cast<SetDescription>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"kernelbase.dll"), "SetThreadDescription"))); // from Windows 10 on
    if (setDescription != nullptr)
    {
        setDescription(GetCurrentThread(), reinterpret_cast<PCWSTR>(utf8ToUtf16(name).c_str()));
    }
}

ThreadHandle openThread(std::uint32_t threadId)
{
    return ThreadHandle{reinterpret_cast<std::intptr_t>(OpenThread(THREAD_QUERY_INFORMATION, FALSE, threadId))};
}

std::optional<std::uint64_t> threadUserTime(ThreadHandle thread)
{
    FILETIME creation = {};
    FILETIME exit = {};
    FILETIME kernel = {};
    FILETIME user = {};
    if (GetThreadTimes(reinterpret_cast<HANDLE>(thread), &creation, &exit, &kernel, &user) == FALSE)
    {
        return std::nullopt;
    }
    return toTicks(user);
}

void closeThread(ThreadHandle thread) { CloseHandle(reinterpret_cast<HANDLE>(thread)); }

std::uint64_t currentThreadCycles()
{
    ULONG64 cycles = 0;
    QueryThreadCycleTime(GetCurrentThread(), &cycles);
    return cycles;
}

void sleepMs(std::uint32_t durationMs) { Sleep(durationMs); }

bool fenceAllThreads() { return false; }

} // namespace

} // namespace platform::windows

constinit platform::ThreadCalls platform::threadCalls = {
    .startThread = {"startThread", windows::startThread},
    .currentThreadId = {"currentThreadId", windows::currentThreadId},
    .nameThread = {"nameThread", windows::nameThread},
    .openThread = {"openThread", windows::openThread},
    .threadUserTime = {"threadUserTime", windows::threadUserTime},
    .closeThread = {"closeThread", windows::closeThread},
    .currentThreadCycles = {"currentThreadCycles", windows::currentThreadCycles},
    .sleepMs = {"sleepMs", windows::sleepMs},
    .fenceAllThreads = {"fenceAllThreads", windows::fenceAllThreads},
};
