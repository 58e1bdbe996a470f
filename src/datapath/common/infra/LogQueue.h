#pragma once

// Texts that wait to be written, and among them requests to flush, first in first out. They lie one after the
// other in chunks, so that a text costs little more than its own bytes and no allocation. A text that does not fit
// into the rest of a chunk runs on into the next one.
//
//     while (!queue.push(text, chunk)) { chunk = LogQueue::newChunk(text.size()); }      // any thread
//     for (const LogQueue::Piece piece : queue.front()) ...                              // the writer
//     const LogQueue::Chunk spent = queue.pop();
//
// Where each text is to be a block of its own, the owner of the queue makes the blocks and uses none of the above:
//
//     queue.push(LogQueue::Block{buffer, length});
//     while (queue.extract(block)) ...
//
// The owner locks each call, and only one thread at a time may be between front and pop. What front returned is read
// without the lock: pushes do not touch it.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string_view>

class LogQueue
{
    using Header = std::uint16_t; // the length of a piece, and whether its text goes on after it
    static constexpr std::size_t HEADER_SIZE = sizeof(Header);
    static constexpr Header CONTINUES = 0x8000;
    static constexpr Header MOST_LENGTH = 0x7FFF;

    struct ChunkHead;
    struct ChunkDelete
    {
        void operator()(ChunkHead* chunk) const;
    };

public:
    /// Memory for the queue. Made and released without the lock.
    using Chunk = std::unique_ptr<ChunkHead, ChunkDelete>;

    /// A text that stays its owner's; a request to flush, if there is no data.
    struct Block
    {
        const char* data = nullptr;
        std::uint32_t length = 0;
    };

    /// A text or a part of one; a request to flush, if it is empty.
    struct Piece
    {
        std::string_view text;
        bool isLast; ///< of its text
    };

    /// Neighbours in the queue, oldest first, all in one chunk: a text may begin in one batch and end in another.
    class Batch
    {
    public:
        class Iterator
        {
        public:
            explicit Iterator(const std::byte* position) : m_position(position) {}
            Piece operator*() const
            {
                return {{reinterpret_cast<const char*>(m_position + HEADER_SIZE), length()},
                        (header() & CONTINUES) == 0};
            }
            Iterator& operator++()
            {
                m_position += HEADER_SIZE + length();
                return *this;
            }
            bool operator==(const Iterator&) const = default;

        private:
            [[nodiscard]] Header header() const
            {
                Header header = 0;
                std::memcpy(&header, m_position, HEADER_SIZE);
                return header;
            }
            [[nodiscard]] std::size_t length() const { return header() & MOST_LENGTH; }

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

    /// With room for one text of that length, or for many shorter ones. Throws std::bad_alloc.
    [[nodiscard]] static Chunk newChunk(std::size_t textLength);

    /// Texts and requests, those in a batch included until pop.
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

    /// Throws std::bad_alloc.
    void push(const Block& block);

    /// Takes the oldest block away. Returns false if there is none.
    [[nodiscard]] bool extract(Block& block);

private:
    [[nodiscard]] static std::size_t roomFor(std::size_t textLength);

    ChunkHead* m_head = nullptr; // is read from; null while the queue is empty
    ChunkHead* m_tail = nullptr; // is written to
    Chunk m_spare;
    std::deque<Block> m_blocks;
    std::size_t m_batchEnd = 0; // of what front returned, in the head
    std::size_t m_batchTexts = 0;
    std::size_t m_batchPieces = 0;
    std::size_t m_size = 0;
    std::uint64_t m_bytes = 0;
};
