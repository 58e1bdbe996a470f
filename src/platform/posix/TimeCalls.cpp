#include "platform/posix/TimeFunctions.h"

platform::TimeCalls platform::timeCalls = {
    .utcNow = posix::utcNow,
    .performanceCounter = posix::performanceCounter,
    .performanceFrequency = posix::performanceFrequency,
    .tickCountMs = posix::tickCountMs,
    .processorCount = posix::processorCount,
    .processCpuTime = posix::processCpuTime,
};
