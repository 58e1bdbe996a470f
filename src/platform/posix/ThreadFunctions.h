#pragma once

// What the table of threads holds on POSIX, for each implementation that is built on it.

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

} // namespace platform::posix
