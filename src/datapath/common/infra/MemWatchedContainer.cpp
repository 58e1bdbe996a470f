#include "datapath/common/infra/MemWatchedContainer.h"

#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/Singleton.h"

#include <algorithm>
#include <map>

namespace
{

constexpr std::uint32_t NUMBER_REGISTERED_TWICE = 31;
constexpr std::uint32_t NUMBER_NOT_REGISTERED = 39;
constexpr int NO_FRACTION = 0;

struct Sums
{
    std::uint64_t items = 0;
    std::uint64_t memory = 0;
    std::uint64_t largestMemory = 0; // of a single container
};

constinit platform::Atomic<MemWatchedContainerDatabase*> theDatabase = nullptr;

} // namespace

MemWatchedContainerDatabase& MemWatchedContainerDatabase::instance()
{
    return createOnce(theDatabase, creationLock<MemWatchedContainerDatabase>(),
                      [] { return new MemWatchedContainerDatabase; });
}

void MemWatchedContainerDatabase::registerContainer(MemWatchedContainer* container)
{
    const auto insert = [&] {
        const MutexGuard guard(m_mutex);
        return m_containers.insert(container).second;
    };
    if (!insert()) // logging makes the Logger, which registers its own
    {
        failAssertion(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(NUMBER_REGISTERED_TWICE), "rt");
    }
}

void MemWatchedContainerDatabase::unregisterContainer(MemWatchedContainer* container)
{
    const auto erase = [&] {
        const MutexGuard guard(m_mutex);
        return m_containers.erase(container) != 0;
    };
    if (!erase())
    {
        failAssertion(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(NUMBER_NOT_REGISTERED),
                      "iter != m_containers.end()");
    }
}

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
        LogItem line(LoggerId::NON, LogLevel::Info, THIS_METHOD, NO_FRACTION);
        line << "ContainerName = " << name << " items = " << sums.items;
        if (sums.largestMemory != 0)
        {
            line << " memory = " << sums.memory << " (max = " << sums.largestMemory << ")";
        }
        line << std::endl;
    }
    LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD, NO_FRACTION) << " estimatedTotal=" << estimatedTotal << " "
                                                                     << "in " << count << " containers" << std::endl;
}
