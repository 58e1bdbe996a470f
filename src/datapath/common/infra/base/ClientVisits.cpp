#include "datapath/common/infra/base/ClientVisits.h"

#include "platform/Threads.h"

void ClientVisits::waitUntilLeft(std::size_t place)
{
    const Slot* const own = &slotOfThisThread();
    static_cast<void>(platform::fenceAllThreads()); // where it is false, visitors have fences of their own
    for (const Slot* slot = s_slots.load(); slot != nullptr; slot = slot->next)
    {
        // A thread that takes over an unowned slot after this look finds that the client is gone.
        while (slot != own && slot->isOwned.load() && slot->visits[place].load() != 0)
        {
            platform::sleepMs(1);
        }
    }
}

ClientVisits::Slot& ClientVisits::claimSlot()
{
    Slot& slot = unownedSlot();
    if (!s_areVisitsFenced.load(std::memory_order_relaxed) && platform::fenceAllThreads())
    {
        s_areVisitsFenced = true;
    }
    OwnSlot::set(&slot);
    return slot;
}

ClientVisits::Slot& ClientVisits::unownedSlot()
{
    for (Slot* slot = s_slots.load(); slot != nullptr; slot = slot->next)
    {
        if (!slot->isOwned.load(std::memory_order_relaxed) && !slot->isOwned.exchange(true))
        {
            return *slot;
        }
    }
    auto* const slot = new Slot; // never destroyed: other threads may read it at any time
    slot->next = s_slots.load();
    while (!s_slots.compare_exchange_weak(slot->next, slot))
    {
    }
    return *slot;
}
