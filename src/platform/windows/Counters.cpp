#include "platform/Counters.h"

#include "platform/windows/System.h"

#include <pdh.h>
#include <pdhmsg.h>
#include <psapi.h>

namespace platform::windows
{

namespace
{

struct CpuQuery
{
    PDH_HQUERY query = nullptr;
    PDH_HCOUNTER counter = nullptr;
};

CpuQuery* toQuery(CpuCounter counter) { return reinterpret_cast<CpuQuery*>(counter); }

CpuCounter openCpuCounter()
{
    auto* const opened = new CpuQuery;
    PdhOpenQueryA(nullptr, 0, &opened->query);
    PdhAddCounterA(opened->query, "\\Processor(_Total)\\% Idle Time", 0, &opened->counter);
    PdhCollectQueryData(opened->query);
    return CpuCounter{reinterpret_cast<std::intptr_t>(opened)};
}

std::int32_t readCpuCounter(CpuCounter counter, CpuTicks& ticks)
{
    if (counter == CpuCounter::Invalid)
    {
        return static_cast<std::int32_t>(PDH_INVALID_HANDLE);
    }
    PdhCollectQueryData(toQuery(counter)->query);
    PDH_RAW_COUNTER value = {};
    const PDH_STATUS status = PdhGetRawCounterValue(toQuery(counter)->counter, nullptr, &value);
    if (status == 0)
    {
        ticks = {.idle = value.FirstValue, .total = value.SecondValue};
    }
    return status;
}

void closeCpuCounter(CpuCounter counter)
{
    PdhCloseQuery(toQuery(counter)->query);
    delete toQuery(counter);
}

ProcessHandle openOwnProcess()
{
    const HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, GetCurrentProcessId());
    return ProcessHandle{reinterpret_cast<std::intptr_t>(process)};
}

bool processMemory(ProcessHandle process, ProcessMemory& memory)
{
    PROCESS_MEMORY_COUNTERS counters = {};
    if (GetProcessMemoryInfo(reinterpret_cast<HANDLE>(process), &counters, sizeof(counters)) == FALSE)
    {
        return false;
    }
    memory = {.peakWorkingSet = counters.PeakWorkingSetSize,
              .workingSet = counters.WorkingSetSize,
              .peakPagedPoolQuota = counters.QuotaPeakPagedPoolUsage,
              .pagedPoolQuota = counters.QuotaPagedPoolUsage,
              .peakNonPagedPoolQuota = counters.QuotaPeakNonPagedPoolUsage,
              .nonPagedPoolQuota = counters.QuotaNonPagedPoolUsage,
              .pageFile = counters.PagefileUsage,
              .peakPageFile = counters.PeakPagefileUsage};
    return true;
}

void closeProcess(ProcessHandle process) { CloseHandle(reinterpret_cast<HANDLE>(process)); }

} // namespace

} // namespace platform::windows

constinit platform::CounterCalls platform::counterCalls = {
    .openCpuCounter = {"openCpuCounter", windows::openCpuCounter},
    .readCpuCounter = {"readCpuCounter", windows::readCpuCounter},
    .closeCpuCounter = {"closeCpuCounter", windows::closeCpuCounter},
    .openOwnProcess = {"openOwnProcess", windows::openOwnProcess},
    .processMemory = {"processMemory", windows::processMemory},
    .closeProcess = {"closeProcess", windows::closeProcess},
};
