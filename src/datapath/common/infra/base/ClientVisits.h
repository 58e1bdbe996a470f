#pragma once

// Counts which threads are inside which log client, so that the thread that removes a client can wait until no thread
// is inside. A client is known by its place, a number below PLACES.
//
//     const ClientVisits::Visit visit(place);       // then check that the client is still there, and call it
//     ClientVisits::waitUntilLeft(place);           // after the client has been removed from its place
//
// Each thread counts its visits in a slot of its own: a visit writes to a cache line that no other thread writes, and
// takes no lock. Any thread may call.
//
//     visitor                                  remover
//     1. raises its count                      1. removes the client from its place
//     2. checks that the client is there       2. waits until each slot's count is 0
//     3. calls the client
//     4. lowers its count
//
// On both sides a full memory fence lies between steps 1 and 2, so either the visitor finds that the client is gone, or
// the remover finds the visitor's count. A visitor's own fence would be a tenth of the time that a log line takes.
// Where the system has fenceAllThreads, the remover, which is rare, runs it between its steps for all visitors, and
// theirs is one for the compiler only.

#include "platform/Atomic.h"
#include "platform/ThreadValue.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

class ClientVisits
{
    struct Slot;

public:
    static constexpr std::size_t PLACES = 4;

    /// The calling thread is inside for as long as this object lives. Visits may nest.
    class Visit
    {
    public:
        explicit Visit(std::size_t place)
            : m_count(slotOfThisThread().visits[place]), m_countBefore(m_count.load(std::memory_order_relaxed))
        {
            if (s_areVisitsFenced.load(std::memory_order_relaxed))
            {
                m_count.store(m_countBefore + 1, std::memory_order_relaxed);
                std::atomic_signal_fence(std::memory_order_seq_cst);
            }
            else
            {
                m_count.store(m_countBefore + 1, std::memory_order_seq_cst);
            }
        }
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;
        ~Visit() { m_count.store(m_countBefore, std::memory_order_release); }

    private:
        platform::Atomic<std::uint32_t>& m_count;
        const std::uint32_t m_countBefore;
    };

    /// Whether the calling thread is inside.
    [[nodiscard]] static bool isInside(std::size_t place)
    {
        return slotOfThisThread().visits[place].load(std::memory_order_relaxed) != 0;
    }

    /// Returns when every other thread that was inside at the time of the call has left. Looks once a millisecond:
    /// calls are rare, and visits are short.
    static void waitUntilLeft(std::size_t place);

private:
    // How many slots there are, and which one a thread gets, depends on all threads that ran before. Simulated
    // schedules repeat only without switch points there, so these atomics are those of the standard library.

    /// The counts of one thread, on a cache line of their own. A new thread takes over the slot of one that has ended.
    struct alignas(64) Slot
    {
        std::array<platform::Atomic<std::uint32_t>, PLACES> visits{};
        std::atomic<bool> isOwned = true;
        Slot* next = nullptr;
    };

    /// Releases the slot of a thread that ends.
    struct SlotOwner
    {
        static void release(void* slot) { static_cast<Slot*>(slot)->isOwned.store(false, std::memory_order_release); }
    };
    using OwnSlot = platform::ThreadValue<SlotOwner>;

    [[nodiscard]] static Slot& slotOfThisThread()
    {
        void* const slot = OwnSlot::get();
        return slot != nullptr ? *static_cast<Slot*>(slot) : claimSlot();
    }
    [[gnu::noinline]] static Slot& claimSlot();
    [[nodiscard]] static Slot& unownedSlot();

    static constinit inline std::atomic<Slot*> s_slots = nullptr;        // the first of all slots
    static constinit inline std::atomic<bool> s_areVisitsFenced = false; // by the remover; never false again
};
