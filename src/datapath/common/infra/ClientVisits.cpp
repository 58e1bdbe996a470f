#include "datapath/common/infra/ClientVisits.h"

#include "platform/Threads.h"

void ClientVisits::waitUntilLeft(std::size_t place)
{
    for (const Slot* slot = s_slots.load(); slot != nullptr; slot = slot->next)
    {
        while (slot != s_slot && slot->visits[place].load() != 0)
        {
            platform::sleepMs(1);
        }
    }
}

ClientVisits::Slot* ClientVisits::unownedSlot()
{
    for (Slot* slot = s_slots.load(); slot != nullptr; slot = slot->next)
    {
        if (!slot->isOwned.load(std::memory_order_relaxed) && !slot->isOwned.exchange(true))
        {
            return slot;
        }
    }
    return nullptr;
}

void ClientVisits::claimSlot()
{
    s_slot = unownedSlot();
    if (s_slot == nullptr)
    {
        s_slot = new Slot; // never destroyed: others may look at it at any time
        s_slot->next = s_slots.load();
        while (!s_slots.compare_exchange_weak(s_slot->next, s_slot))
        {
        }
    }
    static thread_local const Leaver LEAVER;
}

ClientVisits::Leaver::~Leaver()
{
    s_slot->isOwned.store(false, std::memory_order_release);
    s_slot = nullptr;
}
