#pragma once

// A request for memory that waits in a pool. Only the pool's own units use it.

#include "datapath/common/infra/MemoryPool.h"
#include "datapath/common/infra/Timer.h"

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
    const std::int64_t m_startMs = Timer::instance().getTimestampMs();
};
