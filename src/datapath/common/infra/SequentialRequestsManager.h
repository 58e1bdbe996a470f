#pragma once

// The order in which modules wait: a visitor is offered the request with the smallest key of all modules, then the next
// one. Each module that waits has one entry, under the key of its oldest request.
//
//     module   keys in its queue   entry
//     A        5 6                 5 -> A
//     B        2 7                 none     not offered until it is imported again: its limit was reached, for instance
//     C        none                none
//
// An entry exists exactly while the module's flag (getIsRequestInWaitingModules) is set.
//
//     SequentialRequestsManager manager("memoryWaitingList");
//     manager.subscribe(&module);
//     module.queue().push(request, key);
//     manager.importRequestReferenceInternal(&module);
//     manager.iterateWaiting(FunctorSequentialHandler([&](PostIterationFlags& flags, Request* request) { ... }));
//
// Not for several threads at once: the owner locks, and owns the modules. A broken invariant or a wrong answer ends the
// process.

#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/WaitingRequestsQueue.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>

class SequentialRequestsManager;

namespace SequentialRequestsManager_Internal
{

/// What the manager knows of a client module.
class ModuleInformation
{
public:
    explicit ModuleInformation(WaitingRequestsQueue_Internal::RemovedRequests* removed = nullptr) : m_queue(removed) {}

    [[nodiscard]] WaitingRequestsQueue& queue() { return m_queue; }
    [[nodiscard]] const WaitingRequestsQueue& queue() const { return m_queue; }

    /// Whether the manager has an entry for the module.
    [[nodiscard]] bool getIsRequestInWaitingModules() const { return m_isRequestInWaitingModules; }

    [[nodiscard]] bool isSubscribedTo(const SequentialRequestsManager& manager) const { return m_manager == &manager; }

    // For the manager.
    void setIsRequestInWaitingModules(bool isWaiting) { m_isRequestInWaitingModules = isWaiting; }
    void setManager(const SequentialRequestsManager* manager) { m_manager = manager; }

private:
    WaitingRequestsQueue m_queue;
    bool m_isRequestInWaitingModules = false;
    const SequentialRequestsManager* m_manager = nullptr; // the one that the module is subscribed to, or null
};

} // namespace SequentialRequestsManager_Internal

class SequentialRequestsManager
{
public:
    using Handler = WaitingRequestsQueue_Internal::ISequentialItemHandler;
    using ModuleInformation = SequentialRequestsManager_Internal::ModuleInformation;
    using WaitingModules = std::map<std::uint64_t, ModuleInformation*>;

    explicit SequentialRequestsManager(const std::string& name);

    /// The module, not owned, must be unsubscribed before it is destroyed.
    void subscribe(ModuleInformation* module);

    /// Removes the module's entry. Its requests stay in its queue.
    void unsubscribe(ModuleInformation* module);

    /// Offers the request of the first entry until the visitor stops or there is no entry. With CONTINUE_ITERATION
    /// alone, the module loses its entry. With all three bits, the request is removed, and the module's entry is that
    /// of its next request. Every other answer ends the process.
    void iterateWaiting(const Handler& visitor);

    /// Visits all requests of every module, or of one, as WaitingRequestsQueue::iterateRequests does; a visitor that
    /// stops is then shown the next module. An entry follows its module's oldest request.
    void iterateAll(const Handler& visitor);
    void iterateAll(const Handler& visitor, ModuleInformation* module);

    /// Removes an entry, which must be the module's.
    void removeRequestReference(WaitingModules::const_iterator entry, ModuleInformation* module);

    /// Makes an entry for the module if it has a request. It must not have one already.
    void importRequestReferenceInternal(ModuleInformation* module);

    [[nodiscard]] bool hasWaiting() const { return !m_waitingModules->empty(); }

    /// For tests: whether the entries, the flags and the oldest keys of all modules agree.
    [[nodiscard]] bool checkInvariants() const;

private:
    void iterateModule(const Handler& visitor, ModuleInformation* module);

    StlMemShiledContainer<WaitingModules> m_waitingModules;                              // the entries
    StlMemShiledContainer<std::set<ModuleInformation*>> m_modulesInfo{"WaitingModules"}; // all that are subscribed
};
