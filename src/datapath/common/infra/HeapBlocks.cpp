#include "datapath/common/infra/HeapBlocks.h"

#include <utility>

namespace HeapBlocks
{

constinit Depots depots{};

bool Depot::give(Magazine& magazine) noexcept
{
    const MutexGuard guard(m_mutex);
    const std::size_t numMagazines = m_numMagazines.load(std::memory_order_relaxed);
    if (numMagazines == m_magazines.size())
    {
        return false;
    }
    m_magazines[numMagazines] = magazine;
    magazine = {};
    m_numMagazines.store(numMagazines + 1, std::memory_order_relaxed);
    return true;
}

bool Depot::fill(Magazine& magazine) noexcept
{
    if (m_numMagazines.load(std::memory_order_relaxed) == 0)
    {
        return false; // without the lock, because a thread whose blocks nobody releases comes here with each block
    }
    const MutexGuard guard(m_mutex);
    const std::size_t numMagazines = m_numMagazines.load(std::memory_order_relaxed);
    if (numMagazines == 0)
    {
        return false;
    }
    magazine = m_magazines[numMagazines - 1];
    m_numMagazines.store(numMagazines - 1, std::memory_order_relaxed);
    return true;
}

void ThreadBlocks::makeRoom(Kind& kind, Depot& depot) noexcept
{
    if (kind.supply.isEmpty())
    {
        std::swap(kind.supply, kind.released);
    }
    else if (!depot.give(kind.released))
    {
        kind.released.release();
    }
}

} // namespace HeapBlocks
