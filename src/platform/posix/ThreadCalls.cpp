#include "platform/posix/ThreadFunctions.h"

platform::ThreadCalls platform::threadCalls = {
    .startThread = posix::startThread,
    .currentThreadId = posix::currentThreadId,
    .nameThread = posix::nameThread,
    .openThread = posix::openThread,
    .threadUserTime = posix::threadUserTime,
    .closeThread = posix::closeThread,
    .currentThreadCycles = posix::currentThreadCycles,
    .sleepMs = posix::sleepMs,
};
