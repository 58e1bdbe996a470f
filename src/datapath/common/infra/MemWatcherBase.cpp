#include "datapath/common/infra/MemWatcherBase.h"

#include "datapath/common/infra/LogItem.h"
#include "platform/Threads.h"

#include <optional>
#include <utility>

ThreadCpuUsageMonitor::ThreadCpuUsageMonitor(std::uint32_t threadId) : m_threadId(threadId) {}

std::int64_t ThreadCpuUsageMonitor::update(const char*& failure)
{
    failure = "failed opening thread";
    const platform::OwnedThread thread(platform::openThread(m_threadId));
    if (!thread)
    {
        return 0;
    }
    failure = "failed getting thread times";
    const std::optional<std::uint64_t> userTime = platform::threadUserTime(thread.get());
    if (!userTime)
    {
        return 0;
    }
    failure = nullptr;
    const auto now = static_cast<std::int64_t>(*userTime);
    const std::int64_t last = std::exchange(m_lastUserTime, now);
    return last == NONE ? 0 : now - last;
}

void ThreadCpuUsageMonitor::logFailure(const char* failure)
{
    LogItem(LoggerId::NON, LogLevel::Error, "ThreadCpuUsageMonitor::update") << failure << std::endl;
}

ThreadInfo makeThreadInfo(std::uint32_t threadId)
{
    auto* const monitor =
        GuardedMemory::create<ThreadCpuUsageMonitor>({"ThreadCpuUsageMonitor", SourcePlace::here()}, threadId);
    return {.monitor{monitor, {SourcePlace::here()}}};
}
