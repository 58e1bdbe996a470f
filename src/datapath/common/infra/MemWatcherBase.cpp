#include "datapath/common/infra/MemWatcherBase.h"

#include "datapath/common/infra/LogItem.h"
#include "platform/Threads.h"

#include <optional>

namespace
{

std::optional<std::int64_t> failed(const char* message)
{
    LogItem(LoggerId::NON, LogLevel::Error, "ThreadCpuUsageMonitor::update") << message << std::endl;
    return {};
}

std::optional<std::int64_t> userTimeOf(std::uint32_t threadId)
{
    const platform::ThreadHandle thread = platform::openThread(threadId);
    if (thread == platform::ThreadHandle::Invalid)
    {
        return failed("failed opening thread");
    }
    const std::optional<std::uint64_t> userTime = platform::threadUserTime(thread);
    platform::closeThread(thread);
    return userTime ? std::optional(static_cast<std::int64_t>(*userTime)) : failed("failed getting thread times");
}

} // namespace

ThreadCpuUsageMonitor::ThreadCpuUsageMonitor(std::uint32_t threadId) : m_threadId(threadId) {}

std::int64_t ThreadCpuUsageMonitor::update()
{
    const std::optional<std::int64_t> userTime = userTimeOf(m_threadId);
    if (!userTime)
    {
        return 0;
    }
    const std::int64_t ticks = m_lastUserTime == NONE ? 0 : *userTime - m_lastUserTime;
    m_lastUserTime = *userTime;
    return ticks;
}

ThreadInfo makeThreadInfo(std::uint32_t threadId)
{
    auto* const monitor =
        MemShield::create<ThreadCpuUsageMonitor>({"ThreadCpuUsageMonitor", SourcePlace::here()}, threadId);
    return {.monitor{monitor, {SourcePlace::here()}}};
}
