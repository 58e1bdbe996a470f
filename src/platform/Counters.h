#pragma once

// Counters of the machine and of this process. Every function may be called from any thread; one
// CpuCounter must not be used from two threads at a time.

#include "platform/Call.h"
#include "platform/ErrorNumber.h"
#include "platform/UniqueHandle.h"

#include <cstdint>

namespace platform
{

/// An open query of the machine's idle time. Belongs to whoever opened it.
enum class CpuCounter : std::intptr_t
{
    Invalid = 0
};

/// Since the system started, in 100-ns units: of the average processor.
struct CpuTicks
{
    std::int64_t idle;
    std::int64_t total;
};

/// Memory of this process in bytes. For each figure: the member of PROCESS_MEMORY_COUNTERS; what POSIX has for it,
/// from /proc/self/status.
struct ProcessMemory
{
    std::uint64_t peakWorkingSet;        ///< PeakWorkingSetSize; VmHWM: the largest workingSet so far
    std::uint64_t workingSet;            ///< WorkingSetSize; VmRSS: what is in physical memory, shared files included
    std::uint64_t peakPagedPoolQuota;    ///< QuotaPeakPagedPoolUsage; 0
    std::uint64_t pagedPoolQuota;        ///< QuotaPagedPoolUsage; 0
    std::uint64_t peakNonPagedPoolQuota; ///< QuotaPeakNonPagedPoolUsage; 0
    std::uint64_t nonPagedPoolQuota;     ///< QuotaNonPagedPoolUsage; 0
    std::uint64_t pageFile;     ///< PagefileUsage; RssAnon + VmSwap: what no file backs, in physical memory or swapped
    std::uint64_t peakPageFile; ///< PeakPagefileUsage; the largest pageFile that was given so far
};

/// An open handle of this process.
enum class ProcessHandle : std::intptr_t
{
    Invalid = 0
};

struct CounterCalls
{
    Call<CpuCounter()> openCpuCounter;
    Call<std::int32_t(CpuCounter counter, CpuTicks& ticks)> readCpuCounter;
    Call<void(CpuCounter counter)> closeCpuCounter;
    Call<ProcessHandle()> openOwnProcess;
    Call<bool(ProcessHandle process, ProcessMemory& memory)> processMemory;
    Call<void(ProcessHandle process)> closeProcess;
};

/// The implementation in use. Tests replace single entries before other threads call them.
extern CounterCalls counterCalls;

/// PdhOpenQueryA, PdhAddCounterA for "\Processor(_Total)\% Idle Time" and a first sample;
/// /proc/stat. Failures show in readCpuCounter.
[[nodiscard]] inline CpuCounter openCpuCounter() { return counterCalls.openCpuCounter(); }

/// PdhCollectQueryData and PdhGetRawCounterValue; /proc/stat. Returns the status of the read: 0, or
/// a negative or positive code of the system (for one that is Invalid, too), with ticks unchanged.
[[nodiscard]] inline std::int32_t readCpuCounter(CpuCounter counter, CpuTicks& ticks)
{
    return counterCalls.readCpuCounter(counter, ticks);
}

/// PdhCloseQuery.
inline void closeCpuCounter(CpuCounter counter) { counterCalls.closeCpuCounter(counter); }

using OwnedCpuCounter = UniqueHandle<CpuCounter, closeCpuCounter>;

/// OpenProcess of the current process; Invalid on failure.
[[nodiscard]] inline ProcessHandle openOwnProcess() { return counterCalls.openOwnProcess(); }

/// GetProcessMemoryInfo; /proc/self/status. Figures the system does not keep are 0.
/// False on failure, memory unchanged.
[[nodiscard]] inline bool processMemory(ProcessHandle process, ProcessMemory& memory)
{
    return counterCalls.processMemory(process, memory);
}

/// CloseHandle.
inline void closeProcess(ProcessHandle process) { counterCalls.closeProcess(process); }

using OwnedProcess = UniqueHandle<ProcessHandle, closeProcess>;

} // namespace platform
