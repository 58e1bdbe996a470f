#pragma once

// Texts that wait to be written, and among them requests to flush, first in first out. They lie one behind the
// other in chunks, so that a short text costs little more than its own bytes and no allocation.
//
//     while (!queue.push(text, chunk)) { chunk = LogQueue::newChunk(text.size()); }      // any thread
//     for (std::string_view text : queue.front()) ...                                    // the writer
//     const LogQueue::Chunk spent = queue.pop();
//
// The owner locks each call. What front returned is read without the lock, until pop takes it away.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

class LogQueue
{
    struct ChunkHead;
    struct ChunkDelete
    {
        void operator()(ChunkHead* chunk) const;
    };

public:
    /// Memory for the queue. Made and released without the lock.
    using Chunk = std::unique_ptr<ChunkHead, ChunkDelete>;

    /// Neighbours in the queue, oldest first. An empty text is a request to flush.
    class Batch
    {
    public:
        class Iterator
        {
        public:
            explicit Iterator(const std::byte* position) : m_position(position) {}
            std::string_view operator*() const { return {textOf(m_position), lengthOf(m_position)}; }
            Iterator& operator++()
            {
                m_position += HEADER_SIZE + lengthOf(m_position);
                return *this;
            }
            bool operator==(const Iterator&) const = default;

        private:
            const std::byte* m_position;
        };

        Batch(const std::byte* begin, const std::byte* end) : m_begin(begin), m_end(end) {}
        [[nodiscard]] Iterator begin() const { return Iterator(m_begin); }
        [[nodiscard]] Iterator end() const { return Iterator(m_end); }
        [[nodiscard]] bool empty() const { return m_begin == m_end; }

    private:
        const std::byte* m_begin;
        const std::byte* m_end;
    };

    LogQueue() = default;
    LogQueue(const LogQueue&) = delete;
    LogQueue& operator=(const LogQueue&) = delete;
    ~LogQueue();

    /// With room for one text of that length, or for many shorter ones.
    [[nodiscard]] static Chunk newChunk(std::size_t textLength);

    /// Texts and requests.
    [[nodiscard]] std::size_t size() const { return m_size; }

    /// Of the texts.
    [[nodiscard]] std::uint64_t bytes() const { return m_bytes; }

    /// Returns false if there is no room and no fresh chunk with enough of it. Takes the chunk only when it is
    /// needed.
    [[nodiscard]] bool push(std::string_view text, Chunk& fresh);

    /// The oldest ones, none if the queue is empty.
    [[nodiscard]] Batch front();

    /// Takes away what front returned last. What it returns is to be released.
    Chunk pop();

private:
    using Length = std::uint32_t;
    static constexpr std::size_t HEADER_SIZE = sizeof(Length);

    static Length lengthOf(const std::byte* position)
    {
        Length length = 0;
        std::memcpy(&length, position, HEADER_SIZE);
        return length;
    }
    static const char* textOf(const std::byte* position)
    {
        return reinterpret_cast<const char*>(position + HEADER_SIZE);
    }
    static void append(ChunkHead& chunk, std::string_view text);

    ChunkHead* m_head = nullptr; // is read from
    ChunkHead* m_tail = nullptr; // is written to
    Chunk m_spare;
    std::size_t m_batchEnd = 0; // of what front returned, in the head
    std::size_t m_batchSize = 0;
    std::size_t m_size = 0;
    std::uint64_t m_bytes = 0;
};
