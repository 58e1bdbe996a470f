// The part of the memory pool that registers its modules.

#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemoryPoolInternal.h"

#include <algorithm>
#include <limits>
#include <sstream>

namespace
{

/// Rounds up to a whole number of units; to the largest whole number of units if 64 bits do not hold more.
std::uint64_t roundedUp(std::uint64_t bytes, std::uint64_t unit)
{
    constexpr std::uint64_t LARGEST = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t units = bytes / unit + (bytes % unit != 0 ? 1 : 0);
    return units > LARGEST / unit ? LARGEST / unit * unit : units * unit;
}

} // namespace

std::uint64_t MemoryPoolImpl::largestPoolSize() const { return roundedUp(m_maxPoolSize, singleAllocationSize()); }

/// Why a module cannot be registered; empty if it can be, provided that the pool can grow enough.
std::string MemoryPoolImpl::registrationRefusalLocked(const ModuleSettings& settings, std::uint64_t reservedBytes,
                                                      std::uint64_t limitBytes) const
{
    std::ostringstream reason;
    const ModuleMemoryInformation* const parent = settings.parent;
    const bool isLimited = settings.limitBytes != ModuleMemoryInformation::NO_LIMIT;
    const auto isParent = [parent](const auto& entry) { return entry.second == parent; };
    if (m_chunkSize == 0)
    {
        reason << "the pool has no chunks";
    }
    else if (m_modules->contains(settings.name))
    {
        reason << "the name is taken";
    }
    else if (isLimited && limitBytes == 0)
    {
        reason << "a limit of " << settings.limitBytes << " bytes is no whole chunk of " << m_chunkSize;
    }
    else if (reservedBytes > limitBytes)
    {
        reason << "a reservation of " << settings.reservedBytes << " bytes takes more chunks than the limit of "
               << settings.limitBytes;
    }
    else if (parent != nullptr && std::ranges::none_of(*m_modules, isParent))
    {
        reason << "its parent is not of this pool";
    }
    else if (parent != nullptr &&
             (parent->reservedBytes() != 0 || parent->limitBytes() != ModuleMemoryInformation::NO_LIMIT))
    {
        reason << "its parent \"" << parent->name() << "\" has a reservation or a limit";
    }
    else if (const std::uint64_t taken = m_usedMemoryGross + m_reservedFree;
             reservedBytes != 0 && (taken > largestPoolSize() || reservedBytes > largestPoolSize() - taken))
    {
        reason << "a reservation of " << settings.reservedBytes << " bytes cannot be covered beside " << taken
               << " bytes that are in use or reserved, of " << largestPoolSize();
    }
    return reason.str();
}

ModuleMemoryInformation* MemoryPoolImpl::registerModule(const ModuleSettings& settings)
{
    const std::uint64_t unit = std::max(m_chunkSize, 1U);
    const std::uint64_t reservedBytes = roundedUp(settings.reservedBytes, unit);
    const bool isLimited = settings.limitBytes != ModuleMemoryInformation::NO_LIMIT;
    const std::uint64_t limitBytes = isLimited ? settings.limitBytes / unit * unit : settings.limitBytes;
    std::string refusal;
    while (refusal.empty())
    {
        std::optional<FutureInternal::Future<RcStatus>> growth;
        {
            const Guard guard(*this);
            refusal = registrationRefusalLocked(settings, reservedBytes, limitBytes);
            if (refusal.empty())
            {
                if (growForReservationLocked(reservedBytes))
                {
                    return addModuleLocked(settings, reservedBytes, limitBytes);
                }
                giveMemoryToWaiterLocked(); // the pool may have grown by some blocks
                growth = growthLocked();
            }
        }
        if (refusal.empty() && (!growth || growth->get() != RC_OK))
        {
            refusal =
                "the pool could not grow for a reservation of " + std::to_string(settings.reservedBytes) + " bytes";
        }
    }
    LogItem(LoggerId::OLM, LogLevel::Error, TAVRO_METHOD)
        << "module \"" << settings.name << "\" is not registered: " << refusal << std::endl;
    return nullptr;
}

ModuleMemoryInformation* MemoryPoolImpl::addModuleLocked(const ModuleSettings& settings, std::uint64_t reservedBytes,
                                                         std::uint64_t limitBytes)
{
    auto* const module =
        GuardedMemory::create<ModuleMemoryInformation>({"ModuleMemoryInformation", SourcePlace::here()}, settings.name,
                                                       reservedBytes, limitBytes, settings.parent, &m_removedRequests);
    m_modules.change([&](auto& modules) { modules.emplace(settings.name, module); });
    m_waitingList.subscribe(&module->waiting());
    module->addToParent();
    m_reservedFree += reservedBytes;
    giveMemoryToWaiterLocked(); // the pool may have grown by more than the reservation
    return module;
}

/// Returns whether the free bytes cover the reservation. If not, growth is in flight or has failed.
bool MemoryPoolImpl::growForReservationLocked(std::uint64_t reservedBytes)
{
    while (freeBytesLocked() < reservedBytes && m_totalPollSize < m_maxPoolSize &&
           m_requestForMoreAllocationHelper == nullptr)
    {
        const std::uint64_t sizeBefore = m_totalPollSize;
        requestForMoreAllocationLocked();
        if (m_totalPollSize == sizeBefore)
        {
            break;
        }
    }
    return freeBytesLocked() >= reservedBytes;
}

/// Why a module cannot be unregistered; empty if it can be.
std::string MemoryPoolImpl::unregistrationRefusalLocked(const ModuleMemoryInformation& module) const
{
    if (std::ranges::none_of(*m_modules, [&](const auto& entry) { return entry.second == &module; }))
    {
        return "a module that is not of this pool";
    }
    const std::string name = "module \"" + module.name() + "\"";
    if (module.numChildren() != 0)
    {
        return name + ", which has " + std::to_string(module.numChildren()) + " children";
    }
    std::uint64_t heldBytes = 0; // what waiting requests hold
    for (const WaitingRequestsQueue::Item& item : module.waiting().queue().items())
    {
        heldBytes += std::uint64_t{m_chunkSize} * static_cast<const Request&>(*item.request).m_numSegments;
    }
    return heldBytes == module.getCurrentlyUsedBytes()
               ? std::string()
               : name + ", of which " + std::to_string(module.getCurrentlyUsedBytes() - heldBytes) +
                     " bytes are in use";
}

bool MemoryPoolImpl::unregisterModule(ModuleMemoryInformation& module)
{
    std::string refusal;
    {
        const Guard guard(*this);
        refusal = unregistrationRefusalLocked(module);
        if (refusal.empty())
        {
            m_waitingList.unsubscribe(&module.waiting());
            abortRequestsLocked(module);
            m_modules.change([&](auto& modules) { modules.erase(module.name()); });
            m_reservedFree -= module.reservedBytes();
            module.removeFromParent();
            giveMemoryToWaiterLocked();
        }
    }
    if (!refusal.empty())
    {
        LogItem(LoggerId::OLM, LogLevel::Error, TAVRO_METHOD) << "cannot unregister " << refusal << std::endl;
        return false;
    }
    GuardedMemory::destroy(&module, SourcePlace::here());
    return true;
}
