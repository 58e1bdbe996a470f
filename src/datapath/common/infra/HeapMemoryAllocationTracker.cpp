#include "datapath/common/infra/HeapMemoryAllocationTracker.h"

#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/GuardedMemory.h"

#include <utility>

namespace
{

constexpr std::uint32_t NUMBER_RELEASED = 30;
constexpr std::uint32_t NUMBER_TOO_MUCH_FREED = 39;
constexpr std::uint32_t NUMBER_ALLOCATED = 47;

} // namespace

HeapMemoryAllocationTracker::HeapMemoryAllocationTracker(std::uint32_t maxBytes, std::uint32_t resumeBytes,
                                                         const DynamicTweak<bool>& trackingDisabled, std::string name)
    : m_maxBytes(maxBytes), m_resumeBytes(resumeBytes), m_trackingDisabled(trackingDisabled), m_name(std::move(name))
{
}

HeapMemoryAllocationTracker::Answer HeapMemoryAllocationTracker::reserve(std::uint32_t length)
{
    static_assert(platform::Atomic<Usage>::is_always_lock_free);
    Usage before = m_usage;
    Usage after;
    do
    {
        if (before.isPaused != 0)
        {
            return Answer::Refused;
        }
        const bool isExceeded = before.bytes + length > m_maxBytes;
        after = isExceeded ? Usage{before.bytes, 1} : Usage{before.bytes + length, 0};
    } while (!m_usage.compare_exchange_weak(before, after));
    return after.isPaused != 0 ? Answer::BeganPause : Answer::Granted;
}

void HeapMemoryAllocationTracker::reserveIgnoringLimit(std::uint32_t length)
{
    Usage before = m_usage;
    while (!m_usage.compare_exchange_weak(before, {before.bytes + length, before.isPaused}))
    {
    }
}

void HeapMemoryAllocationTracker::free(std::uint32_t length)
{
    Usage before = m_usage;
    Usage after;
    do
    {
        after.bytes = before.bytes - length;
        after.isPaused = after.bytes <= m_resumeBytes ? 0 : before.isPaused;
    } while (!m_usage.compare_exchange_weak(before, after));
    if (before.bytes < length)
    {
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_TOO_MUCH_FREED),
                     "usedBytesBeforeFree >= (u32)lengthBytes")
            << "<" << m_name << "> "
            << "trying to free more than allocated"
            << " usedBytesBeforeFree=" << before.bytes << " "
            << " lengthBytes=" << length << " " << std::endl;
    }
}

HeapMemoryAllocationTracker::Allocation HeapMemoryAllocationTracker::allocate(std::uint32_t length)
{
    const Answer answer = reserve(length);
    return {answer == Answer::Granted ? newBuffer(length) : nullptr, answer};
}

char* HeapMemoryAllocationTracker::allocateIgnoringLimit(std::uint32_t length)
{
    reserveIgnoringLimit(length);
    return newBuffer(length);
}

/// A buffer for bytes that are reserved already. Frees them if it throws.
char* HeapMemoryAllocationTracker::newBuffer(std::uint32_t length)
{
    if (length == 0)
    {
        return nullptr;
    }
    try
    {
        return GuardedMemory::createArray<char>({"s8", SourcePlace::numbered(NUMBER_ALLOCATED)}, length);
    }
    catch (const std::bad_alloc&)
    {
        free(length);
        throw;
    }
}

void HeapMemoryAllocationTracker::free(const char* buffer, std::uint32_t length)
{
    GuardedMemory::destroyArray(buffer, SourcePlace::numbered(NUMBER_RELEASED));
    free(length);
}
