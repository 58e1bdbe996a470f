#include "datapath/common/infra/LogQueue.h"

#include "datapath/common/infra/MemShield.h"

#include <algorithm>
#include <new>
#include <utility>

struct LogQueue::ChunkHead
{
    explicit ChunkHead(std::size_t length) : capacity(length) {}

    [[nodiscard]] std::byte* bytes() { return reinterpret_cast<std::byte*>(this + 1); }

    const std::size_t capacity; // of the bytes that follow
    std::size_t begin = 0;      // of what is queued
    std::size_t end = 0;
    std::size_t size = 0; // texts and requests in it
    ChunkHead* next = nullptr;
};

namespace
{

constexpr std::size_t USUAL_CAPACITY = std::size_t{64} * 1024;

} // namespace

void LogQueue::ChunkDelete::operator()(ChunkHead* chunk) const
{
    MemShield::destroyArray(reinterpret_cast<std::byte*>(chunk), SourcePlace::here());
}

LogQueue::~LogQueue()
{
    while (m_head != nullptr)
    {
        const Chunk spent(std::exchange(m_head, m_head->next));
    }
}

LogQueue::Chunk LogQueue::newChunk(std::size_t textLength)
{
    const std::size_t capacity = std::max(USUAL_CAPACITY, HEADER_SIZE + textLength);
    std::byte* const memory =
        MemShield::createArray<std::byte>({"LogQueueChunk", SourcePlace::here()}, sizeof(ChunkHead) + capacity);
    return Chunk(::new (memory) ChunkHead(capacity));
}

bool LogQueue::push(std::string_view text, Chunk& fresh)
{
    const std::size_t needed = HEADER_SIZE + text.size();
    const auto hasRoom = [=](const ChunkHead* chunk) {
        return chunk != nullptr && chunk->capacity - chunk->end >= needed;
    };
    if (!hasRoom(m_tail))
    {
        Chunk& source = hasRoom(m_spare.get()) ? m_spare : fresh;
        if (!hasRoom(source.get()))
        {
            return false;
        }
        ChunkHead* const last = std::exchange(m_tail, source.release());
        (last != nullptr ? last->next : m_head) = m_tail;
    }
    append(*m_tail, text);
    ++m_size;
    m_bytes += text.size();
    return true;
}

void LogQueue::append(ChunkHead& chunk, std::string_view text)
{
    const auto length = static_cast<Length>(text.size());
    std::byte* const position = chunk.bytes() + chunk.end;
    std::memcpy(position, &length, HEADER_SIZE);
    if (length != 0)
    {
        std::memcpy(position + HEADER_SIZE, text.data(), length);
    }
    chunk.end += HEADER_SIZE + length;
    ++chunk.size;
}

LogQueue::Batch LogQueue::front()
{
    if (m_head == nullptr)
    {
        return {nullptr, nullptr};
    }
    m_batchEnd = m_head->end;
    m_batchSize = m_head->size;
    return {m_head->bytes() + m_head->begin, m_head->bytes() + m_head->end};
}

LogQueue::Chunk LogQueue::pop()
{
    if (m_batchSize == 0)
    {
        return nullptr;
    }
    m_bytes -= m_batchEnd - m_head->begin - m_batchSize * HEADER_SIZE;
    m_size -= m_batchSize;
    m_head->size -= std::exchange(m_batchSize, 0);
    m_head->begin = m_batchEnd;
    if (m_head->size != 0)
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
