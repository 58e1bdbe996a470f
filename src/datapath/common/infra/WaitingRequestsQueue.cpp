#include "datapath/common/infra/WaitingRequestsQueue.h"

#include "datapath/common/infra/GuardedMemory.h"

using WaitingRequestsQueue_Internal::CONTINUE_ITERATION;
using WaitingRequestsQueue_Internal::ISequentialItemHandler;
using WaitingRequestsQueue_Internal::NextIterationData;
using WaitingRequestsQueue_Internal::PostIterationFlags;
using WaitingRequestsQueue_Internal::RemovedRequests;

namespace
{

constexpr std::uint32_t NUMBER_POP_OF_EMPTY = 35;
constexpr std::uint32_t NUMBER_POPPED = 37;
constexpr std::uint32_t NUMBER_COMPLETED = 87;
constexpr std::uint32_t NUMBER_WRONG_REQUEST_FLAGS = 97;

} // namespace

void RemovedRequests::destroyAll()
{
    for (const auto& [request, place] : std::exchange(m_requests, {}))
    {
        GuardedMemory::destroy(request, place);
    }
}

WaitingRequestsQueue::~WaitingRequestsQueue()
{
    while (!empty())
    {
        popRequest();
    }
}

void WaitingRequestsQueue::remove(Request* request, const SourcePlace& place)
{
    if (m_removed != nullptr)
    {
        m_removed->add(request, place);
    }
    else
    {
        GuardedMemory::destroy(request, place);
    }
}

void WaitingRequestsQueue::popRequest()
{
    if (empty())
    {
        CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_POP_OF_EMPTY), "!empty()")
            << "trying to remove request from an empty waiting list" << std::endl;
        return;
    }
    Request* const request = front().request;
    m_items.pop_front();
    remove(request, SourcePlace::numbered(NUMBER_POPPED));
}

std::uint64_t WaitingRequestsQueue::iterateRequests(const ISequentialItemHandler& visitor)
{
    std::uint64_t firstKey = 0;
    bool isFirst = true;
    for (auto item = m_items.begin(); item != m_items.end(); isFirst = false)
    {
        PostIterationFlags flags;
        visitor.visit(flags, item->request);
        if (!flags.test(CONTINUE_ITERATION))
        {
            if (flags.any())
            {
                CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_WRONG_REQUEST_FLAGS),
                             "postIterationFlags.count() == 0")
                    << "wrong postIterationFlags info"
                    << " postIterationFlags=" << flags << " " << std::endl;
            }
            break;
        }
        if (!flags.test(NextIterationData::COMPLETED_REQUEST))
        {
            ++item;
            continue;
        }
        if (isFirst)
        {
            firstKey = item->key;
        }
        Request* const request = item->request;
        item = m_items.erase(item);
        remove(request, SourcePlace::numbered(NUMBER_COMPLETED));
    }
    return firstKey;
}
