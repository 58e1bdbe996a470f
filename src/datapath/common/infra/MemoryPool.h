#pragma once

// Memory in chunks of one size for modules that each have a reservation and a limit. The pool takes memory from the
// guarded allocator in blocks of 2 MiB and cuts them into chunks; a request for a number of bytes gets as many chunks
// as it needs. What cannot be served at once waits, in the order in which it came, until memory is given back or the
// pool has grown.
//
//     MemoryPoolImpl pool({.chunkSize = 65'536, .maxPoolSize = 64U << 20U});
//     ModuleMemoryInformation* const cache = pool.registerModule({.name = "Cache", .reservedBytes = 1U << 20U});
//     ScatteredBuf buffer;
//     const RcStatus status = pool.requestMemory(*cache, 200'000, buffer, traceId).get(); // waits
//     pool.freeSegments(buffer.getSegments(), 0);
//
// Any thread may call. Modules belong to the pool, segments to whoever asked for them, until they are given back. All
// figures are in bytes and count whole chunks (gross), but for m_usedMemoryNet, which counts what was asked for.
//
// Futures are completed under the pool's lock: their observers must not call the pool. What is released is released
// when the lock is free again, so that misuse of memory that is found then is reported as a whole, the pool's usage
// included.

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

class MemoryPoolImpl : public MemoryAllocatorInterface
{
public:
    struct Settings
    {
        /// At least 16 and a divisor of 2 MiB; 0 for a pool without chunks. Any other is an Error line and counts as 0.
        std::uint32_t chunkSize = 0;
        std::uint64_t maxPoolSize = 0; ///< the pool grows while it is smaller, so to at most this rounded up to 2 MiB
    };

    struct ModuleSettings
    {
        std::string name;
        std::uint64_t reservedBytes = 0;                              ///< rounded up to whole chunks
        std::uint64_t limitBytes = ModuleMemoryInformation::NO_LIMIT; ///< rounded down to whole chunks
        ModuleMemoryInformation* parent = nullptr; ///< of the same pool, without reservation and limit
    };

    /// Whether and how much memory a module can get.
    struct FreeBytesInfo
    {
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
        bool isEmptyMemPool; ///< the pool has nothing for it
        bool isFullMmi;      ///< its limit is reached

    private:
        void fail(bool isAble, bool isEmpty) const;
    };

    /// Figures of one moment.
    struct Usage
    {
        std::uint64_t gross; ///< chunks in use
        std::uint64_t net;   ///< bytes in use as they were asked for
        std::uint64_t free;  ///< chunks that are neither in use nor reserved
    };

    MemoryPoolImpl() : MemoryPoolImpl(Settings()) {}
    explicit MemoryPoolImpl(const Settings& settings);

    /// Waits for growth in flight; what still waits is completed with RC_ABORTED. Ends the process if there is memory
    /// left: call releaseUnused before. Detach the pool from others, and others from it, first. A derived class whose
    /// growth answers late has to wait for that itself, with waitForGrowth, before it releases what is unused.
    ~MemoryPoolImpl() override;

    /// The one in memory reports, without chunks. Made on first use and never destroyed.
    [[nodiscard]] static MemoryPoolImpl& instance();

    /// Waits until the pool has grown enough for the reservation; never to be called by the MemoryHelperThread then.
    /// Null, with an Error line and nothing changed, for settings that cannot be met: see ModuleSettings.
    ModuleMemoryInformation* registerModule(const ModuleSettings& settings) EXCLUDES(m_mutex);

    /// Completes what the module waits for with RC_ABORTED, empties those buffers and destroys the module. Refused with
    /// an Error line, and nothing changed, while other segments of it are out or it has children.
    bool unregisterModule(ModuleMemoryInformation& module) EXCLUDES(m_mutex);

    /// Appends segments of that many bytes to the buffer, which the pool alone uses until the future is set, to RC_OK
    /// or, when the module is unregistered meanwhile, to RC_ABORTED. 0 bytes are complete at once. The trace id names
    /// the request in messages.
    [[nodiscard]] FutureInternal::Future<RcStatus> requestMemory(ModuleMemoryInformation& module, std::uint32_t bytes,
                                                                 ScatteredBuf& buffer, std::uint64_t clientTraceId)
        EXCLUDES(m_mutex);

    void freeSegments(std::list<MemorySegment>& segments, std::int32_t fromIndex) override EXCLUDES(m_mutex);
    void freeSegment(MemorySegment& segment) override EXCLUDES(m_mutex);
    void addUsedMemoryNet(std::int32_t bytes) override EXCLUDES(m_mutex);
    [[nodiscard]] std::uint32_t getChunkSize() const override { return m_chunkSize; }

    /// Logs the figures of the pool, of each module and of the sub-pools, and what has waited too long.
    virtual void printMemoryUsage() EXCLUDES(m_mutex, m_subPoolsMutex);

    [[nodiscard]] Usage usage() EXCLUDES(m_mutex);

    /// Returns when no growth is in flight. Never to be called by the MemoryHelperThread.
    void waitForGrowth() EXCLUDES(m_mutex);

    /// Gives back blocks of which every chunk is free, as far as the reservations do not need them. Returns the bytes.
    std::uint64_t releaseUnused() EXCLUDES(m_mutex);

    /// The report of this pool shows the other one's usage, too. Refused, with an Error line, for the pool itself, for
    /// one that is attached already, and for one from which this pool can be reached.
    bool attachSubPool(MemoryPoolImpl& pool) EXCLUDES(m_subPoolsMutex);
    bool detachSubPool(MemoryPoolImpl& pool) EXCLUDES(m_subPoolsMutex);

    /// For a thread that never goes on: lets reports of other threads pass those of the calling one.
    static void endReportsForGood();

    /// For tests: whether figures, free chunks, modules and what waits agree.
    [[nodiscard]] bool checkInvariants() EXCLUDES(m_mutex);

protected:
    // Where blocks come from and go to. Derived classes may answer later, on another thread, with RC_OK, RC_ABORTED or
    // RC_TIME_OUT; the pointer is set by then. What is thrown counts as RC_ABORTED. Called with the lock held
    // (allocate) and without it (release).
    virtual void releaseSingleAllocation(char* memory, std::uint32_t size);
    virtual FutureInternal::Future<RcStatus> allocateSingleAllocation(std::uint32_t size, char*& memory);
    [[nodiscard]] virtual bool hasExternalMemory() const { return false; }
    [[nodiscard]] virtual std::uint32_t singleAllocationSize() const { return SINGLE_ALLOCATION_SIZE; }

private:
    friend MemoryAllocationHelper;

    static constexpr std::uint32_t SINGLE_ALLOCATION_SIZE = 2U << 20U;
    static constexpr std::size_t CACHE_LINE = 64;

    /// What a free chunk begins with. A second link would make each use touch the chunk after it, too.
    struct FreeChunk
    {
        FreeChunk* next;
    };

    /// A block from which chunks were cut.
    struct SingleAllocation
    {
        std::uint32_t size;
        std::uint64_t freeBytes = 0; // as releaseUnused has counted them
        bool isReleased = false;     // by it
    };

    class Request;
    class ForeignCode;
    class Guard;

    // Free chunks.
    [[nodiscard]] bool isEmptyLocked() const REQUIRES(m_mutex) { return m_firstFree == nullptr; }
    void putChunkLocked(void* memory) REQUIRES(m_mutex) { m_firstFree = ::new (memory) FreeChunk{.next = m_firstFree}; }
    [[nodiscard]] inline char* takeChunkLocked() REQUIRES(m_mutex);
    [[nodiscard]] std::uint64_t freeBytesLocked() const REQUIRES(m_mutex)
    {
        return m_totalPollSize - m_usedMemoryGross - m_reservedFree;
    }

    // Serving.
    [[nodiscard]] inline FreeBytesInfo classifyLocked(const ModuleMemoryInformation& module) const REQUIRES(m_mutex);
    [[nodiscard]] inline FreeBytesInfo getFreeBytesLocked(const ModuleMemoryInformation& module) REQUIRES(m_mutex);
    inline void getMemorySegmentLocked(std::uint32_t bytes, ModuleMemoryInformation& module, MemorySegment& segment)
        REQUIRES(m_mutex);
    inline FreeBytesInfo takeSegmentsLocked(ModuleMemoryInformation& module, std::uint32_t& missingBytes,
                                            ScatteredBuf& buffer, std::uint32_t& numSegments,
                                            std::list<MemorySegment>& spare) REQUIRES(m_mutex);
    FreeBytesInfo giveMemoryIfPreparedToTakeLocked(ModuleMemoryInformation& module, Request& request) REQUIRES(m_mutex);
    void giveMemoryToWaiterLocked() REQUIRES(m_mutex);
    void giveMemoryToModuleLocked(ModuleMemoryInformation& module) REQUIRES(m_mutex);
    void completeLocked(Request& request, RcStatus status) REQUIRES(m_mutex);
    void serveLocked(std::span<ModuleMemoryInformation* const> affected) REQUIRES(m_mutex);
    [[nodiscard]] static std::size_t getMmiPendingRequestsLocked(const ModuleMemoryInformation& module)
    {
        return module.waiting().queue().size();
    }

    /// A module of another pool is not, and serving it ends the process.
    [[nodiscard]] bool isOwnLocked(const ModuleMemoryInformation& module) const REQUIRES(m_mutex)
    {
        return module.waiting().isSubscribedTo(m_waitingList);
    }

    // Giving back.
    inline void freeSegmentContentLocked(MemorySegment& segment) REQUIRES(m_mutex);
    inline void freeChunkFromMmiLocked(std::uint64_t netBytes, ModuleMemoryInformation& module) REQUIRES(m_mutex);
    static void releaseUnowned(char* buffer);

    // Modules.
    [[nodiscard]] std::string refusalLocked(const ModuleSettings& settings, std::uint64_t reservedBytes,
                                            std::uint64_t limitBytes) const REQUIRES(m_mutex);
    [[nodiscard]] bool growForReservationLocked(std::uint64_t reservedBytes) REQUIRES(m_mutex);
    [[nodiscard]] ModuleMemoryInformation* addModuleLocked(const ModuleSettings& settings, std::uint64_t reservedBytes,
                                                           std::uint64_t limitBytes) REQUIRES(m_mutex);
    [[nodiscard]] std::uint64_t largestPoolSize() const;
    [[nodiscard]] std::string abandonmentLocked(const ModuleMemoryInformation& module) const REQUIRES(m_mutex);
    void abortRequestsLocked(ModuleMemoryInformation& module) REQUIRES(m_mutex);

    // Growing.
    void requestForMoreAllocationLocked() REQUIRES(m_mutex);
    void requestForMoreAllocationDoneLocked(RcStatus status) REQUIRES(m_mutex);
    void allocatePagesFromSingleAllocationLocked(char* memory, std::uint32_t size) REQUIRES(m_mutex);
    void finishGrowth(RcStatus status) EXCLUDES(m_mutex);
    /// The future of the growth in flight, if there is one: it is set when that growth is over.
    [[nodiscard]] std::optional<FutureInternal::Future<RcStatus>> growthLocked() const REQUIRES(m_mutex);

    // Reports.
    [[nodiscard]] IMutex& reportMutex() RETURNS_CAPABILITY(m_mutex);
    void printModules() EXCLUDES(m_mutex);
    void monitorPendingMemoryAllocations() EXCLUDES(m_mutex);
    void printSubPools() EXCLUDES(m_subPoolsMutex);
    [[nodiscard]] bool canReach(const MemoryPoolImpl& pool) EXCLUDES(m_subPoolsMutex);
    [[nodiscard]] bool areFreeChunksSoundLocked() const REQUIRES(m_mutex);

    void assertLocked() const ASSERTS_HELD(m_mutex) {}

    const std::uint32_t m_chunkSize;
    const std::uint64_t m_maxPoolSize;

    // What each request and each return writes shares one cache line with the words of the lock that locking writes,
    // which are its first ones: threads that use the pool at the same time take that line from each other, and what
    // follows they only read.
    alignas(CACHE_LINE) FreeChunk* m_firstFree GUARDED_BY(m_mutex) = nullptr; // the one put there last
    std::uint64_t m_usedMemoryGross GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_usedMemoryNet GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_reservedFree GUARDED_BY(m_mutex) = 0; // for the unused part of all reservations
    Mutex m_mutex; // guards all but the sub-pools; what futures' observers take is taken inside it
    std::uint64_t m_totalPollSize GUARDED_BY(m_mutex) = 0; // of all blocks
    std::uint64_t m_numPending GUARDED_BY(m_mutex) = 0;    // requests of all modules that wait

    // What is to be released, and logged, when the lock is free again.
    WaitingRequestsQueue_Internal::RemovedRequests m_removedRequests GUARDED_BY(m_mutex);
    std::vector<MemoryAllocationHelper*> m_finishedHelpers GUARDED_BY(m_mutex);
    std::uint64_t m_sizeToReport GUARDED_BY(m_mutex) = 0; // of the pool after growth; 0 for none

    // Guards the sub-pools, and keeps them there during a report. Their locks, and what log clients take, are taken
    // inside it.
    alignas(CACHE_LINE) OwnedMutex m_subPoolsMutex;
    std::map<char*, SingleAllocation> m_singleAllocations GUARDED_BY(m_mutex);
    StlMemShiledContainer<std::map<std::string, ModuleMemoryInformation*>> m_modules GUARDED_BY(m_mutex){"mmis"};
    StlMemShiledContainer<std::set<MemoryPoolImpl*>> m_subPools GUARDED_BY(m_subPoolsMutex){"subPools"};
    MemoryAllocationHelper* m_requestForMoreAllocationHelper GUARDED_BY(m_mutex) = nullptr; // growth in flight
    std::int64_t m_lastGrowthReportMs GUARDED_BY(m_mutex) = 0;
    std::int64_t m_lastMonitoringMs GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_lastKey GUARDED_BY(m_mutex) = 0; // of a request
    SequentialRequestsManager m_waitingList GUARDED_BY(m_mutex){"memoryWaitingList"};
};
