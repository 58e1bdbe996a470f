#pragma once

// Texts that wait to be written, and among them requests to flush, first in, first out. They lie one after the other
// in chunks of memory, so that a text costs little more than its own bytes and no allocation.
//
//     while (!queue.push(text, chunk)) { chunk = LogQueue::newChunk(text.size()); }      // any thread
//     for (const LogQueue::Piece piece : queue.front()) ...                              // the writer
//     const LogQueue::Chunk spent = queue.pop();
//
// If each text is to be a block of its own, the owner of the queue makes and releases the blocks, and calls these
// functions instead:
//
//     queue.push(block);
//     while (const std::optional<std::string_view> block = queue.extract()) ...
//
// The chunks form a list. Here texts A, B, C and D are queued, C is cut into two pieces, and front has returned a batch
// with A and B:
//
//     m_head                                     m_tail                            m_spare
//       |                                          |                                 |
//     +----------------+---+---+-------+  next   +----------------+---+----------+  +-------------+
//     | (popped)       | A | B | C ... | ------> | ... C          | D | (free)   |  | (empty)     |  or null
//     +----------------+---+---+-------+         +----------------+---+----------+  +-------------+
//                    begin     |      end      begin                 end
//                              m_batch.end
//
//     piece:  +-----------+---------------+      header, 16 bits in the processor's order:
//             |  header   |  bytes        |        bits 0 to 14   the number of bytes
//             +-----------+---------------+        bit 15         CONTINUES: the text goes on in the next piece
//
// Invariants:
// - Every chunk in the list has at least one piece between begin and end. m_head and m_tail are null while the list is
//   empty.
// - A text is pushed as a whole: its pieces follow each other, and all but the last have the bit CONTINUES. A text is
//   cut where its chunk ends, and after MAX_PIECE_LENGTH bytes. A request to flush is a piece of 0 bytes.
// - A push writes at and after end only. So what front has returned can be read without the lock until pop.
//
// The owner locks each call except newChunk, and only one thread at a time may be between front and pop.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <string_view>

class LogQueue
{
    using Header = std::uint16_t;
    static constexpr std::size_t HEADER_SIZE = sizeof(Header);
    static constexpr Header CONTINUES = 0x8000;
    static constexpr Header MAX_PIECE_LENGTH = 0x7FFF;

    struct ChunkHead;
    struct ChunkDelete
    {
        void operator()(ChunkHead* chunk) const;
    };

public:
    /// Memory for the queue. Made and released without the lock.
    using Chunk = std::unique_ptr<ChunkHead, ChunkDelete>;

    /// A text or a part of one; a request to flush, if it is empty.
    struct Piece
    {
        std::string_view text;
        bool isLast; ///< the text ends here
    };

    /// The oldest pieces, all in one chunk. A text may begin in one batch and end in the next one.
    class Batch
    {
    public:
        /// Visits the pieces in their order.
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
            [[nodiscard]] std::size_t length() const { return header() & MAX_PIECE_LENGTH; }

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

    /// Returns a chunk with room for one text of that length, or for many shorter ones. Throws std::bad_alloc.
    [[nodiscard]] static Chunk newChunk(std::size_t textLength);

    /// How many texts and requests are queued. Those of a batch count until pop.
    [[nodiscard]] std::size_t size() const { return m_size; }

    /// How many bytes the queued texts have.
    [[nodiscard]] std::uint64_t bytes() const { return m_bytes; }

    /// Copies the text into the queue; an empty one is a request to flush. Takes the fresh chunk only if it is needed.
    /// Returns false, with nothing done, if there is no room and the fresh chunk is null or too small.
    [[nodiscard]] bool push(std::string_view text, Chunk& fresh);

    /// The oldest pieces, none if the queue is empty.
    [[nodiscard]] Batch front();

    /// Takes away the pieces that front returned last. Returns the chunk that is spent now, or null, for the caller to
    /// release.
    Chunk pop();

    /// Adds a block, whose bytes stay the caller's; an empty one is a request to flush. Throws std::bad_alloc.
    void push(std::string_view block);

    /// Takes the oldest block away. Returns nothing if there is none.
    [[nodiscard]] std::optional<std::string_view> extract();

private:
    /// The pieces that front returned last, all in the first chunk.
    struct BatchExtent
    {
        std::size_t end = 0; // the offset in the chunk after the last piece
        std::size_t texts = 0;
        std::size_t pieces = 0;
    };

    [[nodiscard]] static std::size_t roomFor(std::size_t textLength);

    ChunkHead* m_head = nullptr; // the chunk that is read from
    ChunkHead* m_tail = nullptr; // the chunk that is written to
    Chunk m_spare;               // replaces the last chunk when that is full; null, or empty and of the usual size
    std::deque<std::string_view> m_blocks;
    BatchExtent m_batch;
    std::size_t m_size = 0;
    std::uint64_t m_bytes = 0;
};
