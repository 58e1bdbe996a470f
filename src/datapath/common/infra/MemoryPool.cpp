#include "datapath/common/infra/MemoryPool.h"

#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/MemoryHelperThread.h"
#include "datapath/common/infra/MemoryPoolRequest.h"
#include "datapath/common/infra/SystemHeapBytes.h"
#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/Tweaks.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <new>
#include <sstream>
#include <utility>

using WaitingRequestsQueue_Internal::CONTINUE_ITERATION;
using WaitingRequestsQueue_Internal::FunctorSequentialHandler;
using WaitingRequestsQueue_Internal::NextIterationData;
using WaitingRequestsQueue_Internal::PostIterationFlags;
using WaitingRequestsQueue_Internal::RemovedRequests;

namespace
{

constexpr std::uint32_t NUMBER_FREE_OF_FULL = 51;
constexpr std::uint32_t NUMBER_FREE_OF_EMPTY = 56;
constexpr std::uint32_t NUMBER_UNKNOWN_FREE = 69;
constexpr std::uint32_t NUMBER_MEMORY_LEFT = 95;
constexpr std::uint32_t NUMBER_BLOCK_RELEASED = 100;
constexpr std::uint32_t NUMBER_BLOCK_ALLOCATED = 106;
constexpr std::uint32_t NUMBER_NOT_WHOLE_CHUNKS = 188;
constexpr std::uint32_t NUMBER_NO_GROWTH = 202;
constexpr std::uint32_t NUMBER_HELPER_RELEASED = 208;
constexpr std::uint32_t NUMBER_GROWTH_TWICE = 232;
constexpr std::uint32_t NUMBER_HELPER_CREATED = 233;
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
constexpr std::uint32_t NUMBER_WRAPPER_CREATED = 1221;
constexpr std::uint32_t NUMBER_WRONG_STATUS = 1245;

constexpr std::uint32_t SMALLEST_CHUNK = 16; // a free one holds a link
constexpr std::uint32_t BLOCK_SIZE = 2U << 20U;
constexpr unsigned char FRESH_FILLING = 0xFE;
constexpr unsigned char RETURNED_FILLING = 0xEE;
constexpr std::int64_t REPORT_INTERVAL_MS = 1000;
constexpr std::uint32_t MOST_SPARE_SEGMENTS = 64;
constexpr int NO_FRACTION = 0;

constinit std::atomic<MemoryPoolImpl*> thePool = nullptr;

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
        static constexpr MethodText METHOD = {.text = "MemoryPoolImpl::MemoryPoolImpl",
                                              .fields = "MemoryPoolImpl,MemoryPoolImpl"};
        LogItem(LoggerId::OLM, LogLevel::Error, METHOD)
            << "a chunk size of " << chunkSize << " bytes is below " << SMALLEST_CHUNK << " or no divisor of "
            << BLOCK_SIZE << ", the pool has no chunks" << std::endl;
        return 0;
    }
    return chunkSize;
}

/// Of a segment that is given back.
void check(bool holds, const SourcePlace& place, const char* condition)
{
    if (!holds) [[unlikely]]
    {
        static constexpr MethodText METHOD = {.text = "MemoryPoolImpl::freeSegmentContentLocked",
                                              .fields = "MemoryPoolImpl,freeSegmentContentLocked"};
        CheckFailure(LoggerId::OLM, METHOD, place, condition) << std::endl;
    }
}

/// To a whole number of units; the largest there is if that is too much.
std::uint64_t roundedUp(std::uint64_t bytes, std::uint64_t unit)
{
    constexpr std::uint64_t MOST = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t units = bytes / unit + (bytes % unit != 0 ? 1 : 0);
    return units > MOST / unit ? MOST / unit * unit : units * unit;
}

} // namespace

/// Growth in flight: told of its end, on whatever thread that is, it goes to the MemoryHelperThread.
class MemoryAllocationHelper final : public FutureInternal::FutureObserver<RcStatus>, public ActiveObject::Action
{
public:
    MemoryAllocationHelper(MemoryPoolImpl& pool, std::uint32_t allocationSize) : size(allocationSize), m_pool(pool) {}

    void update(const RcStatus& value) override
    {
        if (value != RC_OK && value != RC_ABORTED && value != RC_TIME_OUT)
        {
            CheckFailure(LoggerId::OLM, THIS_METHOD, SourcePlace::numbered(NUMBER_WRONG_STATUS),
                         "a_val == RC_ABORTED || a_val == RC_TIME_OUT")
                << " a_val=" << static_cast<std::int32_t>(value) << std::endl;
        }
        m_status = value;
        MemoryHelperThread::instance().enqueue(MemShield::create<MemoryHelperThread::ActionWrapper>(
            {"ActionWrapper", SourcePlace::numbered(NUMBER_WRAPPER_CREATED)}, *this));
    }

    void execute() override { m_pool.finishGrowth(m_status); } // which destroys this object

    char* memory = nullptr; // of the new block
    const std::uint32_t size;
    // Kept here: the last copy is released without the pool's lock.
    FutureInternal::Future<RcStatus> future = FutureInternal::Future<RcStatus>::ready(RC_ERROR);

private:
    MemoryPoolImpl& m_pool;
    RcStatus m_status = RC_ERROR;
};

/// Locks the pool. What was removed under the lock is released, and growth logged, when it is free again.
class SCOPED_CAPABILITY MemoryPoolImpl::Guard
{
public:
    explicit Guard(MemoryPoolImpl& pool) ACQUIRES(pool.m_mutex) : m_pool(pool) { m_pool.m_mutex.lock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    ~Guard() noexcept(false) RELEASES()
    {
        if (m_pool.m_removedRequests.empty() && m_pool.m_finishedHelpers.empty()) [[likely]]
        {
            m_pool.m_mutex.unlock();
        }
        else
        {
            unlockAndRelease();
        }
    }

private:
    void unlockAndRelease() RELEASES(m_pool.m_mutex)
    {
        RemovedRequests requests;
        requests.swap(m_pool.m_removedRequests);
        const std::vector<MemoryAllocationHelper*> helpers = std::exchange(m_pool.m_finishedHelpers, {});
        const std::uint64_t sizeToReport = std::exchange(m_pool.m_sizeToReport, 0);
        m_pool.m_mutex.unlock();
        if (sizeToReport != 0)
        {
            static constexpr MethodText METHOD = {.text = "MemoryPoolImpl::allocatePagesFromSingleAllocationLocked",
                                                  .fields = "MemoryPoolImpl,allocatePagesFromSingleAllocationLocked"};
            LogItem(LoggerId::OLM, LogLevel::Info, METHOD, NO_FRACTION)
                << "allocated " << sizeToReport << " bytes" << std::endl;
        }
        requests.destroyAll();
        for (MemoryAllocationHelper* const helper : helpers)
        {
            MemShield::destroy(helper, SourcePlace::numbered(NUMBER_HELPER_RELEASED));
        }
    }

    MemoryPoolImpl& m_pool;
};

/// Ends the process: the figures of a module contradict each other.
void MemoryPoolImpl::FreeBytesInfo::fail(bool isAble, bool isEmpty) const
{
    static constexpr MethodText METHOD = {.text = "MemoryPoolImpl::FreeBytesInfo::FreeBytesInfo",
                                          .fields = "MemoryPoolImpl::FreeBytesInfo,FreeBytesInfo"};
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
        static_cast<void>(Timer::instance().getTimestampMs());
    }
}

MemoryPoolImpl::~MemoryPoolImpl()
{
    for (bool isGrowing = true; isGrowing;)
    {
        GrowthWaiter waiter;
        {
            const Guard guard(*this);
            isGrowing = m_requestForMoreAllocationHelper != nullptr;
            if (isGrowing)
            {
                m_growthWaiters.push_back(&waiter);
            }
        }
        if (isGrowing)
        {
            waiter.done.wait();
        }
    }
    if (m_totalPollSize != 0)
    {
        CheckFailure(LoggerId::OLM, THIS_METHOD, SourcePlace::numbered(NUMBER_MEMORY_LEFT), "m_totalPollSize == 0")
            << " m_totalPollSize=" << m_totalPollSize << std::endl;
    }
    for (const auto& [name, module] : m_modules)
    {
        m_waitingList.unsubscribe(&module->waiting());
        abortRequestsLocked(*module);
        MemShield::destroy(module, SourcePlace::here());
    }
}

MemoryPoolImpl& MemoryPoolImpl::instance()
{
    return createOnce(thePool, creationLock<MemoryPoolImpl>(), [] { return new MemoryPoolImpl; });
}

// Free chunks

void MemoryPoolImpl::putChunkLocked(void* memory) { m_firstFree = ::new (memory) FreeChunk{.next = m_firstFree}; }

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
        --m_numPending;
        request.m_future.set(RC_OK);
    }
    return info;
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
    std::list<MemorySegment> spare(std::min((bytes - 1) / m_chunkSize + 1, MOST_SPARE_SEGMENTS));
    const Guard guard(*this);
    // While others wait, growth that has failed is tried for them first.
    if (module.waiting().queue().empty() && !m_waitingList.hasWaiting() &&
        takeSegmentsLocked(module, missingBytes, buffer, numSegments, spare).isAbleToGetMemory)
    {
        return Future::ready(RC_OK);
    }
    auto* const request =
        MemShield::create<Request>({"Request", SourcePlace::here()}, module, bytes, buffer, clientTraceId);
    request->m_missingBytes = missingBytes;
    request->m_numSegments = numSegments;
    Future future = request->m_future;
    module.waiting().queue().push(request, ++m_lastKey);
    ++m_numPending;
    serveLocked({&module});
    return future;
}

/// Offers memory to all that wait, the given modules among them.
void MemoryPoolImpl::serveLocked(const std::vector<ModuleMemoryInformation*>& affected)
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
        std::for_each(first, segments.end(), [&](MemorySegment& segment) {
            assertLocked();
            if (segment.owner == nullptr)
            {
                unowned.push_back(std::exchange(segment.buffer, nullptr));
            }
            else
            {
                freeSegmentContentLocked(segment);
            }
        });
        if (m_numPending != 0)
        {
            std::set<ModuleMemoryInformation*> affected;
            std::for_each(first, segments.end(), [&](const MemorySegment& segment) { affected.insert(segment.owner); });
            affected.erase(nullptr);
            serveLocked({affected.begin(), affected.end()});
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
    if (m_numPending != 0)
    {
        serveLocked({segment.owner});
    }
}

/// Of a segment that never was a module's.
void MemoryPoolImpl::releaseUnowned(char* buffer)
{
    check(buffer != nullptr, SourcePlace::here(), "segment->buffer != 0"); // given back already
    MemShield::destroyArray(buffer, SourcePlace::numbered(NUMBER_UNOWNED_RELEASED));
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

std::uint64_t MemoryPoolImpl::releaseUnused()
{
    std::vector<SingleAllocation> released;
    {
        const Guard guard(*this);
        const auto isBefore = std::ranges::less();
        std::ranges::sort(m_singleAllocations, isBefore, &SingleAllocation::memory);
        const auto blockOf = [&](const FreeChunk* chunk) {
            assertLocked();
            const auto after = std::ranges::upper_bound(m_singleAllocations, reinterpret_cast<const char*>(chunk),
                                                        isBefore, &SingleAllocation::memory);
            return static_cast<std::size_t>(after - m_singleAllocations.begin()) - 1;
        };
        std::vector<std::uint64_t> freeBytes(m_singleAllocations.size());
        for (const FreeChunk* chunk = m_firstFree; chunk != nullptr; chunk = chunk->next)
        {
            freeBytes[blockOf(chunk)] += m_chunkSize;
        }
        std::vector<bool> isReleased(m_singleAllocations.size());
        for (std::size_t block = 0; block < freeBytes.size(); ++block)
        {
            const std::uint32_t size = m_singleAllocations[block].size;
            if (freeBytes[block] == size && freeBytesLocked() >= size)
            {
                isReleased[block] = true;
                released.push_back(m_singleAllocations[block]);
                m_totalPollSize -= size;
            }
        }
        for (FreeChunk** link = &m_firstFree; *link != nullptr;)
        {
            if (isReleased[blockOf(*link)])
            {
                *link = (*link)->next;
            }
            else
            {
                link = &(*link)->next;
            }
        }
        std::erase_if(m_singleAllocations, [&](const SingleAllocation& allocation) {
            return std::ranges::find(released, allocation.memory, &SingleAllocation::memory) != released.end();
        });
    }
    std::uint64_t bytes = 0;
    for (const auto& [memory, size] : released)
    {
        releaseSingleAllocation(memory, size);
        bytes += size;
    }
    return bytes;
}

// Modules

std::uint64_t MemoryPoolImpl::largestPoolSize() const { return roundedUp(m_maxPoolSize, singleAllocationSize()); }

/// Why a module cannot be registered; empty if it can, as far as the pool can grow.
std::string MemoryPoolImpl::refusalLocked(const ModuleSettings& settings, std::uint64_t reservedBytes,
                                          std::uint64_t limitBytes) const
{
    std::ostringstream reason;
    const ModuleMemoryInformation* const parent = settings.parent;
    const bool isLimited = settings.limitBytes != ModuleMemoryInformation::NO_LIMIT;
    const auto isHere = [parent](const auto& entry) { return entry.second == parent; };
    if (m_chunkSize == 0)
    {
        reason << "the pool has no chunks";
    }
    else if (m_modules.contains(settings.name))
    {
        reason << "the name is taken";
    }
    else if (isLimited && limitBytes == 0)
    {
        reason << "a limit of " << settings.limitBytes << " bytes is no whole chunk of " << m_chunkSize;
    }
    else if (reservedBytes > limitBytes)
    {
        reason << "a reservation of " << settings.reservedBytes << " bytes takes more chunks than the limit of "
               << settings.limitBytes;
    }
    else if (parent != nullptr && std::ranges::none_of(m_modules, isHere))
    {
        reason << "its parent is not of this pool";
    }
    else if (parent != nullptr &&
             (parent->reservedBytes() != 0 || parent->limitBytes() != ModuleMemoryInformation::NO_LIMIT))
    {
        reason << "its parent \"" << parent->name() << "\" has a reservation or a limit";
    }
    else if (const std::uint64_t taken = m_usedMemoryGross + m_reservedFree;
             reservedBytes != 0 && (taken > largestPoolSize() || reservedBytes > largestPoolSize() - taken))
    {
        reason << "a reservation of " << settings.reservedBytes << " bytes cannot be covered beside " << taken
               << " bytes that are in use or reserved, of " << largestPoolSize();
    }
    return reason.str();
}

ModuleMemoryInformation* MemoryPoolImpl::registerModule(const ModuleSettings& settings)
{
    const std::uint64_t unit = std::max(m_chunkSize, 1U);
    const std::uint64_t reservedBytes = roundedUp(settings.reservedBytes, unit);
    const bool isLimited = settings.limitBytes != ModuleMemoryInformation::NO_LIMIT;
    const std::uint64_t limitBytes = isLimited ? settings.limitBytes / unit * unit : settings.limitBytes;
    const std::string noGrowth =
        "the pool could not grow for a reservation of " + std::to_string(settings.reservedBytes) + " bytes";
    std::string refusal;
    while (refusal.empty())
    {
        GrowthWaiter waiter;
        {
            const Guard guard(*this);
            refusal = refusalLocked(settings, reservedBytes, limitBytes);
            if (refusal.empty())
            {
                if (growForReservationLocked(reservedBytes))
                {
                    return addModuleLocked(settings, reservedBytes, limitBytes);
                }
                giveMemoryToWaiterLocked(); // as far as the pool has grown
                if (m_requestForMoreAllocationHelper == nullptr)
                {
                    refusal = noGrowth;
                }
                else
                {
                    m_growthWaiters.push_back(&waiter);
                }
            }
        }
        if (refusal.empty())
        {
            waiter.done.wait();
            refusal = waiter.status == RC_OK ? "" : noGrowth;
        }
    }
    LogItem(LoggerId::OLM, LogLevel::Error, THIS_METHOD)
        << "module \"" << settings.name << "\" is not registered: " << refusal << std::endl;
    return nullptr;
}

ModuleMemoryInformation* MemoryPoolImpl::addModuleLocked(const ModuleSettings& settings, std::uint64_t reservedBytes,
                                                         std::uint64_t limitBytes)
{
    auto* const module =
        MemShield::create<ModuleMemoryInformation>({"ModuleMemoryInformation", SourcePlace::here()}, settings.name,
                                                   reservedBytes, limitBytes, settings.parent, &m_removedRequests);
    m_modules.emplace(settings.name, module);
    m_waitingList.subscribe(&module->waiting());
    module->addToParent();
    m_reservedFree += reservedBytes;
    giveMemoryToWaiterLocked(); // of what the pool has grown beyond the reservation
    return module;
}

/// Returns whether there is enough. If not, growth is in flight, or it has failed.
bool MemoryPoolImpl::growForReservationLocked(std::uint64_t reservedBytes)
{
    for (std::uint64_t sizeBefore = ~m_totalPollSize;
         freeBytesLocked() < reservedBytes && m_totalPollSize < m_maxPoolSize && sizeBefore != m_totalPollSize &&
         m_requestForMoreAllocationHelper == nullptr;)
    {
        sizeBefore = m_totalPollSize;
        requestForMoreAllocationLocked();
    }
    return freeBytesLocked() >= reservedBytes;
}

/// Why a module cannot be unregistered; empty if it can.
std::string MemoryPoolImpl::abandonmentLocked(const ModuleMemoryInformation& module) const
{
    if (std::ranges::none_of(m_modules, [&](const auto& entry) { return entry.second == &module; }))
    {
        return "a module that is not of this pool";
    }
    const std::string name = "module \"" + module.name() + "\"";
    if (module.numChildren() != 0)
    {
        return name + ", which has " + std::to_string(module.numChildren()) + " children";
    }
    std::uint64_t heldBytes = 0; // by what waits
    for (const WaitingRequestsQueue::Item& item : module.waiting().queue().items())
    {
        heldBytes += std::uint64_t{m_chunkSize} * static_cast<const Request&>(*item.request).m_numSegments;
    }
    return heldBytes == module.getCurrentlyUsedBytes()
               ? std::string()
               : name + ", of which " + std::to_string(module.getCurrentlyUsedBytes() - heldBytes) +
                     " bytes are in use";
}

bool MemoryPoolImpl::unregisterModule(ModuleMemoryInformation& module)
{
    std::string refusal;
    {
        const Guard guard(*this);
        refusal = abandonmentLocked(module);
        if (refusal.empty())
        {
            m_waitingList.unsubscribe(&module.waiting());
            abortRequestsLocked(module);
            m_modules.erase(module.name());
            m_reservedFree -= module.reservedBytes();
            module.removeFromParent();
            giveMemoryToWaiterLocked();
        }
    }
    if (!refusal.empty())
    {
        LogItem(LoggerId::OLM, LogLevel::Error, THIS_METHOD) << "cannot unregister " << refusal << std::endl;
        return false;
    }
    MemShield::destroy(&module, SourcePlace::here());
    return true;
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
        --m_numPending;
        request.m_future.set(RC_ABORTED);
    }
}

// Growing

void MemoryPoolImpl::releaseSingleAllocation(char* memory, std::uint32_t size)
{
    SystemHeapBytes::take(std::uint64_t{size} + sizeof(std::uint64_t));
    MemShield::destroyArray(memory, SourcePlace::numbered(NUMBER_BLOCK_RELEASED));
}

FutureInternal::Future<RcStatus> MemoryPoolImpl::allocateSingleAllocation(std::uint32_t size, char*& memory)
{
    memory = MemShield::createArray<char>({"u8", SourcePlace::numbered(NUMBER_BLOCK_ALLOCATED)}, size);
    SystemHeapBytes::giveBack(std::uint64_t{size} + sizeof(std::uint64_t)); // it is not counted there
    return FutureInternal::Future<RcStatus>::ready(RC_OK);
}

void MemoryPoolImpl::requestForMoreAllocationLocked()
{
    if (m_requestForMoreAllocationHelper != nullptr)
    {
        CheckFailure(LoggerId::OLM, THIS_METHOD, SourcePlace::numbered(NUMBER_GROWTH_TWICE),
                     "m_requestForMoreAllocationHelper == 0")
            << std::endl;
    }
    using Future = FutureInternal::Future<RcStatus>;
    auto* const helper = MemShield::create<MemoryAllocationHelper>(
        {"MemoryAllocationHelper", SourcePlace::numbered(NUMBER_HELPER_CREATED)}, *this, singleAllocationSize());
    m_requestForMoreAllocationHelper = helper;
    const auto allocate = [&]() -> Future {
        try
        {
            return allocateSingleAllocation(helper->size, helper->memory);
        }
        catch (const std::bad_alloc&)
        {
            return Future::ready(RC_ABORTED);
        }
    };
    helper->future = allocate();
    if (helper->future.isSet())
    {
        requestForMoreAllocationDoneLocked(helper->future.get());
    }
    else
    {
        helper->future.addObserver(helper);
    }
}

void MemoryPoolImpl::requestForMoreAllocationDoneLocked(RcStatus status)
{
    if (m_requestForMoreAllocationHelper == nullptr)
    {
        CheckFailure(LoggerId::OLM, THIS_METHOD, SourcePlace::numbered(NUMBER_NO_GROWTH),
                     "m_requestForMoreAllocationHelper != 0")
            << std::endl;
    }
    MemoryAllocationHelper* const helper = std::exchange(m_requestForMoreAllocationHelper, nullptr);
    if (status == RC_OK)
    {
        allocatePagesFromSingleAllocationLocked(helper->memory, helper->size);
    }
    m_finishedHelpers.push_back(helper);
    for (GrowthWaiter* const waiter : std::exchange(m_growthWaiters, {}))
    {
        waiter->status = status;
        waiter->done.signal();
    }
}

void MemoryPoolImpl::allocatePagesFromSingleAllocationLocked(char* memory, std::uint32_t size)
{
    if (size % m_chunkSize != 0)
    {
        CheckFailure(LoggerId::OLM, THIS_METHOD, SourcePlace::numbered(NUMBER_NOT_WHOLE_CHUNKS),
                     "allocationSize % m_chunkSize == 0")
            << " allocationSize=" << size << " m_chunkSize=" << m_chunkSize << std::endl;
    }
    std::memset(memory, FRESH_FILLING, size);
    for (std::uint32_t offset = 0; offset + m_chunkSize <= size; offset += m_chunkSize)
    {
        putChunkLocked(memory + offset);
    }
    m_totalPollSize += size;
    m_singleAllocations.push_back({memory, size});
    const std::int64_t nowMs = Timer::instance().getLastTimestampMs_Inaccurate(false);
    if (nowMs - m_lastGrowthReportMs >= REPORT_INTERVAL_MS)
    {
        m_lastGrowthReportMs = nowMs;
        m_sizeToReport = m_totalPollSize;
    }
}

void MemoryPoolImpl::finishGrowth(RcStatus status)
{
    const Guard guard(*this);
    requestForMoreAllocationDoneLocked(status);
    if (status == RC_OK)
    {
        giveMemoryToWaiterLocked();
    }
}
