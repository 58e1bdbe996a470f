#pragma once

// Long-lived containers that a memory report can list: each registers itself under a name in a
// process-wide database.
//
//     StlMemShiledContainer<std::map<int, Thing>> m_things{"Things"};
//     MemWatchedContainerDatabase::instance().printWatchedContainers();
//
// The container is used like the standard one, under whatever lock its owner has for it. A report
// reads item counts without that lock: each change leaves the count where any thread can read it.

#include "datapath/common/infra/Mutex.h"
#include "platform/Atomic.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
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

    /// As of the last change by one of the functions below. Any thread may call.
    [[nodiscard]] std::uint64_t itemCount() const override { return m_itemCount.load(std::memory_order_relaxed); }

    // What changes the number of items, with the arguments and results that the container gives it.
    decltype(auto) insert(auto&&... args)
    {
        return Recount(*this), Container::insert(std::forward<decltype(args)>(args)...);
    }
    template <class Item> decltype(auto) insert(std::initializer_list<Item> items)
    {
        return Recount(*this), Container::insert(items);
    }
    decltype(auto) insert_or_assign(auto&&... args)
    {
        return Recount(*this), Container::insert_or_assign(std::forward<decltype(args)>(args)...);
    }
    decltype(auto) emplace(auto&&... args)
    {
        return Recount(*this), Container::emplace(std::forward<decltype(args)>(args)...);
    }
    decltype(auto) emplace_hint(auto&&... args)
    {
        return Recount(*this), Container::emplace_hint(std::forward<decltype(args)>(args)...);
    }
    decltype(auto) emplace_back(auto&&... args)
    {
        return Recount(*this), Container::emplace_back(std::forward<decltype(args)>(args)...);
    }
    decltype(auto) emplace_front(auto&&... args)
    {
        return Recount(*this), Container::emplace_front(std::forward<decltype(args)>(args)...);
    }
    decltype(auto) try_emplace(auto&&... args)
    {
        return Recount(*this), Container::try_emplace(std::forward<decltype(args)>(args)...);
    }
    decltype(auto) push(auto&&... args)
    {
        return Recount(*this), Container::push(std::forward<decltype(args)>(args)...);
    }
    decltype(auto) push_back(auto&&... args)
    {
        return Recount(*this), Container::push_back(std::forward<decltype(args)>(args)...);
    }
    decltype(auto) push_front(auto&&... args)
    {
        return Recount(*this), Container::push_front(std::forward<decltype(args)>(args)...);
    }
    decltype(auto) assign(auto&&... args)
    {
        return Recount(*this), Container::assign(std::forward<decltype(args)>(args)...);
    }
    void resize(std::size_t count) { return Recount(*this), Container::resize(count); }
    decltype(auto) erase(auto&&... args)
    {
        return Recount(*this), Container::erase(std::forward<decltype(args)>(args)...);
    }
    decltype(auto) extract(auto&&... args)
    {
        return Recount(*this), Container::extract(std::forward<decltype(args)>(args)...);
    }
    decltype(auto) pop() { return Recount(*this), Container::pop(); }
    void pop_back() { return Recount(*this), Container::pop_back(); }
    void pop_front() { return Recount(*this), Container::pop_front(); }
    void clear() { return Recount(*this), Container::clear(); }
    decltype(auto) operator[](auto&& key)
    {
        return Recount(*this), Container::operator[](std::forward<decltype(key)>(key));
    }

private:
    /// Leaves the count when the expression in which it stands is over.
    struct Recount
    {
        explicit Recount(StlMemShiledContainer& container) : m_container(container) {}
        Recount(const Recount&) = delete;
        Recount& operator=(const Recount&) = delete;
        ~Recount() { m_container.m_itemCount.store(m_container.size(), std::memory_order_relaxed); }

        StlMemShiledContainer& m_container;
    };

    platform::Atomic<std::uint64_t> m_itemCount = 0;
};
