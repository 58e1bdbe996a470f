#include "platform/Time.h"

#include "platform/posix/TimeFunctions.h"
#include "platform/simulated/Scheduler.h"

namespace platform::simulated
{

namespace
{

std::int64_t utcNow() { return Scheduler::instance().readUtc() / 1'000'000; }

/// Virtual time in ns.
bool performanceCounter(std::int64_t& ticks)
{
    ticks = Scheduler::instance().readClock();
    return true;
}

std::uint64_t tickCountMs() { return static_cast<std::uint64_t>(Scheduler::instance().readClock()) / 1'000'000; }

} // namespace

} // namespace platform::simulated

constinit platform::TimeCalls platform::timeCalls = {
    .utcNow = {"utcNow", simulated::utcNow},
    .performanceCounter = {"performanceCounter", simulated::performanceCounter},
    .performanceFrequency = {"performanceFrequency", posix::performanceFrequency},
    .tickCountMs = {"tickCountMs", simulated::tickCountMs},
    .processorCount = {"processorCount", posix::processorCount},
    .processCpuTime = {"processCpuTime", posix::processCpuTime},
};
