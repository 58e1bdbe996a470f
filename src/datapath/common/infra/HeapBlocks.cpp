#include "datapath/common/infra/HeapBlocks.h"

#include "platform/Spin.h"

#include <utility>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TAVRO_HAS_SANITIZER 1
#elif defined(__has_feature) // clang's way to tell
#define TAVRO_HAS_SANITIZER (__has_feature(address_sanitizer) || __has_feature(thread_sanitizer))
#else
#define TAVRO_HAS_SANITIZER 0
#endif

namespace
{

constexpr bool HAS_SANITIZER = TAVRO_HAS_SANITIZER;

} // namespace

namespace HeapBlocks
{

const bool areRecycled = !HAS_SANITIZER && !platform::RUNS_ONE_THREAD_AT_A_TIME;

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
