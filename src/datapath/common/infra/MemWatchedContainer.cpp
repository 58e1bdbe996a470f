#include "datapath/common/infra/MemWatchedContainer.h"

#include "datapath/common/infra/LogBasics.h"
#include "datapath/common/infra/base/Singleton.h"

namespace
{

constexpr std::uint32_t NUMBER_REGISTERED_TWICE = 31;
constexpr std::uint32_t NUMBER_NOT_REGISTERED = 39;

constinit platform::Atomic<MemWatchedContainerDatabase*> theDatabase = nullptr;

} // namespace

MemWatchedContainerDatabase& MemWatchedContainerDatabase::instance()
{
    return createOnce(theDatabase, creationLock<MemWatchedContainerDatabase>,
                      [] { return new MemWatchedContainerDatabase; });
}

void MemWatchedContainerDatabase::registerContainer(MemWatchedContainer* container)
{
    const auto insert = [&] {
        const MutexGuard guard(m_mutex);
        return m_containers.insert(container).second;
    };
    if (!insert()) // logged without the lock: logging may make the Logger, which registers containers of its own
    {
        failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_REGISTERED_TWICE), "rt");
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
        failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_NOT_REGISTERED),
                      "iter != m_containers.end()");
    }
}
