#include "datapath/common/infra/windows/MemWatcher.h"

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/base/Singleton.h"
#include "platform/Threads.h"

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

MemWatcher& MemWatcher::instance()
{
    static constinit platform::Atomic<MemWatcher*> published = nullptr;
    return createOnce(published, creationLock<MemWatcher>, [] { return new MemWatcher; });
}

void MemWatcher::AddThread(std::uint32_t threadId)
{
    ThreadInfo info = makeThreadInfo(threadId);
    bool isAdded = false;
    {
        const MutexGuard guard(m_mutex);
        isAdded = m_threads.change([&](auto& threads) {
            return threads.try_emplace(static_cast<std::int32_t>(threadId), std::move(info)).second;
        });
    }
    if (isAdded)
    {
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "added  pid=" << threadId << " " << std::endl;
    }
}

void MemWatcher::removeThread()
{
    std::map<std::int32_t, ThreadInfo>::node_type removed; // destroyed after the lock has been released
    const MutexGuard guard(m_mutex);
    removed = m_threads.change(
        [](auto& threads) { return threads.extract(static_cast<std::int32_t>(platform::currentThreadId())); });
}

void MemWatcher::iterateThreads(const Visitor& visitor)
{
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "start" << std::endl;
    std::vector<std::pair<std::int32_t, std::uint64_t>> threads;
    {
        const MutexGuard guard(m_mutex);
        for (const auto& [threadId, info] : *m_threads)
        {
            threads.emplace_back(threadId, info.tag);
        }
    }
    for (const auto& [threadId, tag] : threads)
    {
        visitor(static_cast<std::uint32_t>(threadId), tag);
    }
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "done" << std::endl;
}

void MemWatcher::printCpu()
{
    if (m_reportMutex.isMine())
    {
        return;
    }
    const MutexGuard guard(m_reportMutex);
    const std::int64_t totalTicks = m_cpuMonitor.update();
    const std::int64_t nowMs = Clock::instance().relativeMs();
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD, 0)
        << totalTicks << " cpu ticks in " << static_cast<std::uint32_t>(nowMs - m_lastCpuReportMs) << " ms"
        << std::endl;
    m_lastCpuReportMs = nowMs;
    const std::string usages = threadUsages(totalTicks); // logs, too: before the line below takes its time
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD, 0) << usages << std::endl;
}

void MemWatcher::endReportForGood()
{
    if (m_reportMutex.isMine())
    {
        m_reportMutex.assertLocked();
        m_reportMutex.unlock();
    }
}

std::string MemWatcher::threadUsages(std::int64_t totalTicks)
{
    std::vector<std::pair<std::int64_t, std::string>> usages; // percentage and label of each thread
    std::vector<const char*> failures;
    float total = 0;
    {
        const MutexGuard guard(m_mutex);
        for (const auto& [threadId, info] : *m_threads)
        {
            const char* failure = nullptr;
            const std::int64_t ticks = info.monitor->update(failure);
            if (failure != nullptr)
            {
                failures.push_back(failure);
            }
            if (totalTicks != 0)
            {
                const std::string name = Logger::instance().getThreadName(threadId);
                const float percent = static_cast<float>(ticks) * 100 / static_cast<float>(totalTicks);
                total += percent;
                usages.emplace_back(static_cast<std::int64_t>(percent),
                                    std::to_string(threadId) + (name.empty() ? "" : "[" + name + "]"));
            }
        }
    }
    std::ranges::for_each(failures, ThreadCpuUsageMonitor::logFailure);
    std::ranges::stable_sort(usages, std::greater(), &decltype(usages)::value_type::first);
    std::ostringstream text;
    text << "total=" << static_cast<std::int64_t>(total) << " cpu(perc)";
    for (const auto& [percent, label] : usages)
    {
        if (percent != 0)
        {
            text << label << "=" << percent << "% ";
        }
    }
    return text.str();
}

void MemWatcher::printMem()
{
    const platform::OwnedProcess process(platform::openOwnProcess());
    if (!process)
    {
        failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "NULL != hProcess");
    }
    platform::ProcessMemory memory = {};
    if (platform::processMemory(process.get(), memory))
    {
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD, 0)
            << "memory information: PWSS=" << memory.peakWorkingSet << " WSS=" << memory.workingSet
            << " QPPPU=" << memory.peakPagedPoolQuota << " QPU=" << memory.pagedPoolQuota
            << " QPNPPU=" << memory.peakNonPagedPoolQuota << " QNPPU=" << memory.nonPagedPoolQuota
            << " PFU=" << memory.pageFile << " PPFileU=" << memory.peakPageFile << std::endl;
    }
}
