#pragma once

// The modules whose oldest request waits to be served, in the order of those requests' keys: a visitor is offered the
// request with the smallest key of all modules, then the next one. What a visitor answers decides whether the request
// is completed, whether its module goes on waiting with its next request, and whether to go on at all.
//
//     SequentialRequestsManager manager("memoryWaitingList");
//     manager.subscribe(&module);
//     module.queue().push(request, key);
//     manager.importRequestReferenceInternal(&module);
//     manager.iterateWaiting(FunctorSequentialHandler([&](PostIterationFlags& flags, Request* request) { ... }));
//
// Not for several threads at once: the owner locks. Nothing but the two containers belongs to the manager. A broken
// invariant, and an answer that makes no sense, end the process.

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

    /// Whether the module is among those that wait.
    [[nodiscard]] bool getIsRequestInWaitingModules() const { return m_isRequestInWaitingModules; }

    [[nodiscard]] bool isSubscribedTo(const SequentialRequestsManager& manager) const { return m_manager == &manager; }

    // The manager's own.
    void setIsRequestInWaitingModules(bool isWaiting) { m_isRequestInWaitingModules = isWaiting; }
    void setManager(const SequentialRequestsManager* manager) { m_manager = manager; }

private:
    WaitingRequestsQueue m_queue;
    bool m_isRequestInWaitingModules = false;
    const SequentialRequestsManager* m_manager = nullptr; // that it is subscribed to
};

} // namespace SequentialRequestsManager_Internal

class SequentialRequestsManager
{
public:
    using Handler = WaitingRequestsQueue_Internal::ISequentialItemHandler;
    using ModuleInformation = SequentialRequestsManager_Internal::ModuleInformation;
    using WaitingModules = std::map<std::uint64_t, ModuleInformation*>;

    explicit SequentialRequestsManager(const std::string& name);

    /// The module, which stays its owner's, must be unsubscribed before it is destroyed.
    void subscribe(ModuleInformation* module);

    /// The module does not wait any more. Its requests stay in its queue.
    void unsubscribe(ModuleInformation* module);

    /// Offers waiting requests in the order of their keys until the visitor stops or no module waits. One that is
    /// neither completed nor stopped at makes its module leave those that wait.
    void iterateWaiting(const Handler& visitor);

    /// Visits all requests of every module, or of one, the oldest of each module first.
    void iterateAll(const Handler& visitor);
    void iterateAll(const Handler& visitor, ModuleInformation* module);

    /// Takes the entry of a module, which must be that one's, away.
    void removeRequestReference(WaitingModules::const_iterator entry, ModuleInformation* module);

    /// Lets a module wait with its oldest request, if it has one. It must not wait already.
    void importRequestReferenceInternal(ModuleInformation* module);

    [[nodiscard]] bool hasWaiting() const { return !m_waitingModules->empty(); }

    /// For tests: whether the entries, the flags and the oldest keys of all modules agree.
    [[nodiscard]] bool checkInvariants() const;

private:
    void iterateModule(const Handler& visitor, ModuleInformation* module);

    StlMemShiledContainer<WaitingModules> m_waitingModules;                              // by key
    StlMemShiledContainer<std::set<ModuleInformation*>> m_modulesInfo{"WaitingModules"}; // those subscribed
};
