#include "platform/posix/ThreadFunctions.h"

#include "platform/Time.h"
#include "platform/posix/Errors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <fcntl.h>
#include <linux/membarrier.h>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform::posix
{

namespace
{

constexpr std::uint64_t TICKS_PER_SECOND = 10'000'000; // 100-ns units

struct ThreadStart
{
    ThreadProcedure procedure;
    void* argument;
    ThreadPriority priority;
};

/// Raises the calling thread only: the threads and programs that it starts have normal priority, as on Windows. A
/// system that allows no real-time policy may still allow a lower niceness.
void raisePriority()
{
    sched_param parameter = {};
    parameter.sched_priority = sched_get_priority_min(SCHED_RR);
    if (sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &parameter) != 0)
    {
        constexpr int HIGHEST_NICENESS = -20;
        parameter.sched_priority = 0;
        sched_setscheduler(0, SCHED_OTHER | SCHED_RESET_ON_FORK, &parameter);
        setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), HIGHEST_NICENESS);
    }
}

void* threadMain(void* argument)
{
    const std::unique_ptr<ThreadStart> owned(static_cast<ThreadStart*>(argument));
    const ThreadStart start = *owned;
    if (start.priority == ThreadPriority::TimeCritical)
    {
        raisePriority();
    }
    start.procedure(start.argument);
    return nullptr;
}

std::string statPath(std::uint32_t threadId) { return "/proc/self/task/" + std::to_string(threadId) + "/stat"; }

} // namespace

ErrorNumber startThread(ThreadProcedure procedure, void* argument, ThreadPriority priority)
{
    pthread_attr_t attributes;
    if (const int error = pthread_attr_init(&attributes); error != 0)
    {
        return fromErrno(error);
    }
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    auto start = std::make_unique<ThreadStart>(ThreadStart{procedure, argument, priority});
    pthread_t thread = {};
    const int error = pthread_create(&thread, &attributes, threadMain, start.get());
    pthread_attr_destroy(&attributes);
    if (error == 0)
    {
        static_cast<void>(start.release()); // the new thread owns it
    }
    return fromErrno(error);
}

std::uint32_t currentThreadId()
{
    thread_local const auto ID = static_cast<std::uint32_t>(gettid());
    return ID;
}

void nameThread(const std::string& name)
{
    constexpr std::size_t LONGEST = 15;
    pthread_setname_np(pthread_self(), name.substr(0, LONGEST).c_str());
}

ThreadHandle openThread(std::uint32_t threadId)
{
    return ThreadHandle{access(statPath(threadId).c_str(), R_OK) == 0 ? static_cast<std::intptr_t>(threadId) : 0};
}

std::optional<std::uint64_t> threadUserTime(ThreadHandle thread)
{
    const int file = open(statPath(static_cast<std::uint32_t>(thread)).c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
    {
        return std::nullopt;
    }
    std::array<char, 1024> buffer{};
    const ssize_t length = read(file, buffer.data(), buffer.size());
    close(file);
    std::string_view text(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    // The thread's name, in parentheses, may contain any characters; user time is the 12th field after it.
    text.remove_prefix(std::min(text.rfind(')') + 1, text.size()));
    for (int field = 0; field < 12 && !text.empty(); ++field)
    {
        text.remove_prefix(std::min(text.find(' ') + 1, text.size()));
    }
    std::uint64_t clockTicks = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), clockTicks).ec != std::errc())
    {
        return std::nullopt;
    }
    return clockTicks * (TICKS_PER_SECOND / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK)));
}

void closeThread(ThreadHandle /*thread*/) {}

std::uint64_t currentThreadCycles()
{
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<std::uint64_t>(time.tv_sec * NS_PER_SECOND + time.tv_nsec);
}

void sleepMs(std::uint32_t durationMs)
{
    timespec remaining = {.tv_sec = static_cast<time_t>(durationMs / 1000),
                          .tv_nsec = static_cast<long>(durationMs % 1000) * 1'000'000};
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR)
    {
    }
}

bool fenceAllThreads()
{
    constexpr auto MEMBARRIER = [](membarrier_cmd command) { return syscall(SYS_membarrier, command, 0, 0) == 0; };
    static const bool isAvailable = MEMBARRIER(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED);
    return isAvailable && MEMBARRIER(MEMBARRIER_CMD_PRIVATE_EXPEDITED);
}

} // namespace platform::posix
