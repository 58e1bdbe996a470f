#pragma once

// Counts the workers that have nothing to do, and puts them to sleep. Falling asleep and waking cost some microseconds
// each, so a worker first looks for work for a while, and a producer wakes a sleeper only if no worker is looking.
//
//               beginLooking            endLooking, fallAsleep             reserve               wake
//     working ----------------> looking -----------------------> sleeping ---------> reserved -------> working
//        ^                         |                                |
//        +-------------------------+                                +-----> working
//                endLooking                                          leave
//
// One lock, which belongs to the owner, orders the arrival of work and every operation marked "Locked".
//
//  1. A worker that stops looking checks in the same critical section that there is no work, and falls asleep only
//     then. So work that arrives while a worker looks needs no other one: that worker finds it.
//  2. Each reservation takes one sleeper off the count and is followed by one wake, and each wake ends one sleep. Which
//     sleeper it wakes does not matter: there are as many reserved workers as wakes to come.
//  3. A reserved worker stays in sleep until its wake. So the owner, which outlives its workers, cannot be destroyed
//     between a reservation and its wake. A producer that has reserved no worker touches nothing once it has given up
//     the lock.
//
//     { lock; add work; isReserved = workers.reserve(); }            // a producer
//     if (isReserved) workers.wake();
//
//     workers.beginLooking(); look around;                            // a worker
//     { lock; workers.endLooking(); if (there is no work) workers.fallAsleep(); }
//     if (it fell asleep) workers.sleep();

#include "platform/Atomic.h"
#include "platform/Sync.h"

#include <cstdint>

namespace ActiveObjectInternal
{

class IdleWorkers
{
public:
    /// Without the lock: a producer that does not see it yet wakes a worker that is not needed, and that is all.
    void beginLooking() noexcept { ++m_numLooking; }

    /// Locked.
    void endLooking() noexcept { --m_numLooking; }

    /// Locked, after endLooking and only if there is no work. The worker has to call sleep or sleepFor next.
    void fallAsleep() noexcept { ++m_numSleeping; }

    /// Locked. Takes a sleeper off the count if there is one and no worker is looking. Returns whether it has done so;
    /// the caller then has to call wake once, best without the lock.
    [[nodiscard]] bool reserve() noexcept
    {
        if (m_numLooking != 0 || m_numSleeping == 0)
        {
            return false;
        }
        --m_numSleeping;
        return true;
    }

    /// Locked. Takes all sleepers off the count. Returns their number; the caller has to call wake that many times.
    [[nodiscard]] std::uint32_t reserveAll() noexcept { return m_numSleeping.exchange(0); }

    /// Ends the sleep of one reserved worker.
    void wake() noexcept { m_wakes.post(); }

    /// Returns after a wake.
    void sleep() noexcept { m_wakes.wait(); }

    /// Returns false if no wake comes in time. The worker still counts as a sleeper then and has to call leave next.
    [[nodiscard]] bool sleepFor(std::uint32_t timeoutMs) noexcept { return m_wakes.waitFor(timeoutMs); }

    /// Locked, after sleepFor has returned false. Takes the worker off the count. Returns false if all sleepers have
    /// been reserved meanwhile: one of the wakes to come is for this worker, which has to call sleep.
    [[nodiscard]] bool leave() noexcept
    {
        if (m_numSleeping == 0)
        {
            return false;
        }
        --m_numSleeping;
        return true;
    }

    /// Without the lock. A worker that has taken an action sees every sleeper that fell asleep before the action
    /// arrived, because the lock went from that sleeper to the producer, and from the producer on to the worker.
    [[nodiscard]] bool isAnySleeping() const noexcept { return m_numSleeping != 0; }

private:
    platform::Atomic<std::uint32_t> m_numSleeping = 0; // written under the lock
    platform::Atomic<std::uint32_t> m_numLooking = 0;
    platform::NativeSemaphore m_wakes{0};
};

} // namespace ActiveObjectInternal
