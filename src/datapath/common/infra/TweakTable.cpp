#include "datapath/common/infra/TweakTable.h"

#include <algorithm>
#include <bit>

std::vector<std::unique_ptr<TweakTable::Slots>> TweakTable::firstArray()
{
    std::vector<std::unique_ptr<Slots>> arrays;
    arrays.push_back(std::make_unique<Slots>(FEWEST_PLACES));
    return arrays;
}

TweakTable::Entry::Texts& TweakTable::Entry::texts()
{
    if (!m_texts)
    {
        m_texts = std::make_unique<Texts>();
    }
    return *m_texts;
}

const TweakTable::Entry* TweakTable::find(std::string_view name) const
{
    const Entry* const entry = lookUp(name, CaseInsensitiveHash()(name));
    return entry == nullptr || entry->read().kind == Kind::Absent ? nullptr : entry;
}

void TweakTable::setNumber(std::string_view name, std::int64_t number)
{
    Entry& entry = entryFor(name);
    if (entry.m_texts)
    {
        entry.m_texts->value.clear();
    }
    entry.m_number.store(number, std::memory_order_release);
    publish(entry, Kind::Number);
}

void TweakTable::setText(std::string_view name, std::string_view text)
{
    Entry& entry = entryFor(name);
    entry.texts().value = text;
    publish(entry, Kind::Text);
}

void TweakTable::remove(std::string_view name)
{
    if (Entry* const entry = lookUp(name, CaseInsensitiveHash()(name)); entry != nullptr)
    {
        publish(*entry, Kind::Absent);
    }
}

void TweakTable::publish(Entry& entry, Kind kind)
{
    const Kind before = entry.m_kind.exchange(kind, std::memory_order_release);
    m_size -= before == Kind::Absent ? 0 : 1;
    m_size += kind == Kind::Absent ? 0 : 1;
}

void TweakTable::reserve(std::size_t more)
{
    const std::size_t needed = std::bit_ceil(2 * (m_entries.size() + more));
    if (needed > m_arrays.back()->places.size())
    {
        grow(needed);
    }
}

std::vector<const TweakTable::Entry*> TweakTable::entries() const
{
    std::vector<const Entry*> present;
    for (const Entry& entry : m_entries)
    {
        if (entry.read().kind != Kind::Absent)
        {
            present.push_back(&entry);
        }
    }
    return present;
}

TweakTable::Entry& TweakTable::entryFor(std::string_view name)
{
    const std::uint64_t hash = CaseInsensitiveHash()(name);
    Entry* entry = lookUp(name, hash);
    if (entry == nullptr)
    {
        reserve(1);
        entry = &m_entries.emplace_back(name);
        insert(*m_arrays.back(), hash, *entry);
    }
    if (entry->name() != name)
    {
        entry->texts().spelling = entry->m_key == name ? std::string_view() : name;
    }
    return *entry;
}

void TweakTable::grow(std::size_t places)
{
    auto larger = std::make_unique<Slots>(places);
    for (const Slot& slot : m_arrays.back()->places)
    {
        if (Entry* const entry = slot.entry.load(std::memory_order_relaxed); entry != nullptr)
        {
            insert(*larger, slot.hash, *entry);
        }
    }
    m_arrays.push_back(std::move(larger));
    m_slots.store(m_arrays.back().get(), std::memory_order_release);
}

void TweakTable::insert(Slots& slots, std::uint64_t hash, Entry& entry)
{
    std::vector<Slot>& places = slots.places;
    std::size_t place = hash & (places.size() - 1);
    while (places[place].entry.load(std::memory_order_relaxed) != nullptr)
    {
        place = (place + 1) & (places.size() - 1);
    }
    places[place].hash = hash;
    places[place].entry.store(&entry, std::memory_order_release);
}
