#pragma once

// The items that producers have handed over and no worker has fetched yet, in the order of arrival, and those that a
// worker has fetched. Both hold pointers and do not own the items. They never touch an item itself: what one thread has
// written lies in the cache of its processor, so following a list through the items would wait for each of them in
// turn, and appending to it would make a producer wait for another one's item while it holds the lock.
//
//     if (arrivals.add(action)) ...                                                       // a producer
//     if (fetched.empty()) ... fetched.forgetTaken(), fetched.receiveFrom(arrivals) ...    // a worker
//     while (!fetched.empty()) ... fetched.takeOldest() ...
//
// Neither takes a lock. ActiveObject calls everything of the arrivals but numEver under its m_arrivalsMutex.

#include "platform/Atomic.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ActiveObjectInternal
{

template <class Item> class ActionArrivals
{
public:
    /// Appends the item. After close it returns false. std::bad_alloc leaves everything as it was.
    [[nodiscard]] bool add(Item* item)
    {
        if (m_isClosed) [[unlikely]]
        {
            return false;
        }
        m_items.push_back(item);
        m_numEver.store(m_numEver.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        return true;
    }

    /// Exchanges all items for an empty list, whose memory the next items use.
    void takeAll(std::vector<Item*>& empty) noexcept { m_items.swap(empty); }

    /// Nothing can be added from now on. The items that are in the list stay there.
    void close() noexcept { m_isClosed = true; }
    [[nodiscard]] bool isClosed() const noexcept { return m_isClosed; }

    /// The number of items ever added, which only grows. Any thread may read it without the lock.
    [[nodiscard]] const platform::Atomic<std::uint64_t>& numEver() const noexcept { return m_numEver; }

private:
    std::vector<Item*> m_items;
    platform::Atomic<std::uint64_t> m_numEver = 0;
    bool m_isClosed = false;
};

template <class Item> class FetchedActions
{
public:
    [[nodiscard]] bool empty() const noexcept { return m_numTaken == m_items.size(); }

    /// Only while this is not empty.
    [[nodiscard]] Item* takeOldest() noexcept { return m_items[m_numTaken++]; }

    /// Only while this is empty. Call it before receiveFrom, without the lock of the arrivals.
    void forgetTaken()
    {
        m_numTaken = 0;
        m_items.clear();
        if (m_items.capacity() > MAX_KEPT)
        {
            m_items = {};
        }
    }
    void receiveFrom(ActionArrivals<Item>& arrivals) noexcept { arrivals.takeAll(m_items); }

private:
    // Two lists of up to 1 MiB stay with an active object that has had a hundred thousand actions in its queue. Without
    // that, a stream of actions would get memory from the system and give it back all the time.
    static constexpr std::size_t MAX_KEPT = 131'072; // items

    std::vector<Item*> m_items;
    std::size_t m_numTaken = 0; // of the items, the first ones
};

} // namespace ActiveObjectInternal
