#pragma once

// The flushes of a log that threads have asked for, in the order of the requests, and who waits for each. The writer
// does them in that order, and each waiter is signalled when its flush is done.
//
//     requests.add(&flushDone);                      // who asks, and then waits for the semaphore
//     requests.finish(count);                        // the writer, after that many flushes
//     if (requests.giveUp(flushDone)) ...            // who has waited for too long
//
// A request with a waiter goes through these states:
//
//     waiting --finish--> done                       the waiter is signalled, and never touched again
//        |
//      giveUp
//        v
//     given up --finish--> unclaimed --add--> gone   one later waiter is signalled at once
//
// Invariants: a request is waiting or given up exactly while its number is above m_done, so m_waiters is in the order
// of the numbers; each signal that a waiter has given up reaches exactly one later waiter.
//
// The owner locks each call. add may throw std::bad_alloc: the request counts then, but has no waiter.

#include "datapath/common/infra/Semaphore.h"

#include <cstdint>
#include <deque>

class FlushRequests
{
public:
    /// Adds a request. Null is a request that nobody waits for. The waiter stays the caller's and must live until it
    /// has been signalled or giveUp has returned.
    void add(Semaphore* waiter);

    /// The oldest requests are done, that many of them.
    void finish(std::uint64_t count);

    /// The waiter does not wait any longer. Returns false if it has been signalled.
    [[nodiscard]] bool giveUp(const Semaphore& waiter);

    /// Whether any request is not done yet.
    [[nodiscard]] bool isAnyPending() const { return m_asked != m_done; }

private:
    struct Waiter
    {
        std::uint64_t request; // counted from 1 on
        Semaphore* flushDone;  // null once the wait was given up
    };

    std::uint64_t m_asked = 0; // requests
    std::uint64_t m_done = 0;  // requests
    std::deque<Waiter> m_waiters;
    std::uint32_t m_unclaimed = 0; // requests that were done after their waiters had given up
};
