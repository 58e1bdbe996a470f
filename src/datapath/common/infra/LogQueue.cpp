#include "datapath/common/infra/LogQueue.h"

#include "datapath/common/infra/GuardedMemory.h"

#include <algorithm>
#include <new>
#include <utility>

struct LogQueue::ChunkHead
{
    explicit ChunkHead(std::size_t length) : capacity(length) {}

    [[nodiscard]] std::byte* bytes() { return reinterpret_cast<std::byte*>(this + 1); }

    /// Copies as much of the text as there is room for. Returns the rest.
    std::string_view append(std::string_view text)
    {
        do
        {
            const std::size_t room = capacity - end;
            if (room < HEADER_SIZE + (text.empty() ? 0 : 1))
            {
                return text;
            }
            const auto length = std::min<std::size_t>({text.size(), room - HEADER_SIZE, MAX_PIECE_LENGTH});
            const bool isLast = length == text.size();
            const auto header = static_cast<Header>(length | (isLast ? 0 : CONTINUES));
            std::memcpy(bytes() + end, &header, HEADER_SIZE);
            text.copy(reinterpret_cast<char*>(bytes() + end + HEADER_SIZE), length);
            text.remove_prefix(length);
            end += HEADER_SIZE + length;
            ++pieces;
            texts += isLast ? 1 : 0;
        } while (!text.empty());
        return text;
    }

    const std::size_t capacity; // how many bytes follow this head in memory
    std::size_t begin = 0;      // the offset of the first queued piece
    std::size_t end = 0;        // the offset after the last queued piece
    std::size_t texts = 0;      // queued texts and requests whose last piece is here
    std::size_t pieces = 0;     // all queued pieces
    ChunkHead* next = nullptr;
};

namespace
{

constexpr std::size_t USUAL_CAPACITY = std::size_t{64} * 1024;

} // namespace

void LogQueue::ChunkDelete::operator()(ChunkHead* chunk) const
{
    GuardedMemory::destroyArray(reinterpret_cast<std::byte*>(chunk), SourcePlace::here());
}

LogQueue::~LogQueue()
{
    while (m_head != nullptr)
    {
        const Chunk spent(std::exchange(m_head, m_head->next));
    }
}

/// The bytes that a text takes in a chunk, with the headers of its pieces.
std::size_t LogQueue::roomFor(std::size_t textLength)
{
    return textLength + std::max<std::size_t>(1, (textLength + MAX_PIECE_LENGTH - 1) / MAX_PIECE_LENGTH) * HEADER_SIZE;
}

LogQueue::Chunk LogQueue::newChunk(std::size_t textLength)
{
    const std::size_t capacity = std::max(USUAL_CAPACITY, roomFor(textLength));
    auto* const memory =
        GuardedMemory::createArray<std::byte>({"LogQueueChunk", SourcePlace::here()}, sizeof(ChunkHead) + capacity);
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.PlacementNew): it takes the head of counted memory for all of it
    return Chunk(::new (memory) ChunkHead(capacity));
}

bool LogQueue::push(std::string_view text, Chunk& fresh)
{
    const std::size_t length = text.size();
    const std::size_t needed = roomFor(length);
    if (m_tail == nullptr || m_tail->capacity - m_tail->end < needed)
    {
        Chunk& source = m_spare != nullptr && m_spare->capacity >= needed ? m_spare : fresh;
        if (source == nullptr || source->capacity < needed)
        {
            return false;
        }
        ChunkHead* const last = std::exchange(m_tail, source.release());
        (last != nullptr ? last->next : m_head) = m_tail;
        if (last != nullptr)
        {
            text = last->append(text);
        }
    }
    m_tail->append(text);
    ++m_size;
    m_bytes += length;
    return true;
}

LogQueue::Batch LogQueue::front()
{
    if (m_head == nullptr)
    {
        return {nullptr, nullptr};
    }
    m_batch = {.end = m_head->end, .texts = m_head->texts, .pieces = m_head->pieces};
    return {m_head->bytes() + m_head->begin, m_head->bytes() + m_head->end};
}

LogQueue::Chunk LogQueue::pop()
{
    const BatchExtent batch = std::exchange(m_batch, {});
    if (batch.pieces == 0)
    {
        return nullptr;
    }
    m_bytes -= batch.end - m_head->begin - batch.pieces * HEADER_SIZE;
    m_size -= batch.texts;
    m_head->texts -= batch.texts;
    m_head->pieces -= batch.pieces;
    m_head->begin = batch.end;
    if (m_head->pieces != 0)
    {
        return nullptr;
    }
    Chunk spent(std::exchange(m_head, m_head->next));
    if (m_head == nullptr)
    {
        m_tail = nullptr;
    }
    if (m_spare == nullptr && spent->capacity == USUAL_CAPACITY)
    {
        m_spare.reset(::new (spent.release()) ChunkHead(USUAL_CAPACITY));
    }
    return spent;
}

void LogQueue::push(std::string_view block)
{
    m_blocks.push_back(block);
    ++m_size;
    m_bytes += block.size();
}

std::optional<std::string_view> LogQueue::extract()
{
    if (m_blocks.empty())
    {
        return std::nullopt;
    }
    const std::string_view block = m_blocks.front();
    m_blocks.pop_front();
    --m_size;
    m_bytes -= block.size();
    return block;
}
