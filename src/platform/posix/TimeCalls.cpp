#include "platform/posix/TimeFunctions.h"

constinit platform::TimeCalls platform::timeCalls = {
    .utcNow = {"utcNow", posix::utcNow},
    .performanceCounter = {"performanceCounter", posix::performanceCounter},
    .performanceFrequency = {"performanceFrequency", posix::performanceFrequency},
    .tickCountMs = {"tickCountMs", posix::tickCountMs},
    .processorCount = {"processorCount", posix::processorCount},
    .processCpuTime = {"processCpuTime", posix::processCpuTime},
};
