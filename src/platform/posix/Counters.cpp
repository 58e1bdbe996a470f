#include "platform/Counters.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <string>
#include <unistd.h>

namespace platform::posix
{

namespace
{

constexpr std::int32_t STATUS_NO_DATA = -1;

CpuCounter openCpuCounter()
{
    return CpuCounter{1}; // any valid value: /proc needs no handle
}

std::int32_t readCpuCounter(CpuCounter counter, CpuTicks& ticks)
{
    if (counter == CpuCounter::Invalid)
    {
        return STATUS_NO_DATA;
    }
    // The line begins with "cpu" and the clock ticks in each state: user, nice, system, idle, waiting for I/O, irq,
    // softirq, steal.
    constexpr int FIELDS = 8;
    constexpr int IDLE = 3;
    constexpr int IO_WAIT = 4;
    std::ifstream stat("/proc/stat");
    std::string label;
    stat >> label;
    const std::int64_t unit = 10'000'000 / sysconf(_SC_CLK_TCK);
    CpuTicks sum = {};
    const std::int64_t processors = sysconf(_SC_NPROCESSORS_ONLN);
    for (int field = 0; field < FIELDS; ++field)
    {
        std::int64_t clockTicks = 0;
        stat >> clockTicks;
        sum.total += clockTicks * unit;
        sum.idle += field == IDLE || field == IO_WAIT ? clockTicks * unit : 0;
    }
    if (!stat || label != "cpu")
    {
        return STATUS_NO_DATA;
    }
    ticks = {.idle = sum.idle / processors, .total = sum.total / processors};
    return 0;
}

void closeCpuCounter(CpuCounter /*counter*/) {}

ProcessHandle openOwnProcess() { return ProcessHandle{getpid()}; }

/// Linux keeps no such peak, so this keeps the largest figure that was reported, the given one included.
std::uint64_t peakPageFile(std::uint64_t pageFile)
{
    static std::atomic<std::uint64_t> peak = 0;
    std::uint64_t highest = peak;
    while (highest < pageFile && !peak.compare_exchange_weak(highest, pageFile))
    {
    }
    return std::max(highest, pageFile);
}

bool processMemory(ProcessHandle /*process*/, ProcessMemory& memory)
{
    std::ifstream status("/proc/self/status");
    std::map<std::string, std::uint64_t> kilobytes;
    for (std::string line; std::getline(status, line);)
    {
        if (const std::size_t colon = line.find(':'); line.ends_with(" kB"))
        {
            kilobytes[line.substr(0, colon)] = std::stoull(line.substr(colon + 1)) * 1024;
        }
    }
    if (kilobytes.empty())
    {
        return false;
    }
    memory = {};
    memory.peakWorkingSet = kilobytes["VmHWM"];
    memory.workingSet = kilobytes["VmRSS"];
    memory.pageFile = kilobytes["RssAnon"] + kilobytes["VmSwap"];
    memory.peakPageFile = peakPageFile(memory.pageFile);
    return true;
}

void closeProcess(ProcessHandle /*process*/) {}

} // namespace

} // namespace platform::posix

constinit platform::CounterCalls platform::counterCalls = {
    .openCpuCounter = {"openCpuCounter", posix::openCpuCounter},
    .readCpuCounter = {"readCpuCounter", posix::readCpuCounter},
    .closeCpuCounter = {"closeCpuCounter", posix::closeCpuCounter},
    .openOwnProcess = {"openOwnProcess", posix::openOwnProcess},
    .processMemory = {"processMemory", posix::processMemory},
    .closeProcess = {"closeProcess", posix::closeProcess},
};
