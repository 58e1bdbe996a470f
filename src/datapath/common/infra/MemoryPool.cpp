// The construction and destruction of the memory pool, and the return of segments to it.

#include "datapath/common/infra/MemoryPool.h"

#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/MemoryPoolInternal.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <utility>

using MemoryPoolInternal::failPoolCheck;

namespace
{

constexpr std::uint32_t NUMBER_MEMORY_LEFT = 95;
constexpr std::uint32_t NUMBER_NO_OWNER = 303;
constexpr std::uint32_t NUMBER_UNOWNED_RELEASED = 311;
constexpr std::uint32_t NUMBER_GROSS_TOO_SMALL = 319;
constexpr std::uint32_t NUMBER_NET_TOO_SMALL = 321;
constexpr std::uint32_t NUMBER_NET_LEFT = 327;
constexpr std::uint32_t NUMBER_MODULE_TOO_SMALL = 334;
constexpr std::uint32_t NUMBER_HEAP_MODULE = 343;

constexpr std::uint32_t SMALLEST_CHUNK = 16;
constexpr std::uint32_t BLOCK_SIZE = 2U << 20U;
constexpr unsigned char RETURNED_FILLING = 0xEE;

constinit platform::Atomic<MemoryPoolImpl*> thePool = nullptr;

/// The chunk size that was asked for; 0, with an Error line, if no pool can have it.
std::uint32_t checkedChunkSize(std::uint32_t chunkSize)
{
    if (chunkSize != 0 && (chunkSize < SMALLEST_CHUNK || BLOCK_SIZE % chunkSize != 0))
    {
        static constexpr MethodText METHOD = MethodText::of("MemoryPoolImpl::MemoryPoolImpl");
        LogItem(LoggerId::OLM, LogLevel::Error, METHOD)
            << "a chunk size of " << chunkSize << " bytes is below " << SMALLEST_CHUNK << " or no divisor of "
            << BLOCK_SIZE << ", the pool has no chunks" << std::endl;
        return 0;
    }
    return chunkSize;
}

/// Ends the process if a segment that is given back is not what it should be.
void check(bool holds, const SourcePlace& place, const char* condition)
{
    if (!holds) [[unlikely]]
    {
        static constexpr MethodText METHOD = MethodText::of("MemoryPoolImpl::freeSegmentContentLocked");
        CheckFailure(LoggerId::OLM, METHOD, place, condition) << std::endl;
    }
}

} // namespace

MemoryPoolImpl::MemoryPoolImpl(const Settings& settings)
    : m_chunkSize(checkedChunkSize(settings.chunkSize)), m_maxPoolSize(settings.maxPoolSize)
{
    if (m_chunkSize != 0)
    {
        // The pool uses both under its lock. They are made here, without it, because their making logs, and a log
        // client may use the pool.
        static_cast<void>(MemShield::instance());
        static_cast<void>(Clock::instance().timestampMs());
    }
}

MemoryPoolImpl::~MemoryPoolImpl()
{
    waitForGrowth();
    if (m_totalPollSize != 0)
    {
        CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_MEMORY_LEFT), "m_totalPollSize == 0")
            << " m_totalPollSize=" << m_totalPollSize << std::endl;
    }
    for (const auto& [name, module] : *m_modules)
    {
        m_waitingList.unsubscribe(&module->waiting());
        abortRequestsLocked(*module);
        GuardedMemory::destroy(module, SourcePlace::here());
    }
}

MemoryPoolImpl& MemoryPoolImpl::instance()
{
    return createOnce(thePool, creationLock<MemoryPoolImpl>, [] { return new MemoryPoolImpl; });
}

void MemoryPoolImpl::freeSegments(std::list<MemorySegment>& segments, std::int32_t fromIndex)
{
    std::vector<char*> unowned;
    {
        const auto first = positionOf(segments, fromIndex);
        const Guard guard(*this);
        bool mustServe = false; // also for a segment of another pool: serving its owner ends the process
        std::for_each(first, segments.end(), [&](MemorySegment& segment) {
            assertLocked();
            if (segment.owner == nullptr)
            {
                unowned.push_back(std::exchange(segment.buffer, nullptr));
            }
            else
            {
                freeSegmentContentLocked(segment);
                mustServe = mustServe || m_numPending != 0 || !isOwnLocked(*segment.owner);
            }
        });
        if (mustServe)
        {
            std::set<ModuleMemoryInformation*> owners;
            std::for_each(first, segments.end(), [&](const MemorySegment& segment) { owners.insert(segment.owner); });
            owners.erase(nullptr);
            serveLocked(std::vector(owners.begin(), owners.end()));
        }
    }
    std::ranges::for_each(unowned, releaseUnowned);
}

void MemoryPoolImpl::freeSegment(MemorySegment& segment)
{
    if (segment.owner == nullptr)
    {
        releaseUnowned(std::exchange(segment.buffer, nullptr));
        return;
    }
    const Guard guard(*this);
    freeSegmentContentLocked(segment);
    if (m_numPending != 0 || !isOwnLocked(*segment.owner))
    {
        serveLocked(std::array{segment.owner});
    }
}

/// Gives back a segment that never belonged to a module.
void MemoryPoolImpl::releaseUnowned(char* buffer)
{
    check(buffer != nullptr, SourcePlace::here(), "segment->buffer != 0"); // given back already
    GuardedMemory::destroyArray(buffer, SourcePlace::numbered(NUMBER_UNOWNED_RELEASED));
}

void MemoryPoolImpl::freeSegmentContentLocked(MemorySegment& segment)
{
    check(segment.owner != MemorySegment::NoOwner, SourcePlace::numbered(NUMBER_NO_OWNER),
          "mmi != MemorySegment::NoOwner");
    check(!segment.owner->isHeapMemory(), SourcePlace::numbered(NUMBER_HEAP_MODULE), "!info->isHeapMemory()");
    check(segment.buffer != nullptr, SourcePlace::here(), "segment->buffer != 0"); // given back already
    if (MemShield::isEnabled())
    {
        std::memset(segment.buffer, RETURNED_FILLING, m_chunkSize);
    }
    freeChunkFromMmiLocked(segment.sizeBytes, *segment.owner);
    putChunkLocked(std::exchange(segment.buffer, nullptr));
}

void MemoryPoolImpl::freeChunkFromMmiLocked(std::uint64_t netBytes, ModuleMemoryInformation& module)
{
    if (m_usedMemoryGross < m_chunkSize) [[unlikely]]
    {
        failPoolCheck(TAVRO_METHOD, NUMBER_GROSS_TOO_SMALL, "m_usedMemoryGross >= m_chunkSize",
                      " m_usedMemoryGross=", m_usedMemoryGross);
    }
    m_usedMemoryGross -= m_chunkSize;
    if (m_usedMemoryNet < netBytes) [[unlikely]]
    {
        failPoolCheck(TAVRO_METHOD, NUMBER_NET_TOO_SMALL, "m_usedMemoryNet >= netBytes",
                      " m_usedMemoryNet=", m_usedMemoryNet, "segment size = ", netBytes);
    }
    m_usedMemoryNet -= netBytes;
    if (m_usedMemoryGross == 0 && m_usedMemoryNet != 0) [[unlikely]]
    {
        failPoolCheck(TAVRO_METHOD, NUMBER_NET_LEFT, "m_usedMemoryNet == 0");
    }
    if (module.getCurrentlyUsedBytes() <= module.reservedBytes())
    {
        m_reservedFree += m_chunkSize;
    }
    if (module.getCurrentlyUsedBytes() < m_chunkSize) [[unlikely]]
    {
        failPoolCheck(TAVRO_METHOD, NUMBER_MODULE_TOO_SMALL, "mmi->getCurrentlyUsedBytes() >= m_chunkSize",
                      " mmi->getCurrentlyUsedBytes()=", module.getCurrentlyUsedBytes(), " m_chunkSize=", m_chunkSize);
    }
    module.subtractUsedBytes(m_chunkSize);
}

void MemoryPoolImpl::addUsedMemoryNet(std::int32_t bytes)
{
    const Guard guard(*this);
    m_usedMemoryNet += static_cast<std::uint64_t>(std::int64_t{bytes});
}

void MemoryPoolImpl::abortRequestsLocked(ModuleMemoryInformation& module)
{
    WaitingRequestsQueue& queue = module.waiting().queue();
    for (; !queue.empty(); queue.popRequest())
    {
        auto& request = static_cast<Request&>(*queue.front().request);
        std::list<MemorySegment>& segments = request.m_buffer.getSegments();
        for (auto own = std::prev(segments.end(), request.m_numSegments); own != segments.end(); ++own)
        {
            freeSegmentContentLocked(*own);
        }
        request.m_buffer.removeLast(request.m_numSegments);
        completeLocked(request, RC_ABORTED);
    }
}
