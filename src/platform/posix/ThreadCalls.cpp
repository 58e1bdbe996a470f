#include "platform/posix/ThreadFunctions.h"

constinit platform::ThreadCalls platform::threadCalls = {
    .startThread = {"startThread", posix::startThread},
    .currentThreadId = {"currentThreadId", posix::currentThreadId},
    .nameThread = {"nameThread", posix::nameThread},
    .openThread = {"openThread", posix::openThread},
    .threadUserTime = {"threadUserTime", posix::threadUserTime},
    .closeThread = {"closeThread", posix::closeThread},
    .currentThreadCycles = {"currentThreadCycles", posix::currentThreadCycles},
    .sleepMs = {"sleepMs", posix::sleepMs},
    .fenceAllThreads = {"fenceAllThreads", posix::fenceAllThreads},
};
