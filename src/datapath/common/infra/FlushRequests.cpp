#include "datapath/common/infra/FlushRequests.h"

#include <algorithm>

void FlushRequests::add(Semaphore* waiter)
{
    ++m_asked;
    if (waiter == nullptr)
    {
        return;
    }
    if (m_unclaimed != 0)
    {
        --m_unclaimed;
        waiter->signal();
        return;
    }
    m_waiters.push_back({m_asked, waiter});
}

void FlushRequests::finish(std::uint64_t count)
{
    m_done += count;
    for (; !m_waiters.empty() && m_waiters.front().request <= m_done; m_waiters.pop_front())
    {
        if (Semaphore* const flushDone = m_waiters.front().flushDone)
        {
            flushDone->signal();
        }
        else
        {
            ++m_unclaimed;
        }
    }
}

bool FlushRequests::giveUp(const Semaphore& waiter)
{
    const auto own = std::ranges::find(m_waiters, &waiter, &Waiter::flushDone);
    if (own == m_waiters.end())
    {
        return false;
    }
    own->flushDone = nullptr;
    return true;
}
