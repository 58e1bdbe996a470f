#include "datapath/common/infra/windows/CpuUsageMonitor.h"

#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/Tweaks.h"
#include "platform/Random.h"

#include <algorithm>
#include <thread>

namespace
{

constexpr std::int64_t PERCENT = 100;

bool isOn(const BoolTweak& tweak) { return Tweaks::instance().value(tweak); }

} // namespace

CpuUsageMonitor::CpuUsageMonitor() : m_cpuCount(std::max(std::thread::hardware_concurrency(), 1U))
{
    const bool isSimulated = isOn(SIMULATIVE_CPU_USAGE);
    const char* const mode = !isSimulated             ? "Using real windows CPU counters "
                             : isOn(RANDOM_CPU_USAGE) ? "Using simulative random CPU counters "
                                                      : "Using simulative CPU counters ";
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << mode << std::endl;
    if (!isSimulated)
    {
        m_counter.reset(platform::openCpuCounter());
    }
}

std::int64_t CpuUsageMonitor::update()
{
    if (isOn(SIMULATIVE_CPU_USAGE))
    {
        if (isOn(RANDOM_CPU_USAGE))
        {
            randomCpuGeneratorForTests();
        }
        else
        {
            m_cpuUsage = 0;
        }
        return 0;
    }
    platform::CpuTicks ticks = {};
    if (const std::int32_t status = platform::readCpuCounter(m_counter.get(), ticks); status != 0)
    {
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD)
            << "PdhGetRawCounterValue returned error  sts=" << status << " " << std::endl;
        return 0;
    }
    const std::int64_t totalDelta = ticks.total - m_lastTotalTicks;
    const std::int64_t idleDelta = ticks.idle - m_lastIdleTicks;
    m_cpuUsage = totalDelta > 0 ? static_cast<std::uint32_t>((totalDelta - idleDelta) * PERCENT / totalDelta) : 0;
    m_lastTotalTicks = ticks.total;
    m_lastIdleTicks = ticks.idle;
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD, 0) << "totalTicks=" << totalDelta << " idleTicks=" << idleDelta
                                                            << " m_cpuCount=" << m_cpuCount << " " << std::endl;
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD, 0) << "CPU is " << m_cpuUsage << std::endl;
    return totalDelta;
}

void CpuUsageMonitor::randomCpuGeneratorForTests()
{
    const Tweaks& tweaks = Tweaks::instance();
    const std::int64_t high = tweaks.value(HIGH_CPU_USAGE_PROBABILITY_PERCENT);
    const std::int64_t mid = tweaks.value(MID_CPU_USAGE_PROBABILITY_PERCENT);
    const std::int64_t low = tweaks.value(LOW_CPU_USAGE_PROBABILITY_PERCENT);
    const std::int64_t keep = tweaks.value(KEEP_PREV_CPU_USAGE_PROBABILITY_PERCENT);
    if (high + low + keep + mid != PERCENT)
    {
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(),
                     "highCpuUsageProbabilityPercent + lowCpuUsageProbabilityPercent + "
                     "keepPrevCpuUsageProbabilityPercent + midCpuUsageProbabilityPercent == 100")
            << " highCpuUsageProbabilityPercent=" << high << " "
            << " midCpuUsageProbabilityPercent=" << mid << " "
            << " lowCpuUsageProbabilityPercent=" << low << " "
            << " keepPrevCpuUsageProbabilityPercent=" << keep << " " << std::endl;
    }
    const std::uint32_t threshold = tweaks.value(OLM_COMPRESSION_HIGH_CPU_THRESHOLD);
    const std::int64_t draw = platform::nextRandom() % PERCENT;
    if (draw >= keep)
    {
        m_cpuUsage = draw < keep + low ? 0 : draw < keep + low + mid ? threshold - 1 : PERCENT;
    }
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "CPU is " << m_cpuUsage << std::endl;
}
