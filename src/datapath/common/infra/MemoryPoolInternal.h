#pragma once

// What the sources of the memory pool share. Nobody else uses it.

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/MemoryPool.h"

namespace MemoryPoolInternal
{

/// The unit under which support knows the pool, whatever source of it a line comes from.
inline constexpr const char* POOL_UNIT = "datapath/common/infra/MemoryPool.cpp";

/// Ends the process with a failed check. Its code stays out of the functions that run for each request.
template <class... Explanation>
[[gnu::cold, gnu::noinline]] void failPoolCheck(const MethodText& method, std::uint32_t number, const char* condition,
                                                const Explanation&... explanation)
{
    CheckFailure failure(LoggerId::OLM, method, SourcePlace::numbered(number, POOL_UNIT), condition);
    (failure << ... << explanation) << std::endl;
}

} // namespace MemoryPoolInternal

/// A request for memory that waits.
class MemoryPoolImpl::Request final : public WaitingRequestsQueue_Internal::Request
{
public:
    Request(ModuleMemoryInformation& module, std::uint32_t bytes, ScatteredBuf& buffer, std::uint64_t clientTraceId)
        : m_clientTraceId(clientTraceId), m_buffer(buffer), m_requestedBytes(bytes), m_module(module)
    {
    }

    const std::uint64_t m_clientTraceId;
    ScatteredBuf& m_buffer; // its last m_numSegments segments are those that this request has got
    const std::uint32_t m_requestedBytes;
    std::uint32_t m_missingBytes = 0;
    std::uint32_t m_numSegments = 0;
    ModuleMemoryInformation& m_module;
    FutureInternal::Future<RcStatus> m_future;
    const std::int64_t m_startMs = Clock::instance().timestampMs();
};

/// Marks that the calling thread runs an observer or a derived class under the pool's lock, for as long as this lives.
/// If that code finds misuse of memory, the report reads the pool's usage without taking the lock a second time.
class MemoryPoolImpl::ForeignCode
{
public:
    explicit ForeignCode(const MemoryPoolImpl& pool);
    ForeignCode(const ForeignCode&) = delete;
    ForeignCode& operator=(const ForeignCode&) = delete;
    ~ForeignCode();

private:
    friend MemoryPoolImpl;

    static thread_local const ForeignCode* innermost;

    const MemoryPoolImpl& m_pool;
    const ForeignCode* const m_outer; // the mark of another pool whose observer led here, or null
};

/// Locks the pool. After the lock has been released, releases what was removed under it and logs growth.
class TAVRO_SCOPED_CAPABILITY MemoryPoolImpl::Guard
{
public:
    explicit Guard(MemoryPoolImpl& pool) TAVRO_ACQUIRES(pool.m_mutex) : m_pool(pool) { m_pool.m_mutex.lock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    ~Guard() noexcept(false) TAVRO_RELEASES()
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
    void unlockAndRelease() TAVRO_RELEASES(m_pool.m_mutex);

    MemoryPoolImpl& m_pool;
};
