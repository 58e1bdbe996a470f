// The reports of the memory pool and its sub-pools: usage, requests that wait too long, and whether all figures agree.

#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemoryPoolInternal.h"
#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/base/Singleton.h"

#include <algorithm>
#include <functional>
#include <sstream>
#include <utility>

using WaitingRequestsQueue_Internal::CONTINUE_ITERATION;
using WaitingRequestsQueue_Internal::FunctorSequentialHandler;
using WaitingRequestsQueue_Internal::PostIterationFlags;

namespace
{

constexpr std::int64_t MONITORING_INTERVAL_MS = 1000;
constexpr std::int64_t MS_PER_SECOND = 1000;
constexpr MethodText USAGE = MethodText::of("MemoryPoolImpl::printMemoryUsage");

/// A report of sub-pools that the calling thread is writing.
struct SubPoolReport
{
    OwnedMutex& mutex;
    const SubPoolReport* outer; // the report of which this one is a part, or null
};
constinit thread_local const SubPoolReport* innermostReport = nullptr;

/// Stands for a lock that the calling thread holds already.
class NoMutex final : public IMutex
{
public:
    void lock() override {}
    void unlock() override {}
};

/// Held while a pool is attached: two threads must not make two pools each other's sub-pools at the same time.
Mutex& topologyLock() { return creationLock<struct PoolTopology>(); }

} // namespace

// Lines are logged without the pool's lock: a log client may find misuse of memory, whose report takes that lock.

constinit thread_local const MemoryPoolImpl::ForeignCode* MemoryPoolImpl::ForeignCode::innermost = nullptr;

MemoryPoolImpl::ForeignCode::ForeignCode(const MemoryPoolImpl& pool)
    : m_pool(pool), m_outer(std::exchange(innermost, this))
{
}

MemoryPoolImpl::ForeignCode::~ForeignCode() { innermost = m_outer; }

IMutex& MemoryPoolImpl::reportMutex()
{
    static NoMutex noMutex;
    const ForeignCode* running = ForeignCode::innermost;
    while (running != nullptr && &running->m_pool != this)
    {
        running = running->m_outer;
    }
    return running == nullptr ? static_cast<IMutex&>(m_mutex) : noMutex;
}

MemoryPoolImpl::Usage MemoryPoolImpl::usage()
{
    const MutexGuard guard(reportMutex());
    return {.gross = m_usedMemoryGross, .net = m_usedMemoryNet, .free = freeBytesLocked()};
}

void MemoryPoolImpl::printMemoryUsage()
{
    printModules();
    const std::int64_t nowMs = Clock::refreshedTimestampMs();
    bool isDue = false;
    {
        const MutexGuard guard(reportMutex());
        isDue = nowMs - m_lastMonitoringMs >= MONITORING_INTERVAL_MS;
        m_lastMonitoringMs = isDue ? nowMs : m_lastMonitoringMs;
    }
    if (isDue)
    {
        monitorPendingMemoryAllocations();
    }
    if (!m_subPoolsMutex.isMine()) // else a log client has led here from a line of such a report
    {
        printSubPools();
    }
}

void MemoryPoolImpl::printModules()
{
    Usage pool{};
    std::vector<std::string> modules;
    {
        const MutexGuard guard(reportMutex());
        pool = {.gross = m_usedMemoryGross, .net = m_usedMemoryNet, .free = freeBytesLocked()};
        for (const auto& [name, module] : *m_modules)
        {
            std::ostringstream line;
            const auto printUnless = [&line](std::uint64_t without, const char* label, std::uint64_t value) {
                if (value != without)
                {
                    line << label << value;
                }
            };
            line << name << ":";
            printUnless(0, " reserved=", module->reservedBytes());
            printUnless(ModuleMemoryInformation::NO_LIMIT, " limit=", module->limitBytes());
            line << " used=" << module->getCurrentlyUsedBytes();
            printUnless(0, " pending=", getMmiPendingRequestsLocked(*module));
            printUnless(0, " NAs=", module->numNAs());
            modules.push_back(line.str());
        }
    }
    LogItem(LoggerId::OLM, LogLevel::Info, USAGE, LogItem::NO_FRACTION) << "Memory POOL: "
                                                                        << " m_usedMemoryGross=" << pool.gross << " "
                                                                        << " m_usedMemoryNet=" << pool.net << " "
                                                                        << " free=" << pool.free << std::endl;
    for (const std::string& module : modules)
    {
        LogItem(LoggerId::OLM, LogLevel::Info, USAGE, LogItem::NO_FRACTION) << module << std::endl;
    }
}

void MemoryPoolImpl::printSubPools()
{
    std::uint64_t totalFree = 0;
    std::uint64_t totalUsed = 0;
    std::uint64_t totalFrag = 0;
    std::uint64_t maxFree = 0;
    std::uint64_t maxUsed = 0;
    const MutexGuard guard(m_subPoolsMutex);
    const SubPoolReport report{m_subPoolsMutex, innermostReport};
    innermostReport = &report;
    for (MemoryPoolImpl* const pool : *m_subPools)
    {
        pool->printMemoryUsage();
        const Usage used = pool->usage();
        totalFree += used.free;
        totalUsed += used.gross;
        totalFrag += used.gross - used.net;
        maxFree = std::max(maxFree, used.free);
        maxUsed = std::max(maxUsed, used.gross);
    }
    LogItem(LoggerId::OLM, LogLevel::Info, USAGE, LogItem::NO_FRACTION) << "subMemPools:"
                                                                        << " totalFree=" << totalFree << " "
                                                                        << " totalUsed=" << totalUsed << " "
                                                                        << " totalFrag=" << totalFrag << " "
                                                                        << " maxFree=" << maxFree << " "
                                                                        << " maxUsed=" << maxUsed << " " << std::endl;
    innermostReport = report.outer;
}

void MemoryPoolImpl::endReportsForGood()
{
    for (; innermostReport != nullptr; innermostReport = innermostReport->outer)
    {
        innermostReport->mutex.assertLocked();
        innermostReport->mutex.unlock();
    }
}

void MemoryPoolImpl::monitorPendingMemoryAllocations()
{
    const Tweaks& tweaks = Tweaks::instance();
    const std::uint32_t infoSec = tweaks.value(OLM_WAIT_TIME_AFTER_MEM_ALLOC_REQUEST_INFO_THRESHOLD_SEC);
    const std::uint32_t errorSec = tweaks.value(OLM_WAIT_TIME_AFTER_MEM_ALLOC_REQUEST_ERROR_THRESHOLD_SEC);
    const std::int64_t nowMs = Clock::instance().timestampMs();
    struct Waiting
    {
        std::int64_t waitedMs;
        std::string text;
    };
    std::vector<Waiting> waiting;
    {
        const MutexGuard guard(reportMutex());
        m_waitingList.iterateAll(
            FunctorSequentialHandler([&](PostIterationFlags& flags, WaitingRequestsQueue::Request* visited) {
                const auto& request = static_cast<const Request&>(*visited);
                const std::int64_t waitedMs = nowMs - request.m_startMs;
                std::ostringstream text;
                text << " (" << request.m_clientTraceId << "," << request.m_module.name() << ","
                     << request.m_requestedBytes << "," << waitedMs / MS_PER_SECOND << ")";
                waiting.push_back({waitedMs, text.str()});
                flags.reset().set(CONTINUE_ITERATION);
            }));
    }
    const auto print = [&](LogLevel level, std::uint32_t thresholdSec) {
        std::string clients;
        for (const auto& [waitedMs, text] : waiting)
        {
            clients += waitedMs > thresholdSec * MS_PER_SECOND ? text : "";
        }
        if (!clients.empty())
        {
            static constexpr MethodText METHOD = MethodText::of("MemoryPoolImpl::monitorPendingMemoryAllocations");
            LogItem(LoggerId::OLM, level, METHOD)
                << "Memory allocation pending time reaches threshold of " << thresholdSec
                << " sec for clients: (clientTraceId,name,requestedBytes,pendingTime)" << clients << std::endl;
        }
    };
    print(LogLevel::Info, infoSec);
    print(LogLevel::Error, errorSec);
}

bool MemoryPoolImpl::canReach(const MemoryPoolImpl& pool)
{
    const MutexGuard guard(m_subPoolsMutex);
    return std::ranges::any_of(*m_subPools,
                               [&](MemoryPoolImpl* subPool) { return subPool == &pool || subPool->canReach(pool); });
}

bool MemoryPoolImpl::attachSubPool(MemoryPoolImpl& pool)
{
    const char* refusal = nullptr;
    {
        const MutexGuard topologyGuard(topologyLock());
        if (&pool == this || pool.canReach(*this))
        {
            refusal = "a pool cannot be attached to itself or to one that is attached to it";
        }
        else
        {
            const MutexGuard guard(m_subPoolsMutex);
            refusal = m_subPools.change([&](auto& pools) { return pools.insert(&pool).second; })
                          ? nullptr
                          : "the pool is attached already";
        }
    }
    if (refusal != nullptr)
    {
        LogItem(LoggerId::OLM, LogLevel::Error, TAVRO_METHOD) << refusal << std::endl;
    }
    return refusal == nullptr;
}

bool MemoryPoolImpl::detachSubPool(MemoryPoolImpl& pool)
{
    bool isDetached = false;
    {
        const MutexGuard guard(m_subPoolsMutex);
        isDetached = m_subPools.change([&](auto& pools) { return pools.erase(&pool); }) != 0;
    }
    if (!isDetached)
    {
        LogItem(LoggerId::OLM, LogLevel::Error, TAVRO_METHOD) << "the pool is not attached" << std::endl;
    }
    return isDetached;
}

bool MemoryPoolImpl::areFreeChunksSoundLocked() const
{
    const auto isInABlock = [this](char* chunk) {
        assertLocked();
        const auto after = m_singleAllocations.upper_bound(chunk);
        return after != m_singleAllocations.begin() &&
               chunk < std::prev(after)->first + std::prev(after)->second.size &&
               (chunk - std::prev(after)->first) % m_chunkSize == 0;
    };
    std::set<const FreeChunk*> seen;
    for (FreeChunk* chunk = m_firstFree; chunk != nullptr; chunk = chunk->next)
    {
        if (!isInABlock(reinterpret_cast<char*>(chunk)) || !seen.insert(chunk).second)
        {
            return false;
        }
    }
    return seen.size() * m_chunkSize + m_usedMemoryGross == m_totalPollSize;
}

bool MemoryPoolImpl::checkInvariants()
{
    const MutexGuard guard(m_mutex);
    std::map<const ModuleMemoryInformation*, std::uint64_t> usedByChildren;
    std::uint64_t reserved = 0;
    std::uint64_t used = 0; // by modules without parents, children included
    std::uint64_t pending = 0;
    for (const auto& [name, module] : *m_modules)
    {
        usedByChildren[module->parent()] += module->getCurrentlyUsedBytes();
        reserved += module->unusedReservation();
        used += module->parent() == nullptr ? module->getCurrentlyUsedBytes() : 0;
        pending += getMmiPendingRequestsLocked(*module);
    }
    const auto isSound = [&](const auto& entry) {
        const ModuleMemoryInformation& module = *entry.second;
        const std::uint64_t usedByItself = module.getCurrentlyUsedBytes() - usedByChildren[&module];
        return usedByItself <= module.getCurrentlyUsedBytes() && usedByItself % m_chunkSize == 0 &&
               usedByItself <= module.limitBytes();
    };
    return areFreeChunksSoundLocked() && m_reservedFree == reserved &&
           m_reservedFree <= m_totalPollSize - m_usedMemoryGross && used == m_usedMemoryGross &&
           m_usedMemoryNet <= m_usedMemoryGross && pending == m_numPending &&
           std::ranges::all_of(*m_modules, isSound) && m_waitingList.checkInvariants();
}
