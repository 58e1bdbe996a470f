// The report of the watched containers. It is a unit of its own, because it logs, and the log has watched containers.

#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemWatchedContainer.h"

#include <algorithm>
#include <map>

namespace
{

struct Sums
{
    std::uint64_t items = 0;
    std::uint64_t memory = 0;
    std::uint64_t largestMemory = 0; // the largest memory of one container
};

} // namespace

void MemWatchedContainerDatabase::printWatchedContainers() const
{
    std::map<std::string, Sums> sumsByName;
    std::uint64_t estimatedTotal = 0;
    std::size_t count = 0;
    {
        const MutexGuard guard(m_mutex);
        count = m_containers.size();
        for (const MemWatchedContainer* const container : m_containers)
        {
            const std::uint64_t items = container->itemCount();
            const std::uint64_t memory = container->memoryOf(items);
            Sums& sums = sumsByName[container->name()];
            sums.items += items;
            sums.memory += memory;
            sums.largestMemory = std::max(sums.largestMemory, memory);
            estimatedTotal += memory;
        }
    }
    for (const auto& [name, sums] : sumsByName)
    {
        LogItem line(LoggerId::NON, LogLevel::Info, TAVRO_METHOD, LogItem::NO_FRACTION);
        line << "ContainerName = " << name << " items = " << sums.items;
        if (sums.largestMemory != 0)
        {
            line << " memory = " << sums.memory << " (max = " << sums.largestMemory << ")";
        }
        line << std::endl;
    }
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD, LogItem::NO_FRACTION)
        << " estimatedTotal=" << estimatedTotal << " "
        << "in " << count << " containers" << std::endl;
}
