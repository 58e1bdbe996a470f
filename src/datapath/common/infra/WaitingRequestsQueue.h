#pragma once

// The waiting requests of one client module, first in first out, each with a key. A visitor looks at one request after
// the other and answers with flags whether the request is completed and whether to go on.
//
//     queue.push(GuardedMemory::create<Request>({"Request", SourcePlace::here()}), key);
//     queue.iterateRequests(FunctorSequentialHandler([&](PostIterationFlags& flags, Request* request) { ... }));
//
// Not for several threads at once: the owner locks. Requests are objects of the guarded allocator and belong to the
// queue. A removed request is destroyed at once, or, if the owner's lock is one that a memory report takes, handed to a
// RemovedRequests, which destroys it without that lock. A wrong answer ends the process.

#include "datapath/common/infra/FatalCheck.h"

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

namespace WaitingRequestsQueue_Internal
{

/// The base class of requests. In a derived class it must be the first base.
class Request
{
public:
    Request() = default;
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    virtual ~Request() = default;
};

/// A visitor's answer: no bit to stop, or CONTINUE_ITERATION, alone or with the other bits. The call that takes the
/// visitor says what they do.
using PostIterationFlags = std::bitset<3>;

struct NextIterationData
{
    static constexpr std::size_t COMPLETED_REQUEST = 0; ///< removes the visited request
    static constexpr std::size_t MMI_STILL_WAITING = 1; ///< its module goes on waiting with its next request
};
static constexpr std::size_t CONTINUE_ITERATION = 2; ///< goes on with the next request

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

/// Removed requests, which destroyAll and the destructor destroy.
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

    /// A request and its place in the order of arrival.
    struct Item
    {
        Request* request;
        std::uint64_t key; ///< not 0, and unique among the requests of a manager
    };

    /// Removed requests go to removed, which must outlive the queue; if it is null, they are destroyed at once.
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

    /// The oldest request. Not for an empty queue.
    [[nodiscard]] const Item& front() const { return m_items.front(); }

    /// All requests, the oldest first.
    [[nodiscard]] const std::deque<Item>& items() const { return m_items; }

    /// Removes the oldest request. An empty queue ends the process.
    void popRequest();

    /// Visits the requests, the oldest first, until the visitor stops. COMPLETED_REQUEST removes a request;
    /// MMI_STILL_WAITING has no meaning here. Returns the key of the oldest request if that was removed, else 0.
    std::uint64_t iterateRequests(const WaitingRequestsQueue_Internal::ISequentialItemHandler& visitor);

private:
    void remove(Request* request, const SourcePlace& place);

    std::deque<Item> m_items;
    WaitingRequestsQueue_Internal::RemovedRequests* const m_removed;
};
