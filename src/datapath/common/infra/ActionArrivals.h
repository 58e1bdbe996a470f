#pragma once

// The items that producers have handed over and no worker has fetched yet, in the order of arrival. The list is linked
// through the items themselves, so that a producer allocates nothing and holds the lock for a few instructions.
//
//     if (arrivals.add(action)) ...                // a producer
//     Action* oldest = arrivals.takeAll();         // a worker; oldest->m_next is the next one
//
// The list takes no lock and does not own the items: ActiveObject calls everything but numEver under its
// m_arrivalsMutex.

#include "platform/Atomic.h"

#include <cstdint>
#include <utility>

namespace ActiveObjectInternal
{

template <class Item> class ActionArrivals
{
public:
    /// Appends the item. After close it returns false and neither reads nor writes the item.
    [[nodiscard]] bool add(Item* item) noexcept
    {
        if (m_isClosed) [[unlikely]]
        {
            return false;
        }
        item->m_next = nullptr;
        (m_first == nullptr ? m_first : m_last->m_next) = item;
        m_last = item;
        m_numEver.store(m_numEver.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        return true;
    }

    /// The oldest item, null if there is none. Each leads to the next one through m_next.
    [[nodiscard]] Item* takeAll() noexcept { return std::exchange(m_first, nullptr); }

    /// Nothing can be added from now on. The items that are in the list stay there.
    void close() noexcept { m_isClosed = true; }
    [[nodiscard]] bool isClosed() const noexcept { return m_isClosed; }

    /// The number of items ever added, which only grows. Any thread may read it without the lock.
    [[nodiscard]] const platform::Atomic<std::uint64_t>& numEver() const noexcept { return m_numEver; }

private:
    Item* m_first = nullptr;
    Item* m_last = nullptr; // valid while m_first is not null
    platform::Atomic<std::uint64_t> m_numEver = 0;
    bool m_isClosed = false;
};

} // namespace ActiveObjectInternal
