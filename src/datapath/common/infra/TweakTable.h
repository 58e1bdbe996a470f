#pragma once

// Values by name, for readers that take no lock and write nothing that other threads read. Names compare without regard
// to ASCII case.
//
//     table.setNumber("t_maxFiles", 7);                     // one thread at a time
//     const auto [kind, number] = table.read("T_MAXFILES"); // any thread, at any time
//
// The table is a hash table with open addressing. A place, once taken, keeps its entry, and an entry keeps its address:
//
//     m_slots --> | hash, entry | empty | hash, entry | ...         a power of two, half of them empty
//                         |                     |
//     m_entries   | name, kind, number, text | name, kind, number, text | ...
//
// - An entry is never taken out. Removing a value makes its entry Absent; the entry serves the next value of that name.
// - A reader looks at places from that of the hash on, until it finds the name or an empty place.
// - When the places become too few, the entries get new ones in a larger array. A reader may still look at the old
//   array, which is not changed any more and is kept; all old arrays together are not larger than the new one.
//
// So a table needs as much memory as it has ever had names.

#include "datapath/common/infra/base/AsciiCase.h"
#include "platform/Atomic.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class TweakTable
{
public:
    enum class Kind : std::uint8_t
    {
        Absent,
        Number,
        Text
    };

    /// A value as a reader sees it. The number of a text is unspecified.
    struct Reading
    {
        Kind kind = Kind::Absent;
        std::int64_t number = 0;
    };

    /// A value and its name as it was last spelled. The texts are for the thread that may change the table.
    class Entry
    {
    public:
        explicit Entry(std::string_view entryName) : m_key(entryName) {}

        [[nodiscard]] std::string_view name() const
        {
            return m_texts && !m_texts->spelling.empty() ? m_texts->spelling : m_key;
        }
        [[nodiscard]] std::string_view text() const { return m_texts ? m_texts->value : std::string_view(); }
        [[nodiscard]] Reading read() const
        {
            while (true)
            {
                const Kind kind = m_kind.load(std::memory_order_acquire);
                const std::int64_t number = m_number.load(std::memory_order_acquire);
                if (m_kind.load(std::memory_order_relaxed) == kind) // else the number may not be that of the kind
                {
                    return {kind, number};
                }
            }
        }

    private:
        friend class TweakTable;

        /// What most entries do not have.
        struct Texts
        {
            std::string spelling; // empty if it is that of the key
            std::string value;
        };

        [[nodiscard]] Texts& texts();

        const std::string m_key; // never changes, because readers compare it
        std::unique_ptr<Texts> m_texts{};
        platform::Atomic<std::int64_t> m_number = 0;
        platform::Atomic<Kind> m_kind = Kind::Absent;
    };

    TweakTable() = default;
    TweakTable(const TweakTable&) = delete;
    TweakTable& operator=(const TweakTable&) = delete;
    ~TweakTable() = default;

    /// Any thread may call, also while another one changes the table: it then reads the value before or after the
    /// change.
    [[nodiscard]] Reading read(std::string_view name) const
    {
        const Entry* const entry = lookUp(name, CaseInsensitiveHash()(name));
        return entry == nullptr ? Reading() : entry->read();
    }

    // What follows is for one thread at a time.

    /// Null if there is no value of that name.
    [[nodiscard]] const Entry* find(std::string_view name) const;

    /// Sets or replaces a value and the spelling of its name.
    void setNumber(std::string_view name, std::int64_t number);
    void setText(std::string_view name, std::string_view text);

    /// Does nothing if there is no value of that name.
    void remove(std::string_view name);

    /// Makes places for that many further names.
    void reserve(std::size_t more);

    /// The number of values.
    [[nodiscard]] std::size_t size() const { return m_size; }

    /// The values, in no order.
    [[nodiscard]] std::vector<const Entry*> entries() const;

private:
    struct Slot
    {
        std::uint64_t hash = 0; // set before the entry, and never again
        platform::Atomic<Entry*> entry = nullptr;
    };

    struct Slots
    {
        explicit Slots(std::size_t size) : places(size) {}

        std::vector<Slot> places; // their number is a power of two
    };

    [[nodiscard]] Entry* lookUp(std::string_view name, std::uint64_t hash) const
    {
        const std::vector<Slot>& places = m_slots.load(std::memory_order_acquire)->places;
        for (std::size_t place = hash;; ++place)
        {
            const Slot& slot = places[place & (places.size() - 1)];
            Entry* const entry = slot.entry.load(std::memory_order_acquire);
            if (entry == nullptr || (slot.hash == hash && CaseInsensitiveEqual()(entry->m_key, name)))
            {
                return entry;
            }
        }
    }

    [[nodiscard]] Entry& entryFor(std::string_view name);
    void publish(Entry& entry, Kind kind);
    void grow(std::size_t places);
    static void insert(Slots& slots, std::uint64_t hash, Entry& entry);

    static constexpr std::size_t FEWEST_PLACES = 64;

    std::deque<Entry> m_entries{};
    std::vector<std::unique_ptr<Slots>> m_arrays = firstArray(); // the last one is in use
    platform::Atomic<const Slots*> m_slots = m_arrays.back().get();
    std::size_t m_size = 0; // entries that are not Absent

    static std::vector<std::unique_ptr<Slots>> firstArray();
};
