#include "platform/Threads.h"

#include "platform/posix/ThreadFunctions.h"
#include "platform/simulated/Scheduler.h"

#include <memory>

namespace platform::simulated
{

namespace
{

struct ThreadStart
{
    ThreadProcedure procedure;
    void* argument;
    Scheduler::Thread* thread;
};

void threadMain(void* argument)
{
    const std::unique_ptr<ThreadStart> owned(static_cast<ThreadStart*>(argument));
    const ThreadStart start = *owned;
    Scheduler::instance().enter(start.thread);
    start.procedure(start.argument);
}

/// The priority has no effect: the scheduler decides which thread goes on.
ErrorNumber startThread(ThreadProcedure procedure, void* argument, ThreadPriority /*priority*/)
{
    auto start = std::make_unique<ThreadStart>(ThreadStart{procedure, argument, nullptr});
    start->thread = Scheduler::instance().announce();
    const ErrorNumber error = posix::startThread(threadMain, start.get(), ThreadPriority::Normal);
    if (error != ErrorNumber::Success)
    {
        Scheduler::instance().forget(start->thread);
        return error;
    }
    static_cast<void>(start.release()); // the new thread owns it
    return error;
}

/// Adds the number of the thread, because several threads may have the same name.
void nameOwn(const std::string& name)
{
    Scheduler::instance().setOwnName(name + " (thread " + std::to_string(Scheduler::instance().ownNumber()) + ")");
}

void sleepMs(std::uint32_t durationMs) { Scheduler::instance().sleep(durationMs); }

} // namespace

} // namespace platform::simulated

constinit platform::ThreadCalls platform::threadCalls = {
    .startThread = {"startThread", simulated::startThread},
    .currentThreadId = {"currentThreadId", posix::currentThreadId},
    .nameThread = {"nameThread", simulated::nameOwn},
    .openThread = {"openThread", posix::openThread},
    .threadUserTime = {"threadUserTime", posix::threadUserTime},
    .closeThread = {"closeThread", posix::closeThread},
    .currentThreadCycles = {"currentThreadCycles", posix::currentThreadCycles},
    .sleepMs = {"sleepMs", simulated::sleepMs},
    .fenceAllThreads = {"fenceAllThreads", posix::fenceAllThreads},
};
