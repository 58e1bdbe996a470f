#pragma once

// A map from handles to values, for handles that are handed out in ascending order. Entries never move in memory.
//
//     HandleMap<Info> map;
//     const auto [entry, isNew] = map.try_emplace(handle, Info{...});
//     Info info = map.extract(*entry);
//
// The owner locks. 16 neighbouring handles share a block, so that a value needs no allocation of its own. A block is
// released with its last value.

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

template <class Value> class HandleMap
{
    struct Block;

public:
    using Handle = std::uint32_t;

    /// A handle and its value. It stays where it is until it is extracted.
    class Entry
    {
    public:
        Entry(Handle handle, Value&& value, Block& block) : first(handle), second(std::move(value)), m_block(block) {}

        const Handle first;
        Value second;

    private:
        friend HandleMap;
        Block& m_block;
    };

    [[nodiscard]] std::size_t size() const { return m_size; }

    /// How many blocks of memory the map has. For tests.
    [[nodiscard]] std::size_t numBlocks() const { return m_blocks.size(); }

    [[nodiscard]] Entry* find(Handle handle)
    {
        const auto block = m_blocks.find(handle / BLOCK_LENGTH);
        return block != m_blocks.end() && placeOf(block->second, handle) ? &*placeOf(block->second, handle) : nullptr;
    }

    /// Returns the entry and whether it is new. An entry that exists already stays as it is. Throws std::bad_alloc,
    /// with nothing changed, if memory is lacking.
    std::pair<Entry*, bool> try_emplace(Handle handle, Value&& value)
    {
        if (m_newest == m_blocks.end() || m_newest->first != handle / BLOCK_LENGTH)
        {
            m_newest = m_blocks.try_emplace(handle / BLOCK_LENGTH).first;
        }
        Block& block = m_newest->second;
        std::optional<Entry>& place = placeOf(block, handle);
        const bool isNew = !place;
        if (isNew)
        {
            place.emplace(handle, std::move(value), block);
            ++block.count;
            ++m_size;
        }
        return {&*place, isNew};
    }

    /// Removes the entry and returns its value.
    Value extract(Entry& entry)
    {
        const Handle handle = entry.first;
        Block& block = entry.m_block;
        Value value = std::move(entry.second);
        placeOf(block, handle).reset();
        --m_size;
        if (--block.count == 0)
        {
            const auto empty = m_blocks.find(handle / BLOCK_LENGTH);
            m_newest = m_newest == empty ? m_blocks.end() : m_newest;
            m_blocks.erase(empty);
        }
        return value;
    }

    /// Visits the entries in ascending order of their handles. The visitor must not add or remove any.
    template <class Visit> void forEach(Visit visit)
    {
        for (auto& [number, block] : m_blocks)
        {
            for (std::optional<Entry>& place : block.places)
            {
                if (place)
                {
                    visit(*place);
                }
            }
        }
    }

private:
    static constexpr Handle BLOCK_LENGTH = 16;

    struct Block
    {
        std::array<std::optional<Entry>, BLOCK_LENGTH> places;
        Handle count = 0; // values in the block
    };

    [[nodiscard]] static std::optional<Entry>& placeOf(Block& block, Handle handle)
    {
        return block.places[handle % BLOCK_LENGTH];
    }

    std::map<Handle, Block> m_blocks;                                     // by handle / BLOCK_LENGTH; none is empty
    typename std::map<Handle, Block>::iterator m_newest = m_blocks.end(); // the block that try_emplace used last
    std::size_t m_size = 0;
};
