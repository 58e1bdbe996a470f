#pragma once

// The workers that have nothing to do, and who wakes them. Falling asleep and waking cost some microseconds each, so a
// worker first looks for work for a while, and whoever brings work wakes a sleeper only if no worker is looking.
//
//                 beginLooking             fallAsleep              reserve, leave
//     working ------------------> looking ------------> sleeping ------------------> working
//        ^                           |
//        +---------------------------+
//                  endLooking
//
// One lock orders the arrival of work and every operation marked "locked". It is the owner's, and the same for all.
//
//  1. A worker that stops looking checks under the lock, in the same critical section, that there is no work, and falls
//     asleep only then. So work that arrives while a worker looks needs no other one: that worker finds it.
//  2. Each reservation takes one sleeper off the count and is followed by one wake, and each wake ends one sleep. Which
//     of the sleepers it is does not matter: reserved sleeps and pending wakes are equal in number.
//  3. A reserved worker stays in sleep until its wake. So the owner, which outlives its workers, cannot be destroyed
//     between a reservation and its wake. A producer that has reserved none touches nothing after the lock.
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
    /// Without the lock: if a producer misses it, a worker is woken that would not be needed.
    void beginLooking() noexcept { ++m_numLooking; }

    /// Locked.
    void endLooking() noexcept { --m_numLooking; }

    /// Locked, after endLooking and only if there is no work. The worker has to call sleep or sleepFor next.
    void fallAsleep() noexcept { ++m_numSleeping; }

    /// Locked. Takes a sleeper off the count if there is one and no worker is looking. Returns whether it has done so:
    /// the caller then owes one wake, best without the lock.
    [[nodiscard]] bool reserve() noexcept
    {
        if (m_numLooking != 0 || m_numSleeping == 0)
        {
            return false;
        }
        --m_numSleeping;
        return true;
    }

    /// Locked. Takes all sleepers off the count; the caller owes that many wakes.
    [[nodiscard]] std::uint32_t reserveAll() noexcept { return m_numSleeping.exchange(0); }

    /// Pays what a reservation owes.
    void wake() noexcept { m_wakes.post(); }

    /// Returns when the worker has been woken.
    void sleep() noexcept { m_wakes.wait(); }

    /// Returns false if that does not happen in time. The worker still counts as a sleeper then: leave comes next.
    [[nodiscard]] bool sleepFor(std::uint32_t timeoutMs) noexcept { return m_wakes.waitFor(timeoutMs); }

    /// Locked, after a sleep that took too long. Takes the worker off the count. Returns false if all sleepers have
    /// been reserved meanwhile: a wake is due that this worker has to take, with sleep, which returns soon.
    [[nodiscard]] bool leave() noexcept
    {
        if (m_numSleeping == 0)
        {
            return false;
        }
        --m_numSleeping;
        return true;
    }

    /// A hint without the lock. It is exact for whoever has been told of the work by a worker or producer that held the
    /// lock after the last one fell asleep.
    [[nodiscard]] bool isAnySleeping() const noexcept { return m_numSleeping != 0; }

private:
    platform::Atomic<std::uint32_t> m_numSleeping = 0; // written under the lock
    platform::Atomic<std::uint32_t> m_numLooking = 0;
    platform::NativeSemaphore m_wakes{0};
};

} // namespace ActiveObjectInternal
