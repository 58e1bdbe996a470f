#pragma once

// Which threads are inside which log client, so that whoever takes a client away can wait until nobody is. A client is
// known by its place, a number below PLACES.
//
//     const ClientVisits::Visit visit(place);       // then look whether the client is still there, and call it
//     ClientVisits::waitUntilLeft(place);           // after the client was taken from its place
//
// Each thread counts its visits in a slot of its own: a visit costs one exchange on a cache line that nobody else
// writes, and takes no lock. The count is raised before the look and read after the removal, both sequentially
// consistent: either the visitor sees that the client is gone, or the remover sees the visitor. Any thread may call.

#include "platform/Atomic.h"
#include "platform/ThreadValue.h"

#include <array>
#include <cstddef>
#include <cstdint>

class ClientVisits
{
    struct Slot;

public:
    static constexpr std::size_t PLACES = 4;

    /// The calling thread is inside for as long as this lives. Visits may nest.
    class Visit
    {
    public:
        explicit Visit(std::size_t place)
            : m_count(ofThisThread().visits[place]), m_countBefore(m_count.load(std::memory_order_relaxed))
        {
            m_count.store(m_countBefore + 1, std::memory_order_seq_cst);
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
        return ofThisThread().visits[place].load(std::memory_order_relaxed) != 0;
    }

    /// Returns when no other thread is inside that was when this was called. Looks once a millisecond: it is called
    /// seldom, and visits are short.
    static void waitUntilLeft(std::size_t place);

private:
    /// Of one thread, on a cache line of its own.
    struct alignas(64) Slot
    {
        std::array<platform::Atomic<std::uint32_t>, PLACES> visits{};
        platform::Atomic<bool> isOwned = true;
        Slot* next = nullptr;
    };

    /// Leaves the slot of a thread that ends to the next thread.
    struct SlotOwner
    {
        static void release(void* slot) { static_cast<Slot*>(slot)->isOwned.store(false, std::memory_order_release); }
    };
    using OwnSlot = platform::ThreadValue<SlotOwner>;

    [[nodiscard]] static Slot& ofThisThread()
    {
        void* const slot = OwnSlot::get();
        return slot != nullptr ? *static_cast<Slot*>(slot) : claimSlot();
    }
    [[gnu::noinline]] static Slot& claimSlot();
    [[nodiscard]] static Slot& unownedSlot();

    static constinit inline platform::Atomic<Slot*> s_slots = nullptr; // all that there ever were
};
