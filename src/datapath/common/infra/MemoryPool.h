#pragma once

// Memory in chunks of one size for modules that each have a reservation and a limit. The pool takes memory from the
// guarded allocator in blocks of 2 MiB and cuts them into chunks; a request for a number of bytes gets as many chunks
// as it needs. A request that cannot be served at once waits, in the order of arrival, until memory is given back or
// the pool has grown.
//
//     MemoryPoolImpl pool({.chunkSize = 65'536, .maxPoolSize = 64U << 20U});
//     ModuleMemoryInformation* const cache = pool.registerModule({.name = "Cache", .reservedBytes = 1U << 20U});
//     ScatteredBuf buffer;
//     const RcStatus status = pool.requestMemory(*cache, 200'000, buffer, traceId).get(); // waits
//     pool.freeSegments(buffer.getSegments(), 0);
//
//     |<------------------------------ all blocks: m_totalPollSize ------------------------------->|
//     | in use: m_usedMemoryGross  |  unused reservations: m_reservedFree  |  free for every module  |
//                                  |<------------- the list of free chunks: m_firstFree ---------->|
//
// All figures are in bytes and count whole chunks (gross), except m_usedMemoryNet, which counts the bytes asked for.
//
// Any thread may call. Modules belong to the pool; segments belong to the requester until it gives them back. Futures
// are set under the pool's lock, so their observers must not call the pool. The pool releases memory of the guarded
// allocator only without its lock, because the report of misuse that a release finds takes that lock.

#include "datapath/common/infra/Future.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/MemoryAllocatorInterface.h"
#include "datapath/common/infra/ModuleMemoryInformation.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/ScatteredBuf.h"
#include "datapath/common/infra/SequentialRequestsManager.h"
#include "datapath/common/infra/base/RcStatus.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

class MemoryAllocationHelper;

/// A pool that cuts its memory into chunks and gives them to modules; MemoryPool.h describes it. Derived classes may
/// bring its memory from elsewhere.
class MemoryPoolImpl : public MemoryAllocatorInterface
{
public:
    /// What a pool is made with.
    struct Settings
    {
        /// At least 16 and a divisor of 2 MiB; 0 for a pool without chunks. Another value logs an Error line and counts
        /// as 0.
        std::uint32_t chunkSize = 0;
        std::uint64_t maxPoolSize = 0; ///< the pool grows while it is smaller: at most to this, rounded up to 2 MiB
    };

    /// What a module is registered with. Sizes are in bytes.
    struct ModuleSettings
    {
        std::string name;
        std::uint64_t reservedBytes = 0;                              ///< rounded up to whole chunks
        std::uint64_t limitBytes = ModuleMemoryInformation::NO_LIMIT; ///< rounded down to whole chunks
        ModuleMemoryInformation* parent = nullptr; ///< of the same pool, without reservation and limit; or null
    };

    /// How many bytes a module can get now, and why if it can get none.
    struct FreeBytesInfo
    {
        /// isAble: the module's limit leaves room. isEmpty: the pool has nothing for the module.
        FreeBytesInfo(std::uint64_t freeBytes, bool isAble, bool isEmpty)
            : m_free(freeBytes), isAbleToGetMemory(freeBytes != 0), isEmptyMemPool(freeBytes == 0 && isEmpty),
              isFullMmi(freeBytes == 0 && !isEmpty)
        {
            if (isAbleToGetMemory ? isEmpty || !isAble : isFullMmi && isAble) [[unlikely]]
            {
                fail(isAble, isEmpty);
            }
        }

        std::uint64_t m_free;
        bool isAbleToGetMemory;
        bool isEmptyMemPool; ///< the pool has nothing for the module
        bool isFullMmi;      ///< the module's limit is reached

    private:
        void fail(bool isAble, bool isEmpty) const;
    };

    /// Figures of one moment, in bytes.
    struct Usage
    {
        std::uint64_t gross; ///< chunks in use
        std::uint64_t net;   ///< what was asked for in these
        std::uint64_t free;  ///< chunks that are neither in use nor reserved
    };

    MemoryPoolImpl() : MemoryPoolImpl(Settings()) {}
    explicit MemoryPoolImpl(const Settings& settings);

    /// Waits for growth in flight and completes waiting requests with RC_ABORTED. Ends the process if the pool still
    /// has blocks: call releaseUnused first, and detach the pool and its sub-pools. A derived class whose blocks come
    /// late calls waitForGrowth and releaseUnused in its own destructor.
    ~MemoryPoolImpl() override;

    /// The pool that memory reports show, without chunks. Made on first use and never destroyed.
    [[nodiscard]] static MemoryPoolImpl& instance();

    /// Waits until the pool has grown enough for the reservation, so the MemoryHelperThread must not register a module
    /// with one. Returns null, with an Error line, if the settings cannot be met.
    ModuleMemoryInformation* registerModule(const ModuleSettings& settings) TAVRO_EXCLUDES(m_mutex);

    /// Completes the module's waiting requests with RC_ABORTED, takes back the segments that they have got, and
    /// destroys the module. Returns false, with an Error line and nothing changed, while the module has other segments
    /// in use or has children.
    bool unregisterModule(ModuleMemoryInformation& module) TAVRO_EXCLUDES(m_mutex);

    /// Appends segments of that many bytes to the buffer, which only the pool may use until the future is set: to
    /// RC_OK, or to RC_ABORTED when the module or the pool is destroyed before. 0 bytes are complete at once. The trace
    /// id identifies the request in messages.
    [[nodiscard]] FutureInternal::Future<RcStatus> requestMemory(ModuleMemoryInformation& module, std::uint32_t bytes,
                                                                 ScatteredBuf& buffer, std::uint64_t clientTraceId)
        TAVRO_EXCLUDES(m_mutex);

    void freeSegments(std::list<MemorySegment>& segments, std::int32_t fromIndex) override TAVRO_EXCLUDES(m_mutex);
    void freeSegment(MemorySegment& segment) override TAVRO_EXCLUDES(m_mutex);
    void addUsedMemoryNet(std::int32_t bytes) override TAVRO_EXCLUDES(m_mutex);
    [[nodiscard]] std::uint32_t getChunkSize() const override { return m_chunkSize; }

    /// Logs the figures of the pool, of each module and of the sub-pools, and the requests that have waited too long.
    virtual void printMemoryUsage() TAVRO_EXCLUDES(m_mutex, m_subPoolsMutex);

    [[nodiscard]] Usage usage() TAVRO_EXCLUDES(m_mutex);

    /// Returns when no growth is in flight. Never to be called by the MemoryHelperThread.
    void waitForGrowth() TAVRO_EXCLUDES(m_mutex);

    /// Gives back blocks whose chunks are all free, except those that reservations need. Returns how many bytes.
    std::uint64_t releaseUnused() TAVRO_EXCLUDES(m_mutex);

    /// Lets the report of this pool show the other pool, too. Returns false, with an Error line, for the pool itself,
    /// for a pool that is attached already, and for a pool to whose sub-pools, direct or indirect, this one belongs.
    bool attachSubPool(MemoryPoolImpl& pool) TAVRO_EXCLUDES(m_subPoolsMutex);
    /// Returns false, with an Error line, for a pool that is not attached.
    bool detachSubPool(MemoryPoolImpl& pool) TAVRO_EXCLUDES(m_subPoolsMutex);

    /// For a thread that stops forever during a report: releases the locks of its reports, so that others can report.
    static void endReportsForGood();

    /// For tests: whether figures, free chunks, modules and waiting requests agree.
    [[nodiscard]] bool checkInvariants() TAVRO_EXCLUDES(m_mutex);

protected:
    // The source of blocks. allocateSingleAllocation is called under the pool's lock. Its future may be set later and
    // on another thread: to RC_OK when memory has been set, else to RC_ABORTED or RC_TIME_OUT. A std::exception counts
    // as RC_ABORTED. releaseSingleAllocation is called without the lock.
    virtual void releaseSingleAllocation(char* memory, std::uint32_t size);
    virtual FutureInternal::Future<RcStatus> allocateSingleAllocation(std::uint32_t size, char*& memory);
    [[nodiscard]] virtual bool hasExternalMemory() const { return false; }
    [[nodiscard]] virtual std::uint32_t singleAllocationSize() const { return SINGLE_ALLOCATION_SIZE; }

private:
    friend MemoryAllocationHelper;

    static constexpr std::uint32_t SINGLE_ALLOCATION_SIZE = 2U << 20U;
    static constexpr std::size_t CACHE_LINE = 64;

    /// The beginning of a free chunk. With a back link, each use of a chunk would write to its neighbour in the list,
    /// too.
    struct FreeChunk
    {
        FreeChunk* next;
    };

    /// A block from which chunks were cut. Only releaseUnused uses the last two members.
    struct SingleAllocation
    {
        std::uint32_t size;
        std::uint64_t freeBytes = 0;
        bool isReleased = false;
    };

    class Request;
    class ForeignCode;
    class Guard;

    // Free chunks.
    [[nodiscard]] bool isEmptyLocked() const TAVRO_REQUIRES(m_mutex) { return m_firstFree == nullptr; }
    void putChunkLocked(void* memory) TAVRO_REQUIRES(m_mutex)
    {
        m_firstFree = ::new (memory) FreeChunk{.next = m_firstFree};
    }
    [[nodiscard]] inline char* takeChunkLocked() TAVRO_REQUIRES(m_mutex);
    [[nodiscard]] std::uint64_t freeBytesLocked() const TAVRO_REQUIRES(m_mutex)
    {
        return m_totalPollSize - m_usedMemoryGross - m_reservedFree;
    }

    // Serving.
    [[nodiscard]] inline FreeBytesInfo classifyLocked(const ModuleMemoryInformation& module) const
        TAVRO_REQUIRES(m_mutex);
    [[nodiscard]] inline FreeBytesInfo getFreeBytesLocked(const ModuleMemoryInformation& module)
        TAVRO_REQUIRES(m_mutex);
    inline void getMemorySegmentLocked(std::uint32_t bytes, ModuleMemoryInformation& module, MemorySegment& segment)
        TAVRO_REQUIRES(m_mutex);
    inline FreeBytesInfo takeSegmentsLocked(ModuleMemoryInformation& module, std::uint32_t& missingBytes,
                                            ScatteredBuf& buffer, std::uint32_t& numSegments,
                                            std::list<MemorySegment>& spare) TAVRO_REQUIRES(m_mutex);
    FreeBytesInfo giveMemoryIfPreparedToTakeLocked(ModuleMemoryInformation& module, Request& request)
        TAVRO_REQUIRES(m_mutex);
    void giveMemoryToWaiterLocked() TAVRO_REQUIRES(m_mutex);
    void giveMemoryToModuleLocked(ModuleMemoryInformation& module) TAVRO_REQUIRES(m_mutex);
    void completeLocked(Request& request, RcStatus status) TAVRO_REQUIRES(m_mutex);
    void serveLocked(std::span<ModuleMemoryInformation* const> affected) TAVRO_REQUIRES(m_mutex);
    [[nodiscard]] static std::size_t getMmiPendingRequestsLocked(const ModuleMemoryInformation& module)
    {
        return module.waiting().queue().size();
    }

    /// Whether the module belongs to this pool. Serving a module of another pool ends the process.
    [[nodiscard]] bool isOwnLocked(const ModuleMemoryInformation& module) const TAVRO_REQUIRES(m_mutex)
    {
        return module.waiting().isSubscribedTo(m_waitingList);
    }

    // Giving back.
    inline void freeSegmentContentLocked(MemorySegment& segment) TAVRO_REQUIRES(m_mutex);
    inline void freeChunkFromMmiLocked(std::uint64_t netBytes, ModuleMemoryInformation& module) TAVRO_REQUIRES(m_mutex);
    static void releaseUnowned(char* buffer);

    // Modules.
    [[nodiscard]] std::string registrationRefusalLocked(const ModuleSettings& settings, std::uint64_t reservedBytes,
                                                        std::uint64_t limitBytes) const TAVRO_REQUIRES(m_mutex);
    [[nodiscard]] bool growForReservationLocked(std::uint64_t reservedBytes) TAVRO_REQUIRES(m_mutex);
    [[nodiscard]] ModuleMemoryInformation* addModuleLocked(const ModuleSettings& settings, std::uint64_t reservedBytes,
                                                           std::uint64_t limitBytes) TAVRO_REQUIRES(m_mutex);
    [[nodiscard]] std::uint64_t largestPoolSize() const;
    [[nodiscard]] std::string unregistrationRefusalLocked(const ModuleMemoryInformation& module) const
        TAVRO_REQUIRES(m_mutex);
    void abortRequestsLocked(ModuleMemoryInformation& module) TAVRO_REQUIRES(m_mutex);

    // Growing.
    void requestForMoreAllocationLocked() TAVRO_REQUIRES(m_mutex);
    void requestForMoreAllocationDoneLocked(RcStatus status) TAVRO_REQUIRES(m_mutex);
    void allocatePagesFromSingleAllocationLocked(char* memory, std::uint32_t size) TAVRO_REQUIRES(m_mutex);
    void finishGrowth(RcStatus status) TAVRO_EXCLUDES(m_mutex);
    /// The growth in flight, if there is one: a future that is set when it is over.
    [[nodiscard]] std::optional<FutureInternal::Future<RcStatus>> growthLocked() const TAVRO_REQUIRES(m_mutex);

    // Reports.
    /// The lock that a report takes: one that does nothing if the calling thread holds the pool's lock already.
    [[nodiscard]] IMutex& reportMutex() TAVRO_RETURNS_CAPABILITY(m_mutex);
    void printModules() TAVRO_EXCLUDES(m_mutex);
    void monitorPendingMemoryAllocations() TAVRO_EXCLUDES(m_mutex);
    void printSubPools() TAVRO_EXCLUDES(m_subPoolsMutex);
    [[nodiscard]] bool canReach(const MemoryPoolImpl& pool) TAVRO_EXCLUDES(m_subPoolsMutex);
    [[nodiscard]] bool areFreeChunksSoundLocked() const TAVRO_REQUIRES(m_mutex);

    void assertLocked() const TAVRO_ASSERTS_HELD(m_mutex) {}

    const std::uint32_t m_chunkSize;
    const std::uint64_t m_maxPoolSize;

    // The members that each request and each return write share one cache line with the first words of the mutex, which
    // locking writes: threads that use the pool at the same time pass one line between them. The others they only read.
    alignas(CACHE_LINE) FreeChunk* m_firstFree TAVRO_GUARDED_BY(m_mutex) = nullptr; // the one freed last
    std::uint64_t m_usedMemoryGross TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_usedMemoryNet TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_reservedFree TAVRO_GUARDED_BY(m_mutex) = 0; // the unused parts of all reservations
    Mutex m_mutex; // guards everything but the sub-pools; the locks of observers are taken inside it
    std::uint64_t m_totalPollSize TAVRO_GUARDED_BY(m_mutex) = 0; // bytes of all blocks
    std::uint64_t m_numPending TAVRO_GUARDED_BY(m_mutex) = 0;    // waiting requests of all modules

    // What Guard releases and logs after it has released the lock.
    WaitingRequestsQueue_Internal::RemovedRequests m_removedRequests TAVRO_GUARDED_BY(m_mutex);
    std::vector<MemoryAllocationHelper*> m_finishedHelpers TAVRO_GUARDED_BY(m_mutex);
    std::uint64_t m_sizeToReport TAVRO_GUARDED_BY(m_mutex) = 0; // the pool's size after growth; 0: no line is due

    // Guards the set of sub-pools, and is held during a report of them, so that none goes meanwhile. Their locks and
    // those of log clients are taken inside it.
    alignas(CACHE_LINE) OwnedMutex m_subPoolsMutex;
    std::map<char*, SingleAllocation> m_singleAllocations TAVRO_GUARDED_BY(m_mutex);
    StlMemShiledContainer<std::map<std::string, ModuleMemoryInformation*>> m_modules TAVRO_GUARDED_BY(m_mutex){"mmis"};
    StlMemShiledContainer<std::set<MemoryPoolImpl*>> m_subPools TAVRO_GUARDED_BY(m_subPoolsMutex){"subPools"};
    MemoryAllocationHelper* m_requestForMoreAllocationHelper TAVRO_GUARDED_BY(m_mutex) = nullptr; // growth in flight
    std::int64_t m_lastGrowthReportMs TAVRO_GUARDED_BY(m_mutex) = 0;
    std::int64_t m_lastMonitoringMs TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_lastKey TAVRO_GUARDED_BY(m_mutex) = 0; // the key of the request that was queued last
    SequentialRequestsManager m_waitingList TAVRO_GUARDED_BY(m_mutex){"memoryWaitingList"};
};
