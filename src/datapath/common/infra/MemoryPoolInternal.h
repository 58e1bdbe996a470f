#pragma once

// What the units of the memory pool share. Nobody else uses it.

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/MemoryPool.h"

/// A request for memory that waits.
class MemoryPoolImpl::Request final : public WaitingRequestsQueue_Internal::Request
{
public:
    Request(ModuleMemoryInformation& module, std::uint32_t bytes, ScatteredBuf& buffer, std::uint64_t clientTraceId)
        : m_clientTraceId(clientTraceId), m_buffer(buffer), m_requestedBytes(bytes), m_module(module)
    {
    }

    const std::uint64_t m_clientTraceId;
    ScatteredBuf& m_buffer; // what the request has got so far are the last segments in it
    const std::uint32_t m_requestedBytes;
    std::uint32_t m_missingBytes = 0;
    std::uint32_t m_numSegments = 0; // that it has got
    ModuleMemoryInformation& m_module;
    FutureInternal::Future<RcStatus> m_future;
    const std::int64_t m_startMs = Clock::instance().timestampMs();
};

/// While code that is not the pool's own runs under its lock, on the same thread: misuse of memory that is found in it
/// is reported with the pool's usage, without taking the lock once more.
class MemoryPoolImpl::ForeignCode
{
public:
    explicit ForeignCode(const MemoryPoolImpl& pool);
    ForeignCode(const ForeignCode&) = delete;
    ForeignCode& operator=(const ForeignCode&) = delete;
    ~ForeignCode();

private:
    friend MemoryPoolImpl;

    static thread_local const ForeignCode* innermost; // of this thread

    const MemoryPoolImpl& m_pool;
    const ForeignCode* const m_outer; // for another pool
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
    void unlockAndRelease() RELEASES(m_pool.m_mutex);

    MemoryPoolImpl& m_pool;
};
