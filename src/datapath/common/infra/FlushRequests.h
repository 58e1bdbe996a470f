#pragma once

// Requests to flush a log, in their order, and the threads that wait for them. The writer flushes once for each
// request, in that order, and the request's waiter is signalled when it has done so.
//
//     requests.add(&flushDone);                      // a thread that asks, and then waits for the semaphore
//     requests.finish(count);                        // the writer, after that many flushes
//     if (requests.giveUp(flushDone)) ...            // the asking thread, if that took too long
//
// A request with a waiter goes through these states:
//
//     waiting --finish--> done                       the waiter is signalled, and never touched again
//        |
//      giveUp
//        v
//     given up --finish--> unclaimed --add--> gone   one later waiter is signalled at once
//
// Invariants: m_waiters holds the requests that are waiting or given up, whose numbers are above m_done, in the order
// of the numbers; each signal that a waiter has given up reaches exactly one later waiter.
//
// The owner locks each call. If add throws std::bad_alloc, the request counts, but has no waiter.

#include "datapath/common/infra/Semaphore.h"

#include <cstdint>
#include <deque>

class FlushRequests
{
public:
    /// Adds a request. Null is a request that nobody waits for. The waiter stays the caller's and must live until it
    /// has been signalled or giveUp has returned.
    void add(Semaphore* waiter);

    /// Marks the oldest pending requests, that many of them, as done.
    void finish(std::uint64_t count);

    /// Tells that the waiter does not wait any longer. Returns false if it has been signalled already.
    [[nodiscard]] bool giveUp(const Semaphore& waiter);

    [[nodiscard]] bool isAnyPending() const { return m_asked != m_done; }

private:
    struct Waiter
    {
        std::uint64_t request; // counted from 1 on
        Semaphore* flushDone;  // null once the waiter has given up
    };

    std::uint64_t m_asked = 0; // the number of requests so far
    std::uint64_t m_done = 0;  // how many of these are done
    std::deque<Waiter> m_waiters;
    std::uint32_t m_unclaimed = 0; // signals that waiters have given up and no later waiter has taken
};
