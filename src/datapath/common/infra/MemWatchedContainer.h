#pragma once

// Long-lived containers that a memory report can list: each registers itself under a name in a
// process-wide database.
//
//     StlMemShiledContainer<std::map<int, Thing>> m_things{"Things"};
//     MemWatchedContainerDatabase::instance().printWatchedContainers();
//
// The container is used like the standard one, under whatever lock its owner has for it. A report
// reads item counts without that lock, so a count may be a moment old, or that of a queue which is
// just changing be off.

#include "datapath/common/infra/Mutex.h"

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

    /// The estimate of the container's memory in bytes when it holds that many items.
    [[nodiscard]] std::uint64_t memoryOf(std::uint64_t items) const { return (m_itemSize + m_itemOverhead) * items; }

private:
    std::string m_name;           // several containers may share a name
    std::uint32_t m_itemSize;     // bytes counted for each item
    std::uint32_t m_itemOverhead; // further bytes counted for each item
};

/// The registry of watched containers. Made on first use and never destroyed. Any thread may call.
class MemWatchedContainerDatabase
{
public:
    [[nodiscard]] static MemWatchedContainerDatabase& instance();

    /// The container, not owned, must be unregistered before it is destroyed. One that is registered
    /// already ends the process.
    void registerContainer(MemWatchedContainer* container) EXCLUDES(m_mutex);

    /// A container that is not registered ends the process.
    void unregisterContainer(MemWatchedContainer* container) EXCLUDES(m_mutex);

    /// Logs, for each name, how many items its containers hold and the memory they are estimated to
    /// take, then the total.
    void printWatchedContainers() const EXCLUDES(m_mutex);

private:
    mutable Mutex m_mutex; // guards the set; nothing is taken inside it
    std::set<MemWatchedContainer*> m_containers GUARDED_BY(m_mutex);
};

/// A standard container that is watched from the end of its construction to the start of its
/// destruction.
template <class Container> class StlMemShiledContainer : public Container, public MemWatchedContainer
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

    [[nodiscard]] std::uint64_t itemCount() const override { return Container::size(); }
};
