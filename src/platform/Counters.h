#pragma once

// How busy the machine is, and how much memory this process uses.
//
//     const OwnedCpuCounter counter(openCpuCounter());
//     CpuTicks ticks{};
//     if (readCpuCounter(counter.get(), ticks) == 0) ...
//
// Every function may be called from any thread; one CpuCounter must not be used from two threads at a time.

#include "platform/Call.h"
#include "platform/ErrorNumber.h"
#include "platform/UniqueHandle.h"

#include <cstdint>

namespace platform
{

/// An open query of the machine's idle time. Whoever opened it closes it.
enum class CpuCounter : std::intptr_t
{
    Invalid = 0
};

/// Two running totals in 100-ns units, averaged over the processors. Where they start depends on the system: only the
/// differences between two readings have a meaning.
struct CpuTicks
{
    std::int64_t idle;
    std::int64_t total;
};

/// The memory of this process in bytes. The comment of each figure names the member of PROCESS_MEMORY_COUNTERS and,
/// after the semicolon, the field of /proc/self/status that stands for it on POSIX.
struct ProcessMemory
{
    std::uint64_t peakWorkingSet;        ///< PeakWorkingSetSize; VmHWM: the largest workingSet so far
    std::uint64_t workingSet;            ///< WorkingSetSize; VmRSS: resident memory, shared files included
    std::uint64_t peakPagedPoolQuota;    ///< QuotaPeakPagedPoolUsage; 0
    std::uint64_t pagedPoolQuota;        ///< QuotaPagedPoolUsage; 0
    std::uint64_t peakNonPagedPoolQuota; ///< QuotaPeakNonPagedPoolUsage; 0
    std::uint64_t nonPagedPoolQuota;     ///< QuotaNonPagedPoolUsage; 0
    std::uint64_t pageFile;     ///< PagefileUsage; RssAnon + VmSwap: memory that no file backs, resident or swapped
    std::uint64_t peakPageFile; ///< PeakPagefileUsage; the largest pageFile that was reported so far
};

/// An open handle to this process. Whoever opened it closes it.
enum class ProcessHandle : std::intptr_t
{
    Invalid = 0
};

/// The table of this header's calls, which tests replace.
struct CounterCalls
{
    Call<CpuCounter()> openCpuCounter;
    Call<std::int32_t(CpuCounter counter, CpuTicks& ticks)> readCpuCounter;
    Call<void(CpuCounter counter)> closeCpuCounter;
    Call<ProcessHandle()> openOwnProcess;
    Call<bool(ProcessHandle process, ProcessMemory& memory)> processMemory;
    Call<void(ProcessHandle process)> closeProcess;
};

extern CounterCalls counterCalls;

/// PdhOpenQueryA, PdhAddCounterA for "\Processor(_Total)\% Idle Time" and a first sample; /proc/stat. A counter that
/// could not be opened fails when it is read.
[[nodiscard]] inline CpuCounter openCpuCounter() { return counterCalls.openCpuCounter(); }

/// PdhCollectQueryData and PdhGetRawCounterValue; /proc/stat. Returns 0. On failure, an Invalid counter included, it
/// returns the system's error code, which may be negative, and leaves ticks unchanged.
[[nodiscard]] inline std::int32_t readCpuCounter(CpuCounter counter, CpuTicks& ticks)
{
    return counterCalls.readCpuCounter(counter, ticks);
}

/// PdhCloseQuery.
inline void closeCpuCounter(CpuCounter counter) { counterCalls.closeCpuCounter(counter); }

using OwnedCpuCounter = UniqueHandle<CpuCounter, closeCpuCounter>;

/// OpenProcess of the current process; Invalid on failure.
[[nodiscard]] inline ProcessHandle openOwnProcess() { return counterCalls.openOwnProcess(); }

/// GetProcessMemoryInfo; /proc/self/status. Figures that the system does not keep are 0. Returns false on failure and
/// leaves memory unchanged.
[[nodiscard]] inline bool processMemory(ProcessHandle process, ProcessMemory& memory)
{
    return counterCalls.processMemory(process, memory);
}

/// CloseHandle.
inline void closeProcess(ProcessHandle process) { counterCalls.closeProcess(process); }

using OwnedProcess = UniqueHandle<ProcessHandle, closeProcess>;

} // namespace platform
