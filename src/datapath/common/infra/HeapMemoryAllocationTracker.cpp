#include "datapath/common/infra/HeapMemoryAllocationTracker.h"

#include "datapath/common/infra/MemShield.h"

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

char* HeapMemoryAllocationTracker::allocate(std::uint32_t length, bool& justPaused)
{
    {
        const MutexGuard guard(m_mutex);
        justPaused = !m_paused && m_usedBytes + length > m_maxBytes;
        m_paused = m_paused || justPaused;
        if (m_paused)
        {
            return nullptr;
        }
        m_usedBytes += length;
    }
    return newBuffer(length);
}

char* HeapMemoryAllocationTracker::allocateIgnoringLimit(std::uint32_t length)
{
    {
        const MutexGuard guard(m_mutex);
        m_usedBytes += length;
    }
    return newBuffer(length);
}

char* HeapMemoryAllocationTracker::newBuffer(std::uint32_t length)
{
    return length == 0 ? nullptr
                       : MemShield::createArray<char>({"s8", SourcePlace::numbered(NUMBER_ALLOCATED)}, length);
}

void HeapMemoryAllocationTracker::free(char* buffer, std::uint32_t length)
{
    MemShield::destroyArray(buffer, SourcePlace::numbered(NUMBER_RELEASED));
    std::uint32_t usedBytesBeforeFree = 0;
    {
        const MutexGuard guard(m_mutex);
        usedBytesBeforeFree = m_usedBytes;
        m_usedBytes -= length;
        m_paused = m_paused && m_usedBytes > m_resumeBytes;
    }
    if (usedBytesBeforeFree < length)
    {
        CheckFailure(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(NUMBER_TOO_MUCH_FREED),
                     "usedBytesBeforeFree >= (u32)lengthBytes")
            << "<" << m_name << "> "
            << "trying to free more than allocated"
            << " usedBytesBeforeFree=" << usedBytesBeforeFree << " "
            << " lengthBytes=" << length << " " << std::endl;
    }
}
