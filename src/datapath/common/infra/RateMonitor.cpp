#include "datapath/common/infra/RateMonitor.h"

#include "datapath/common/infra/FatalCheck.h"

#include <algorithm>
#include <iomanip>
#include <limits>
#include <utility>

namespace
{

constexpr std::uint64_t MAX_32_BITS = std::numeric_limits<std::uint32_t>::max();

std::uint32_t saturated(std::uint64_t value) { return static_cast<std::uint32_t>(std::min(value, MAX_32_BITS)); }

std::uint32_t perSecond(std::uint32_t count, std::uint64_t timeUs)
{
    constexpr std::uint64_t US_PER_SEC = 1'000'000;
    return saturated(timeUs == 0 ? MAX_32_BITS : count * US_PER_SEC / timeUs);
}

/// The average over no time is 0.
float average(std::uint64_t integral, std::uint64_t timeUs)
{
    return timeUs == 0 ? 0 : static_cast<float>(integral) / static_cast<float>(timeUs);
}

/// 0 if another thread has set the start after the caller had read the end from the clock.
std::uint64_t elapsed(std::uint64_t startUs, std::uint64_t endUs) { return endUs - std::min(startUs, endUs); }

} // namespace

RateMonitor::RateMonitor(std::string name, const Settings& settings)
    : m_name(std::move(name)), m_minItemsForReport(settings.minItemsForReport),
      m_minBusyUsForReport(settings.minBusyUsForReport), m_minTasksForReport(settings.minTasksForReport),
      m_timeUnit(std::max<std::uint64_t>(settings.timeUnit, 1)), m_cumulative(settings.cumulative),
      m_timestampUs(settings.timestampUs), m_periodStartUs(RateMonitor::nowUs())
{
    if (settings.timeUnit == 0)
    {
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "settings.timeUnit != 0")
            << " m_name=" << m_name << " " << std::endl;
    }
}

RateMonitor::~RateMonitor()
{
    if (m_currentActiveTasks != 0)
    {
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "m_currentActiveTasks == 0")
            << " m_name=" << m_name << " "
            << " m_currentActiveTasks=" << m_currentActiveTasks << " " << std::endl;
    }
}

void RateMonitor::incActiveTasksLocked(std::int32_t c)
{
    if (c != 1 && c != -1)
    {
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "c == 1 || c == -1")
            << " c=" << c << " "
            << " m_name=" << m_name << " " << std::endl;
        return;
    }
    if (c == -1 && m_currentActiveTasks == 0)
    {
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "m_currentActiveTasks > 0")
            << " m_name=" << m_name << " " << std::endl;
        return;
    }
    const std::uint64_t nowUs = this->nowUs();
    if (m_currentActiveTasks == 0)
    {
        m_busyStartUs = nowUs;
        m_idleTimeUs += m_idleStartUs == 0 ? 0 : nowUs - m_idleStartUs;
    }
    if (m_lastConcurrencyChangeUs != 0)
    {
        m_concurrencyIntegral += (nowUs - m_lastConcurrencyChangeUs) * m_currentActiveTasks;
    }
    m_lastConcurrencyChangeUs = nowUs;
    m_currentActiveTasks += static_cast<std::uint32_t>(c);
    m_maxConcurrency = std::max(m_maxConcurrency, m_currentActiveTasks);
    m_minConcurrency = std::min(m_minConcurrency, m_currentActiveTasks);
    if (m_currentActiveTasks == 0)
    {
        m_idleStartUs = nowUs;
        m_busyTimeUs += elapsed(m_busyStartUs, nowUs);
    }
}

void RateMonitor::addItemsLocked(std::uint32_t items, std::uint64_t bytes)
{
    m_items = saturated(std::uint64_t{m_items} + items);
    m_bytes = saturated(m_bytes + std::min(bytes, MAX_32_BITS));
}

void RateMonitor::taskCompleted(std::uint64_t nowUs, std::uint64_t latencyUs)
{
    incActiveTasksLocked(-1);
    m_latencySumUs += latencyUs;
    ++m_completedTasks;
    m_lastTaskEndUs = nowUs;
    m_maxLatencyUs = std::max(m_maxLatencyUs, latencyUs);
    if (!isReportDue())
    {
        return;
    }
    closePeriod(nowUs);
    update();
    if (!m_cumulative)
    {
        startPeriod();
    }
}

bool RateMonitor::isReportDue() const
{
    const bool isEnoughWork = m_busyTimeUs > m_minBusyUsForReport || m_items > m_minItemsForReport;
    return isEnoughWork && m_completedTasks >= m_minTasksForReport;
}

void RateMonitor::closePeriod(std::uint64_t nowUs)
{
    if (m_currentActiveTasks != 0)
    {
        m_busyTimeUs += elapsed(m_busyStartUs, nowUs);
        m_busyStartUs = std::max(m_busyStartUs, nowUs);
    }
    m_bytesPerSecBusy = perSecond(m_bytes, m_busyTimeUs);
    m_itemsPerSecBusy = perSecond(m_items, m_busyTimeUs);
    const std::uint64_t wallUs = elapsed(m_periodStartUs, nowUs);
    m_bytesPerSecWall = perSecond(m_bytes, wallUs);
    m_itemsPerSecWall = perSecond(m_items, wallUs);
    m_totalTimeUs = m_idleTimeUs + m_busyTimeUs;
    m_avgConcurrency = average(m_concurrencyIntegral, m_totalTimeUs);
    m_avgBusyConcurrency = average(m_concurrencyIntegral, m_busyTimeUs);
}

void RateMonitor::update() const
{
    if (m_name.empty())
    {
        return;
    }
    LogItem line(LoggerId::NON, LogLevel::Info, TAVRO_METHOD);
    line << m_name << " time=" << m_totalTimeUs / m_timeUnit << " (" << m_busyTimeUs / m_timeUnit
         << ") rate=" << m_itemsPerSecBusy;
    if (m_bytesPerSecBusy != 0)
    {
        line << " (network=" << m_bytesPerSecBusy << ")";
    }
    line << "<bw=" << m_itemsPerSecWall;
    if (m_bytesPerSecWall != 0)
    {
        line << " (nwBw=" << m_bytesPerSecWall << ")";
    }
    line << ">";
    if (m_completedTasks != 0)
    {
        line << " latency=[Avg: " << m_latencySumUs / m_completedTasks / m_timeUnit
             << " Max: " << m_maxLatencyUs / m_timeUnit << "]";
    }
    if (m_maxConcurrency > 1)
    {
        line << std::fixed << std::setprecision(1) << " concurrency=[Min:" << m_minConcurrency
             << " Avg:" << m_avgConcurrency << "(" << m_avgBusyConcurrency << ") Max:" << m_maxConcurrency << "]";
    }
    line << std::endl;
}

void RateMonitor::startPeriod()
{
    m_idleTimeUs = m_latencySumUs = m_busyTimeUs = m_maxLatencyUs = m_concurrencyIntegral = m_aoBusyStartUs = 0;
    m_items = m_bytes = m_completedTasks = 0;
    m_maxConcurrency = m_minConcurrency = m_currentActiveTasks;
    m_periodStartUs = nowUs();
}
