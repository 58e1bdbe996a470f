#include "platform/Counters.h"

#include "platform/windows/System.h"

#include <pdh.h>
#include <pdhmsg.h>
#include <psapi.h>

#include <array>
#include <string>

namespace platform::windows
{

namespace
{

/// The functions of pdh.dll. It is loaded when the first counter is opened, by its full path: it is none of the
/// libraries that Windows always takes from its own folder, so if the program file named it, a file of its name in
/// the program's folder would be loaded instead. It stays loaded.
struct PdhLibrary
{
    HMODULE library = load();
    decltype(&PdhOpenQueryA) openQuery = functionOf<decltype(PdhOpenQueryA)>(library, "PdhOpenQueryA");
    decltype(&PdhAddCounterA) addCounter = functionOf<decltype(PdhAddCounterA)>(library, "PdhAddCounterA");
    decltype(&PdhCollectQueryData) collect = functionOf<decltype(PdhCollectQueryData)>(library, "PdhCollectQueryData");
    decltype(&PdhGetRawCounterValue) rawValue =
        functionOf<decltype(PdhGetRawCounterValue)>(library, "PdhGetRawCounterValue");
    decltype(&PdhCloseQuery) closeQuery = functionOf<decltype(PdhCloseQuery)>(library, "PdhCloseQuery");

    [[nodiscard]] bool isComplete() const
    {
        return openQuery != nullptr && addCounter != nullptr && collect != nullptr && rawValue != nullptr &&
               closeQuery != nullptr;
    }

    static HMODULE load()
    {
        std::array<wchar_t, MAX_PATH> folder{};
        GetSystemDirectoryW(folder.data(), MAX_PATH);
        return LoadLibraryExW((std::wstring(folder.data()) + L"\\pdh.dll").c_str(), nullptr,
                              LOAD_WITH_ALTERED_SEARCH_PATH); // what it needs itself is looked for in its folder first
    }
};

const PdhLibrary& pdh()
{
    static const PdhLibrary loaded;
    return loaded;
}

struct CpuQuery
{
    PDH_HQUERY query = nullptr;
    PDH_HCOUNTER counter = nullptr;
};

CpuQuery* toQuery(CpuCounter counter) { return reinterpret_cast<CpuQuery*>(counter); }

CpuCounter openCpuCounter()
{
    if (!pdh().isComplete())
    {
        return CpuCounter::Invalid;
    }
    auto* const opened = new CpuQuery;
    pdh().openQuery(nullptr, 0, &opened->query);
    pdh().addCounter(opened->query, "\\Processor(_Total)\\% Idle Time", 0, &opened->counter);
    pdh().collect(opened->query);
    return CpuCounter{reinterpret_cast<std::intptr_t>(opened)};
}

std::int32_t readCpuCounter(CpuCounter counter, CpuTicks& ticks)
{
    if (counter == CpuCounter::Invalid)
    {
        return static_cast<std::int32_t>(PDH_INVALID_HANDLE);
    }
    pdh().collect(toQuery(counter)->query);
    PDH_RAW_COUNTER value = {};
    const PDH_STATUS status = pdh().rawValue(toQuery(counter)->counter, nullptr, &value);
    if (status == 0)
    {
        ticks = {.idle = value.FirstValue, .total = value.SecondValue};
    }
    return status;
}

void closeCpuCounter(CpuCounter counter)
{
    pdh().closeQuery(toQuery(counter)->query);
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
