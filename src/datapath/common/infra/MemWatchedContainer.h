#pragma once

// Long-lived containers that a memory report can list: each registers itself under a name in a process-wide database.
//
//     StlMemShiledContainer<std::map<int, Thing>> m_things{"Things"};
//     m_things.change([&](auto& things) { things.emplace(4, thing); });
//     if (m_things->contains(4)) ...
//     MemWatchedContainerDatabase::instance().printWatchedContainers();
//
// The owner of a container locks. A report reads the item counts without the owner's lock. Any thread may call the
// database.

#include "datapath/common/infra/Mutex.h"
#include "platform/Atomic.h"

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>

/// What the database knows of a container.
class MemWatchedContainer
{
public:
    MemWatchedContainer(std::string name, std::uint32_t itemSize, std::uint32_t itemOverhead)
        : m_name(std::move(name)), m_itemSize(itemSize), m_itemOverhead(itemOverhead)
    {
    }
    MemWatchedContainer(const MemWatchedContainer&) = delete;
    MemWatchedContainer& operator=(const MemWatchedContainer&) = delete;
    virtual ~MemWatchedContainer() = default;

    [[nodiscard]] virtual std::uint64_t itemCount() const = 0;

    [[nodiscard]] const std::string& name() const { return m_name; }

    /// The container's estimated memory in bytes when it holds that many items. The bytes for one item are added up in
    /// 32 bits.
    [[nodiscard]] std::uint64_t memoryOf(std::uint64_t items) const { return (m_itemSize + m_itemOverhead) * items; }

private:
    std::string m_name;           // several containers may share a name
    std::uint32_t m_itemSize;     // bytes counted for each item
    std::uint32_t m_itemOverhead; // further bytes counted for each item
};

/// The registry of watched containers. Made on first use and never destroyed.
class MemWatchedContainerDatabase
{
public:
    [[nodiscard]] static MemWatchedContainerDatabase& instance();

    /// The container, not owned, must be unregistered before it is destroyed. A container that is registered already
    /// ends the process.
    void registerContainer(MemWatchedContainer* container) TAVRO_EXCLUDES(m_mutex);

    /// A container that is not registered ends the process.
    void unregisterContainer(MemWatchedContainer* container) TAVRO_EXCLUDES(m_mutex);

    /// Logs for each name how many items its containers hold, and their estimated memory, then the total.
    void printWatchedContainers() const TAVRO_EXCLUDES(m_mutex);

private:
    mutable Mutex m_mutex; // guards the set; nothing is taken inside it
    std::set<MemWatchedContainer*> m_containers TAVRO_GUARDED_BY(m_mutex);
};

/// A container that is watched from the end of its construction to the start of its destruction. It is read like a
/// pointer to the container, and changed only through change, which updates the count that a report reads.
template <class Container> class StlMemShiledContainer : public MemWatchedContainer
{
public:
    /// itemSize and itemOverhead are the bytes that a report counts for each item.
    explicit StlMemShiledContainer(std::string name, std::uint32_t itemSize = 0, std::uint32_t itemOverhead = 0)
        : MemWatchedContainer(std::move(name), itemSize, itemOverhead)
    {
        MemWatchedContainerDatabase::instance().registerContainer(this);
    }
    StlMemShiledContainer(const StlMemShiledContainer&) = delete;
    StlMemShiledContainer& operator=(const StlMemShiledContainer&) = delete;
    ~StlMemShiledContainer() override { MemWatchedContainerDatabase::instance().unregisterContainer(this); }

    [[nodiscard]] const Container& operator*() const { return m_container; }
    [[nodiscard]] const Container* operator->() const { return &m_container; }

    /// Calls the given change with the container and returns its result. The caller has the owner's lock.
    template <class Change> decltype(auto) change(const Change& change)
    {
        struct Recount
        {
            explicit Recount(StlMemShiledContainer& changed) : watched(changed) {}
            Recount(const Recount&) = delete;
            Recount& operator=(const Recount&) = delete;
            ~Recount() { watched.m_itemCount.store(watched.m_container.size(), std::memory_order_relaxed); }
            StlMemShiledContainer& watched;
        };
        const Recount afterwards(*this);
        return change(m_container);
    }

    /// The number of items after the last change. Any thread may call.
    [[nodiscard]] std::uint64_t itemCount() const override { return m_itemCount.load(std::memory_order_relaxed); }

private:
    Container m_container;
    platform::Atomic<std::uint64_t> m_itemCount = 0;
};
