#pragma once

// The requests of one client module that wait to be served, first in first out, each with a key. A visitor is shown one
// request after the other and answers with flags whether it is completed and whether to go on.
//
//     queue.push(GuardedMemory::create<Request>({"Request", SourcePlace::here()}), key);
//     queue.iterateRequests(FunctorSequentialHandler([&](PostIterationFlags& flags, Request* request) { ... }));
//
// Not for several threads at once: the owner locks. Requests are objects of the guarded allocator and belong to the
// queue. A request that is removed is destroyed at once, or, where the owner works under a lock that a memory report
// takes, handed to a RemovedRequests that destroys it when that lock is free. A wrong answer ends the process.

#include "datapath/common/infra/FatalCheck.h"

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

namespace WaitingRequestsQueue_Internal
{

/// What waits. Other bases may not stand before it.
class Request
{
public:
    Request() = default;
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    virtual ~Request() = default;
};

/// A visitor's answer.
using PostIterationFlags = std::bitset<3>;

/// Bits of the answer.
struct NextIterationData
{
    static constexpr std::size_t COMPLETED_REQUEST = 0; ///< the visited request is finished and to be removed
    static constexpr std::size_t MMI_STILL_WAITING = 1; ///< its module keeps waiting
};
static constexpr std::size_t CONTINUE_ITERATION = 2; ///< go on with the next request; else stop

class ISequentialItemHandler
{
public:
    virtual ~ISequentialItemHandler() = default;

    /// Looks at one request and fills in the flags completely.
    virtual void visit(PostIterationFlags& flags, Request* request) const = 0;
};

/// A callable as a visitor.
template <class Visit> class FunctorSequentialHandler final : public ISequentialItemHandler
{
public:
    explicit FunctorSequentialHandler(Visit visit) : m_visit(std::move(visit)) {}
    void visit(PostIterationFlags& flags, Request* request) const override { m_visit(flags, request); }

private:
    Visit m_visit;
};

/// Requests that were removed and are to be destroyed later, by whoever calls destroyAll or ends the object.
class RemovedRequests
{
public:
    RemovedRequests() = default;
    RemovedRequests(const RemovedRequests&) = delete;
    RemovedRequests& operator=(const RemovedRequests&) = delete;
    ~RemovedRequests() { destroyAll(); }

    void add(Request* request, const SourcePlace& place) { m_requests.emplace_back(request, place); }
    void destroyAll();
    void swap(RemovedRequests& other) noexcept { m_requests.swap(other.m_requests); }
    [[nodiscard]] bool empty() const { return m_requests.empty(); }

private:
    std::vector<std::pair<Request*, SourcePlace>> m_requests;
};

} // namespace WaitingRequestsQueue_Internal

class WaitingRequestsQueue
{
public:
    using Request = WaitingRequestsQueue_Internal::Request;

    struct Item
    {
        Request* request;
        std::uint64_t key; ///< not 0, and of no other request of the same manager
    };

    /// Where removed requests go, which must outlive the queue; null: they are destroyed at once.
    explicit WaitingRequestsQueue(WaitingRequestsQueue_Internal::RemovedRequests* removed = nullptr)
        : m_removed(removed)
    {
    }
    WaitingRequestsQueue(const WaitingRequestsQueue&) = delete;
    WaitingRequestsQueue& operator=(const WaitingRequestsQueue&) = delete;
    ~WaitingRequestsQueue();

    void push(Request* request, std::uint64_t key) { m_items.push_back({request, key}); }

    [[nodiscard]] bool empty() const { return m_items.empty(); }
    [[nodiscard]] std::size_t size() const { return m_items.size(); }

    /// The oldest one. Not for an empty queue.
    [[nodiscard]] const Item& front() const { return m_items.front(); }

    /// The oldest one first.
    [[nodiscard]] const std::deque<Item>& items() const { return m_items; }

    /// Removes the oldest one. An empty queue ends the process.
    void popRequest();

    /// Visits the requests, the oldest first, until the visitor stops. Completed ones are removed. Returns the key of
    /// the oldest one if the visitor completed it, else 0.
    std::uint64_t iterateRequests(const WaitingRequestsQueue_Internal::ISequentialItemHandler& visitor);

private:
    void remove(Request* request, const SourcePlace& place);

    std::deque<Item> m_items;
    WaitingRequestsQueue_Internal::RemovedRequests* const m_removed;
};
