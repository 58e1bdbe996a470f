#include "datapath/common/infra/MemoryPool.h"

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/MemoryPoolInternal.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <utility>

using WaitingRequestsQueue_Internal::CONTINUE_ITERATION;
using WaitingRequestsQueue_Internal::FunctorSequentialHandler;
using WaitingRequestsQueue_Internal::NextIterationData;
using WaitingRequestsQueue_Internal::PostIterationFlags;

namespace
{

constexpr std::uint32_t NUMBER_FREE_OF_FULL = 51;
constexpr std::uint32_t NUMBER_FREE_OF_EMPTY = 56;
constexpr std::uint32_t NUMBER_UNKNOWN_FREE = 69;
constexpr std::uint32_t NUMBER_MEMORY_LEFT = 95;
constexpr std::uint32_t NUMBER_NO_OWNER = 303;
constexpr std::uint32_t NUMBER_UNOWNED_RELEASED = 311;
constexpr std::uint32_t NUMBER_GROSS_TOO_SMALL = 319;
constexpr std::uint32_t NUMBER_NET_TOO_SMALL = 321;
constexpr std::uint32_t NUMBER_NET_LEFT = 327;
constexpr std::uint32_t NUMBER_MODULE_TOO_SMALL = 334;
constexpr std::uint32_t NUMBER_OF_THE_HEAP = 343;
constexpr std::uint32_t NUMBER_NO_FREE_CHUNK = 365;
constexpr std::uint32_t NUMBER_RESERVATION_TOO_SMALL = 378;
constexpr std::uint32_t NUMBER_NOTHING_PENDING = 877;
constexpr std::uint32_t NUMBER_WRONG_INFO = 950;

constexpr std::uint32_t SMALLEST_CHUNK = 16; // a free one holds a link
constexpr std::uint32_t BLOCK_SIZE = 2U << 20U;
constexpr unsigned char RETURNED_FILLING = 0xEE;
constexpr std::uint32_t MOST_SPARE_SEGMENTS = 64;

constinit platform::Atomic<MemoryPoolImpl*> thePool = nullptr;

/// Ends the process. Kept out of the way of what is called for each request.
template <class... Explanation>
[[gnu::cold, gnu::noinline]] void fail(const MethodText& method, std::uint32_t number, const char* condition,
                                       const Explanation&... explanation)
{
    CheckFailure failure(LoggerId::OLM, method, SourcePlace::numbered(number), condition);
    (failure << ... << explanation) << std::endl;
}

/// The chunk size of a pool for which that one was asked.
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

/// A check of a segment that is given back.
void check(bool holds, const SourcePlace& place, const char* condition)
{
    if (!holds) [[unlikely]]
    {
        static constexpr MethodText METHOD = MethodText::of("MemoryPoolImpl::freeSegmentContentLocked");
        CheckFailure(LoggerId::OLM, METHOD, place, condition) << std::endl;
    }
}

} // namespace

/// Ends the process: the figures of a module contradict each other.
void MemoryPoolImpl::FreeBytesInfo::fail(bool isAble, bool isEmpty) const
{
    static constexpr MethodText METHOD = MethodText::of("MemoryPoolImpl::FreeBytesInfo::FreeBytesInfo");
    if (isAbleToGetMemory && isEmpty)
    {
        CheckFailure(LoggerId::OLM, METHOD, SourcePlace::numbered(NUMBER_FREE_OF_EMPTY), "m_free == 0")
            << "ambiguity related to the question: is mmi able to get memory"
            << " m_free=" << m_free << std::endl;
    }
    if (isAbleToGetMemory && !isAble)
    {
        CheckFailure(LoggerId::OLM, METHOD, SourcePlace::numbered(NUMBER_FREE_OF_FULL), "freeInMmi == true")
            << "trying to give memory to a full mmi" << std::endl;
    }
    if (isFullMmi && isAble)
    {
        CheckFailure(LoggerId::OLM, METHOD, SourcePlace::numbered(NUMBER_UNKNOWN_FREE), "false")
            << "unknown getFreeBytesLocked result:"
            << "isAbleToGetMemory=" << isAble << "isEmptyMemPool=" << isEmpty << "isFullMmi=" << 0 << std::endl;
    }
}

MemoryPoolImpl::MemoryPoolImpl(const Settings& settings)
    : m_chunkSize(checkedChunkSize(settings.chunkSize)), m_maxPoolSize(settings.maxPoolSize)
{
    if (m_chunkSize != 0)
    {
        // Used under the lock, and they log when they are made: a log client may need the lock.
        static_cast<void>(MemShield::instance());
        static_cast<void>(Clock::instance().timestampMs());
    }
}

MemoryPoolImpl::~MemoryPoolImpl()
{
    waitForGrowth();
    if (m_totalPollSize != 0)
    {
        CheckFailure(LoggerId::OLM, THIS_METHOD, SourcePlace::numbered(NUMBER_MEMORY_LEFT), "m_totalPollSize == 0")
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
    return createOnce(thePool, creationLock<MemoryPoolImpl>(), [] { return new MemoryPoolImpl; });
}

// Free chunks

char* MemoryPoolImpl::takeChunkLocked()
{
    return reinterpret_cast<char*>(std::exchange(m_firstFree, m_firstFree->next));
}

// Serving

MemoryPoolImpl::FreeBytesInfo MemoryPoolImpl::classifyLocked(const ModuleMemoryInformation& module) const
{
    const std::uint64_t available = module.unusedReservation() + freeBytesLocked();
    const std::uint64_t limitLeft = module.limitBytes() - module.getCurrentlyUsedBytes();
    const std::uint64_t free = std::min(limitLeft, available) + m_chunkSize * module.extraChunks();
    return {free, (module.extraChunks() != 0 ? free : limitLeft) != 0, free == 0 && available == 0};
}

MemoryPoolImpl::FreeBytesInfo MemoryPoolImpl::getFreeBytesLocked(const ModuleMemoryInformation& module)
{
    const FreeBytesInfo info = classifyLocked(module);
    if (!info.isEmptyMemPool || m_totalPollSize >= m_maxPoolSize || m_requestForMoreAllocationHelper != nullptr)
    {
        return info;
    }
    requestForMoreAllocationLocked();
    return classifyLocked(module);
}

void MemoryPoolImpl::getMemorySegmentLocked(std::uint32_t bytes, ModuleMemoryInformation& module,
                                            MemorySegment& segment)
{
    if (isEmptyLocked()) [[unlikely]]
    {
        fail(THIS_METHOD, NUMBER_NO_FREE_CHUNK, "!isEmptyLocked()");
    }
    segment.sizeBytes = std::min(bytes, m_chunkSize);
    segment.buffer = takeChunkLocked();
    segment.owner = &module;
    m_usedMemoryGross += m_chunkSize;
    m_usedMemoryNet += segment.sizeBytes;
    if (module.unusedReservation() != 0)
    {
        if (m_reservedFree < m_chunkSize) [[unlikely]]
        {
            fail(THIS_METHOD, NUMBER_RESERVATION_TOO_SMALL, "m_reservedFree >= m_chunkSize",
                 " m_reservedFree=", m_reservedFree, " m_chunkSize=", m_chunkSize);
        }
        m_reservedFree -= m_chunkSize;
    }
    module.addUsedBytes(m_chunkSize);
}

/// Appends segments for what is missing, as far as there is memory for the module. The spare ones are used up first.
MemoryPoolImpl::FreeBytesInfo MemoryPoolImpl::takeSegmentsLocked(ModuleMemoryInformation& module,
                                                                 std::uint32_t& missingBytes, ScatteredBuf& buffer,
                                                                 std::uint32_t& numSegments,
                                                                 std::list<MemorySegment>& spare)
{
    FreeBytesInfo info = getFreeBytesLocked(module);
    while (info.isAbleToGetMemory)
    {
        if (spare.empty())
        {
            spare.emplace_back();
        }
        getMemorySegmentLocked(missingBytes, module, spare.front());
        missingBytes -= static_cast<std::uint32_t>(spare.front().sizeBytes);
        buffer.appendFirst(spare);
        ++numSegments;
        if (missingBytes == 0)
        {
            break;
        }
        info = getFreeBytesLocked(module);
    }
    return info;
}

MemoryPoolImpl::FreeBytesInfo MemoryPoolImpl::giveMemoryIfPreparedToTakeLocked(ModuleMemoryInformation& module,
                                                                               Request& request)
{
    std::list<MemorySegment> spare;
    const FreeBytesInfo info =
        takeSegmentsLocked(module, request.m_missingBytes, request.m_buffer, request.m_numSegments, spare);
    if (info.isAbleToGetMemory) // so nothing is missing any more
    {
        if (getMmiPendingRequestsLocked(module) == 0)
        {
            CheckFailure(LoggerId::OLM, THIS_METHOD, SourcePlace::numbered(NUMBER_NOTHING_PENDING),
                         "getMmiPendingRequestsLocked(mmi) > 0")
                << std::endl;
        }
        completeLocked(request, RC_OK);
    }
    return info;
}

void MemoryPoolImpl::completeLocked(Request& request, RcStatus status)
{
    --m_numPending;
    const ForeignCode observers(*this);
    request.m_future.set(status);
}

/// Offers memory to the waiting modules in the order of their keys, until the pool is empty.
void MemoryPoolImpl::giveMemoryToWaiterLocked()
{
    m_waitingList.iterateWaiting(
        FunctorSequentialHandler([this](PostIterationFlags& flags, WaitingRequestsQueue::Request* waiting) {
            assertLocked();
            auto& request = static_cast<Request&>(*waiting);
            const FreeBytesInfo info = giveMemoryIfPreparedToTakeLocked(request.m_module, request);
            flags.reset();
            if (info.isAbleToGetMemory)
            {
                flags.set();
            }
            else if (info.isFullMmi)
            {
                flags.set(CONTINUE_ITERATION);
            }
            else if (!info.isEmptyMemPool)
            {
                CheckFailure(LoggerId::OLM, THIS_METHOD, SourcePlace::numbered(NUMBER_WRONG_INFO), "false")
                    << "wrong FreeBytes Info:"
                    << "IsAbleToGetMemory=" << info.isAbleToGetMemory << ","
                    << "IsFullMmi=" << info.isFullMmi << ","
                    << "IsEmptyMemPool=" << info.isEmptyMemPool << std::endl;
            }
        }));
}

/// Offers memory to what one module waits for, whoever else waits: it has a reservation of its own.
void MemoryPoolImpl::giveMemoryToModuleLocked(ModuleMemoryInformation& module)
{
    m_waitingList.iterateAll(
        FunctorSequentialHandler([this](PostIterationFlags& flags, WaitingRequestsQueue::Request* waiting) {
            assertLocked();
            auto& request = static_cast<Request&>(*waiting);
            flags.reset();
            if (giveMemoryIfPreparedToTakeLocked(request.m_module, request).isAbleToGetMemory)
            {
                flags.set(NextIterationData::COMPLETED_REQUEST).set(CONTINUE_ITERATION);
            }
        }),
        &module.waiting());
}

FutureInternal::Future<RcStatus> MemoryPoolImpl::requestMemory(ModuleMemoryInformation& module, std::uint32_t bytes,
                                                               ScatteredBuf& buffer, std::uint64_t clientTraceId)
{
    using Future = FutureInternal::Future<RcStatus>;
    if (bytes == 0)
    {
        return Future::ready(RC_OK);
    }
    std::uint32_t missingBytes = bytes;
    std::uint32_t numSegments = 0;
    // Made while the lock is free, but for those of large requests.
    std::list<MemorySegment> spare(std::min((bytes - 1) / std::max(m_chunkSize, 1U) + 1, MOST_SPARE_SEGMENTS));
    const Guard guard(*this);
    // While others wait, growth that has failed is tried for them first.
    if (isOwnLocked(module) && module.waiting().queue().empty() && !m_waitingList.hasWaiting() &&
        takeSegmentsLocked(module, missingBytes, buffer, numSegments, spare).isAbleToGetMemory)
    {
        return Future::ready(RC_OK);
    }
    auto* const request =
        GuardedMemory::create<Request>({"Request", SourcePlace::here()}, module, bytes, buffer, clientTraceId);
    request->m_missingBytes = missingBytes;
    request->m_numSegments = numSegments;
    Future future = request->m_future;
    module.waiting().queue().push(request, ++m_lastKey);
    ++m_numPending;
    serveLocked(std::array{&module});
    return future;
}

/// Offers memory to all that wait, the given modules among them.
void MemoryPoolImpl::serveLocked(std::span<ModuleMemoryInformation* const> affected)
{
    for (ModuleMemoryInformation* const module : affected)
    {
        if (!module->waiting().getIsRequestInWaitingModules())
        {
            m_waitingList.importRequestReferenceInternal(&module->waiting());
        }
    }
    giveMemoryToWaiterLocked();
    for (ModuleMemoryInformation* const module : affected)
    {
        if (getMmiPendingRequestsLocked(*module) != 0)
        {
            giveMemoryToModuleLocked(*module);
        }
    }
    if (m_waitingList.hasWaiting() && freeBytesLocked() != 0) // growth succeeded after it had failed for these
    {
        giveMemoryToWaiterLocked();
    }
}

// Giving back

void MemoryPoolImpl::freeSegments(std::list<MemorySegment>& segments, std::int32_t fromIndex)
{
    std::vector<char*> unowned;
    {
        const auto first = positionOf(segments, fromIndex);
        const Guard guard(*this);
        bool isServing = false; // what came back may be somebody else's
        std::for_each(first, segments.end(), [&](MemorySegment& segment) {
            assertLocked();
            if (segment.owner == nullptr)
            {
                unowned.push_back(std::exchange(segment.buffer, nullptr));
            }
            else
            {
                freeSegmentContentLocked(segment);
                isServing = isServing || m_numPending != 0 || !isOwnLocked(*segment.owner);
            }
        });
        if (isServing)
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
    check(!segment.owner->isHeapMemory(), SourcePlace::numbered(NUMBER_OF_THE_HEAP), "!info->isHeapMemory()");
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
        fail(THIS_METHOD, NUMBER_GROSS_TOO_SMALL, "m_usedMemoryGross >= m_chunkSize",
             " m_usedMemoryGross=", m_usedMemoryGross);
    }
    m_usedMemoryGross -= m_chunkSize;
    if (m_usedMemoryNet < netBytes) [[unlikely]]
    {
        fail(THIS_METHOD, NUMBER_NET_TOO_SMALL, "m_usedMemoryNet >= netBytes", " m_usedMemoryNet=", m_usedMemoryNet,
             "segment size = ", netBytes);
    }
    m_usedMemoryNet -= netBytes;
    if (m_usedMemoryGross == 0 && m_usedMemoryNet != 0) [[unlikely]]
    {
        fail(THIS_METHOD, NUMBER_NET_LEFT, "m_usedMemoryNet == 0");
    }
    if (module.getCurrentlyUsedBytes() <= module.reservedBytes())
    {
        m_reservedFree += m_chunkSize;
    }
    if (module.getCurrentlyUsedBytes() < m_chunkSize) [[unlikely]]
    {
        fail(THIS_METHOD, NUMBER_MODULE_TOO_SMALL, "mmi->getCurrentlyUsedBytes() >= m_chunkSize",
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
