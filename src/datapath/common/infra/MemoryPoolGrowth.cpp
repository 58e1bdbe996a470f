// The part of the memory pool that takes blocks from the guarded allocator and gives them back.

#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/MemoryHelperThread.h"
#include "datapath/common/infra/MemoryPoolInternal.h"
#include "datapath/common/infra/SystemHeapBytes.h"

#include <cstring>
#include <exception>
#include <iterator>
#include <utility>

namespace
{

using MemoryPoolInternal::POOL_UNIT;

constexpr SourcePlace PLACE_BLOCK_RELEASED = SourcePlace::numbered(100, POOL_UNIT);
constexpr SourcePlace PLACE_BLOCK_ALLOCATED = SourcePlace::numbered(106, POOL_UNIT);
constexpr SourcePlace PLACE_NOT_WHOLE_CHUNKS = SourcePlace::numbered(188, POOL_UNIT);
constexpr SourcePlace PLACE_NO_GROWTH = SourcePlace::numbered(202, POOL_UNIT);
constexpr SourcePlace PLACE_HELPER_RELEASED = SourcePlace::numbered(208, POOL_UNIT);
constexpr SourcePlace PLACE_GROWTH_TWICE = SourcePlace::numbered(232, POOL_UNIT);
constexpr SourcePlace PLACE_HELPER_CREATED = SourcePlace::numbered(233, POOL_UNIT);
constexpr SourcePlace PLACE_WRAPPER_CREATED = SourcePlace::numbered(1221, POOL_UNIT);
constexpr SourcePlace PLACE_WRONG_STATUS = SourcePlace::numbered(1245, POOL_UNIT);

constexpr unsigned char FRESH_FILLING = 0xFE;
constexpr std::int64_t REPORT_INTERVAL_MS = 1000;

} // namespace

/// One growth of a pool. If the block comes late, update is called on the thread that brings it, and lets the
/// MemoryHelperThread finish the growth.
class MemoryAllocationHelper final : public FutureInternal::FutureObserver<RcStatus>, public ActiveObject::Action
{
public:
    MemoryAllocationHelper(MemoryPoolImpl& pool, std::uint32_t allocationSize) : size(allocationSize), m_pool(pool) {}

    void update(const RcStatus& value) override
    {
        if (value != RC_OK && value != RC_ABORTED && value != RC_TIME_OUT)
        {
            CheckFailure(LoggerId::OLM, TAVRO_METHOD, PLACE_WRONG_STATUS, "a_val == RC_ABORTED || a_val == RC_TIME_OUT")
                << " a_val=" << static_cast<std::int32_t>(value) << std::endl;
        }
        m_status = value;
        MemoryHelperThread::instance().enqueue(
            GuardedMemory::create<MemoryHelperThread::ActionWrapper>({"ActionWrapper", PLACE_WRAPPER_CREATED}, *this));
    }

    void execute() override { m_pool.finishGrowth(m_status); } // destroys this object

    char* memory = nullptr; // the new block
    const std::uint32_t size;
    // Set when the block is there. Kept here, so that its last copy is released without the pool's lock.
    FutureInternal::Future<RcStatus> future = FutureInternal::Future<RcStatus>::ready(RC_ERROR);
    FutureInternal::Future<RcStatus> over; // set when the pool has taken over the block, or there is none

private:
    MemoryPoolImpl& m_pool;
    RcStatus m_status = RC_ERROR;
};

void MemoryPoolImpl::Guard::unlockAndRelease()
{
    WaitingRequestsQueue_Internal::RemovedRequests requests;
    requests.swap(m_pool.m_removedRequests);
    const std::vector<MemoryAllocationHelper*> helpers = std::exchange(m_pool.m_finishedHelpers, {});
    const std::uint64_t sizeToReport = std::exchange(m_pool.m_sizeToReport, 0);
    m_pool.m_mutex.unlock();
    if (sizeToReport != 0)
    {
        static constexpr MethodText METHOD = MethodText::of("MemoryPoolImpl::allocatePagesFromSingleAllocationLocked");
        LogItem(LoggerId::OLM, LogLevel::Info, METHOD, LogItem::NO_FRACTION)
            << "allocated " << sizeToReport << " bytes" << std::endl;
    }
    requests.destroyAll();
    for (MemoryAllocationHelper* const helper : helpers)
    {
        GuardedMemory::destroy(helper, PLACE_HELPER_RELEASED);
    }
}

void MemoryPoolImpl::releaseSingleAllocation(char* memory, std::uint32_t size)
{
    SystemHeapBytes::take(std::uint64_t{size} + sizeof(std::uint64_t));
    GuardedMemory::destroyArray(memory, PLACE_BLOCK_RELEASED);
}

FutureInternal::Future<RcStatus> MemoryPoolImpl::allocateSingleAllocation(std::uint32_t size, char*& memory)
{
    memory = GuardedMemory::createArray<char>({"u8", PLACE_BLOCK_ALLOCATED}, size);
    SystemHeapBytes::giveBack(std::uint64_t{size} + sizeof(std::uint64_t)); // a pool's blocks do not count there
    return FutureInternal::Future<RcStatus>::ready(RC_OK);
}

void MemoryPoolImpl::requestForMoreAllocationLocked()
{
    if (m_requestForMoreAllocationHelper != nullptr)
    {
        CheckFailure(LoggerId::OLM, TAVRO_METHOD, PLACE_GROWTH_TWICE, "m_requestForMoreAllocationHelper == 0")
            << std::endl;
    }
    using Future = FutureInternal::Future<RcStatus>;
    auto* const helper = GuardedMemory::create<MemoryAllocationHelper>({"MemoryAllocationHelper", PLACE_HELPER_CREATED},
                                                                       *this, singleAllocationSize());
    m_requestForMoreAllocationHelper = helper;
    const auto allocate = [&]() -> Future {
        try
        {
            const ForeignCode derived(*this);
            return allocateSingleAllocation(helper->size, helper->memory);
        }
        catch (const std::exception&) // for instance, no memory or no further thread
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
        CheckFailure(LoggerId::OLM, TAVRO_METHOD, PLACE_NO_GROWTH, "m_requestForMoreAllocationHelper != 0")
            << std::endl;
    }
    MemoryAllocationHelper* const helper = std::exchange(m_requestForMoreAllocationHelper, nullptr);
    if (status == RC_OK)
    {
        allocatePagesFromSingleAllocationLocked(helper->memory, helper->size);
    }
    m_finishedHelpers.push_back(helper);
    helper->over.set(status);
}

void MemoryPoolImpl::allocatePagesFromSingleAllocationLocked(char* memory, std::uint32_t size)
{
    if (size % m_chunkSize != 0)
    {
        CheckFailure(LoggerId::OLM, TAVRO_METHOD, PLACE_NOT_WHOLE_CHUNKS, "allocationSize % m_chunkSize == 0")
            << " allocationSize=" << size << " m_chunkSize=" << m_chunkSize << std::endl;
    }
    std::memset(memory, FRESH_FILLING, size);
    for (std::uint32_t offset = 0; offset + m_chunkSize <= size; offset += m_chunkSize)
    {
        putChunkLocked(memory + offset);
    }
    m_totalPollSize += size;
    m_singleAllocations.emplace(memory, SingleAllocation{.size = size});
    const std::int64_t nowMs = Clock::refreshedTimestampMs();
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

std::optional<FutureInternal::Future<RcStatus>> MemoryPoolImpl::growthLocked() const
{
    return m_requestForMoreAllocationHelper == nullptr ? std::nullopt
                                                       : std::optional(m_requestForMoreAllocationHelper->over);
}

void MemoryPoolImpl::waitForGrowth()
{
    const auto growth = [this] {
        const Guard guard(*this);
        return growthLocked();
    };
    for (auto inFlight = growth(); inFlight; inFlight = growth())
    {
        static_cast<void>(inFlight->get());
    }
}

std::uint64_t MemoryPoolImpl::releaseUnused()
{
    std::map<char*, SingleAllocation> released;
    {
        const Guard guard(*this);
        const auto blockOf = [this](FreeChunk* chunk) -> SingleAllocation& {
            assertLocked();
            return std::prev(m_singleAllocations.upper_bound(reinterpret_cast<char*>(chunk)))->second;
        };
        for (auto& [memory, block] : m_singleAllocations)
        {
            block.freeBytes = 0;
        }
        for (FreeChunk* chunk = m_firstFree; chunk != nullptr; chunk = chunk->next)
        {
            blockOf(chunk).freeBytes += m_chunkSize;
        }
        for (auto& [memory, block] : m_singleAllocations)
        {
            block.isReleased = block.freeBytes == block.size && freeBytesLocked() >= block.size;
            m_totalPollSize -= block.isReleased ? block.size : 0;
        }
        for (FreeChunk** link = &m_firstFree; *link != nullptr;)
        {
            if (blockOf(*link).isReleased)
            {
                *link = (*link)->next;
            }
            else
            {
                link = &(*link)->next;
            }
        }
        for (auto block = m_singleAllocations.begin(); block != m_singleAllocations.end();)
        {
            const auto next = std::next(block);
            if (block->second.isReleased)
            {
                released.insert(m_singleAllocations.extract(block));
            }
            block = next;
        }
    }
    std::uint64_t bytes = 0;
    for (const auto& [memory, block] : released)
    {
        releaseSingleAllocation(memory, block.size);
        bytes += block.size;
    }
    return bytes;
}
