// The part of the memory pool that serves requests: at once, or when memory for those that wait has come.

#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/MemoryPoolInternal.h"

#include <algorithm>
#include <array>
#include <utility>

using MemoryPoolInternal::failPoolCheck;
using MemoryPoolInternal::POOL_UNIT;
using WaitingRequestsQueue_Internal::CONTINUE_ITERATION;
using WaitingRequestsQueue_Internal::FunctorSequentialHandler;
using WaitingRequestsQueue_Internal::NextIterationData;
using WaitingRequestsQueue_Internal::PostIterationFlags;

namespace
{

constexpr std::uint32_t NUMBER_FULL_MODULE = 51;
constexpr std::uint32_t NUMBER_EMPTY_POOL = 56;
constexpr std::uint32_t NUMBER_UNKNOWN_RESULT = 69;
constexpr std::uint32_t NUMBER_NO_FREE_CHUNK = 365;
constexpr std::uint32_t NUMBER_RESERVATION_TOO_SMALL = 378;
constexpr std::uint32_t NUMBER_NOTHING_PENDING = 877;
constexpr std::uint32_t NUMBER_WRONG_INFO = 950;

constexpr std::uint32_t MAX_SPARE_SEGMENTS = 64;

} // namespace

/// Ends the process, because the figures of a module contradict each other.
void MemoryPoolImpl::FreeBytesInfo::fail(bool isAble, bool isEmpty) const
{
    static constexpr MethodText METHOD = MethodText::of("MemoryPoolImpl::FreeBytesInfo::FreeBytesInfo");
    if (isAbleToGetMemory && isEmpty)
    {
        failPoolCheck(METHOD, NUMBER_EMPTY_POOL, "m_free == 0",
                      "ambiguity related to the question: is mmi able to get memory", " m_free=", m_free);
    }
    if (isAbleToGetMemory && !isAble)
    {
        failPoolCheck(METHOD, NUMBER_FULL_MODULE, "freeInMmi == true", "trying to give memory to a full mmi");
    }
    if (isFullMmi && isAble)
    {
        failPoolCheck(METHOD, NUMBER_UNKNOWN_RESULT, "false",
                      "unknown getFreeBytesLocked result:", "isAbleToGetMemory=", isAble, "isEmptyMemPool=", isEmpty,
                      "isFullMmi=", 0);
    }
}

char* MemoryPoolImpl::takeChunkLocked()
{
    return reinterpret_cast<char*>(std::exchange(m_firstFree, m_firstFree->next));
}

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
        failPoolCheck(TAVRO_METHOD, NUMBER_NO_FREE_CHUNK, "!isEmptyLocked()");
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
            failPoolCheck(TAVRO_METHOD, NUMBER_RESERVATION_TOO_SMALL, "m_reservedFree >= m_chunkSize",
                          " m_reservedFree=", m_reservedFree, " m_chunkSize=", m_chunkSize);
        }
        m_reservedFree -= m_chunkSize;
    }
    module.addUsedBytes(m_chunkSize);
}

/// Appends segments for the missing bytes, as far as there is memory for the module. List nodes are taken from spare,
/// as long as it has any.
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
    if (info.isAbleToGetMemory) // the request has got everything
    {
        if (getMmiPendingRequestsLocked(module) == 0)
        {
            failPoolCheck(TAVRO_METHOD, NUMBER_NOTHING_PENDING, "getMmiPendingRequestsLocked(mmi) > 0");
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

/// Offers memory to the modules that wait, in the order of their oldest requests, until the pool has nothing for one.
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
                failPoolCheck(TAVRO_METHOD, NUMBER_WRONG_INFO, "false",
                              "wrong FreeBytes Info:", "IsAbleToGetMemory=", info.isAbleToGetMemory, ",",
                              "IsFullMmi=", info.isFullMmi, ",", "IsEmptyMemPool=", info.isEmptyMemPool);
            }
        }));
}

/// Offers memory to the requests of one module before older ones of others, because it may have a reservation.
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
    // List nodes are allocated without the lock. A large request allocates the rest of its nodes under it.
    std::list<MemorySegment> spare(std::min((bytes - 1) / std::max(m_chunkSize, 1U) + 1, MAX_SPARE_SEGMENTS));
    const Guard guard(*this);
    // Requests that wait go first: if the pool can grow again, the new block is for them.
    if (isOwnLocked(module) && module.waiting().queue().empty() && !m_waitingList.hasWaiting() &&
        takeSegmentsLocked(module, missingBytes, buffer, numSegments, spare).isAbleToGetMemory)
    {
        return Future::ready(RC_OK);
    }
    constexpr SourcePlace PLACE = SourcePlace::here(__builtin_LINE(), POOL_UNIT);
    auto* const request = GuardedMemory::create<Request>({"Request", PLACE}, module, bytes, buffer, clientTraceId);
    request->m_missingBytes = missingBytes;
    request->m_numSegments = numSegments;
    Future future = request->m_future;
    module.waiting().queue().push(request, ++m_lastKey);
    ++m_numPending;
    serveLocked(std::array{&module});
    return future;
}

/// Offers memory to all modules that wait, then to the reservations of those that are affected: by a new request, or by
/// memory that they gave back.
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
    if (m_waitingList.hasWaiting() && freeBytesLocked() != 0) // the loop has made the pool grow after it could not
    {
        giveMemoryToWaiterLocked();
    }
}
