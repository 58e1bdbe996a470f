#pragma once

// The calls of the table threadCalls on POSIX. The simulated platform uses those that it does not replace.

#include "platform/Threads.h"

namespace platform::posix
{

ErrorNumber startThread(ThreadProcedure procedure, void* argument, ThreadPriority priority);
std::uint32_t currentThreadId();
void nameThread(const std::string& name);
ThreadHandle openThread(std::uint32_t threadId);
std::optional<std::uint64_t> threadUserTime(ThreadHandle thread);
void closeThread(ThreadHandle thread);
std::uint64_t currentThreadCycles();
void sleepMs(std::uint32_t durationMs);
bool fenceAllThreads();

} // namespace platform::posix
