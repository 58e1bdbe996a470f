#include "datapath/common/infra/MemShield.h"

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/Semaphore.h"
#include "datapath/common/infra/Tweaks.h"
#include "platform/Process.h"
#include "platform/Threads.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <limits>
#include <sstream>

namespace
{

constexpr std::uint32_t NUMBER_SIZE_IS_ZERO = 119;
constexpr std::uint32_t NUMBER_ALLOCATION_TOO_LONG = 125;
constexpr std::uint32_t NUMBER_SIZE_TOO_LARGE = 140;
constexpr std::uint32_t NUMBER_ARRAY_TOO_LONG = 141;
constexpr std::uint32_t NUMBER_TOO_MANY_ITEMS = 173;
constexpr std::uint32_t NUMBER_NOT_AN_OBJECT = 191;
constexpr std::uint32_t NUMBER_NOT_AN_ARRAY = 204;
constexpr std::uint32_t NUMBER_MISUSE = 342;

constexpr std::uint32_t U32_MAX = std::numeric_limits<std::uint32_t>::max();
constexpr unsigned char FILLING = 0xFF; // fills margins, and fresh and released memory

// The functions whose names the fail functions log.
constexpr MethodText COUNTED_OBJECT_RELEASE = MethodText::of("MemShield::freeAndCount");
constexpr MethodText COUNTED_ALLOCATION = MethodText::of("MemShield::internalAllocAndCountOnlyArray");
constexpr MethodText GUARDED_ALLOCATION = MethodText::of("MemShield::internalAllocAndRegister");
constexpr MethodText COUNTED_ARRAY_RELEASE = MethodText::of("MemShield::freeAndCountArray");

bool isFilled(const std::byte* bytes, std::uint32_t length)
{
    return std::all_of(bytes, bytes + length, [](std::byte byte) { return byte == std::byte{FILLING}; });
}

/// Whether the calling thread ends the process without a report, because another thread is writing one.
constinit thread_local bool skipsReport = false;

std::uint64_t nowMs() { return static_cast<std::uint64_t>(Clock::lastTimestampMs()); }

} // namespace

MemShield::MemShield()
    : m_preMargin(static_cast<std::uint32_t>(Tweaks::instance().value(MEMSHIELD_PRE_MARGIN_SIZE))),
      m_postMargin(static_cast<std::uint32_t>(Tweaks::instance().value(MEMSHIELD_POST_MARGIN_SIZE))),
      m_padding((HEAP_ALIGNMENT - m_preMargin % HEAP_ALIGNMENT) % HEAP_ALIGNMENT),
      m_historyLength(static_cast<std::uint32_t>(Tweaks::instance().value(ALLOCATION_HISTORY_LENGTH_MS)))
{
    MEM_SHIELD_HOOKS.onCreation();
}

void MemShield::failTooManyItems()
{
    failAssertion(LoggerId::NON, COUNTED_ALLOCATION, SourcePlace::numbered(NUMBER_TOO_MANY_ITEMS),
                  "numItems < std::numeric_limits<u32>::max()");
}

void MemShield::failNotAnObject()
{
    failAssertion(LoggerId::NON, COUNTED_OBJECT_RELEASE, SourcePlace::numbered(NUMBER_NOT_AN_OBJECT),
                  "*(--sanityPtr) == std::numeric_limits<u32>::max()");
}

void MemShield::failNotAnArray()
{
    failAssertion(LoggerId::NON, COUNTED_ARRAY_RELEASE, SourcePlace::numbered(NUMBER_NOT_AN_ARRAY),
                  "*(--sanityPtr) < std::numeric_limits<u32>::max()");
}

std::uint64_t MemShield::guardedLength(std::uint32_t preMargin, std::uint64_t size, std::uint32_t postMargin)
{
    const std::uint64_t length = preMargin + size + postMargin;
    if (length >= MAX_SINGLE_ALLOCATION_LENGTH)
    {
        failAssertion(LoggerId::NON, GUARDED_ALLOCATION, SourcePlace::numbered(NUMBER_ALLOCATION_TOO_LONG),
                      "allocationLength < MAX_SINGLE_ALLOCATION_LENGTH");
    }
    return length;
}

void* MemShield::internalAllocAndRegister(std::uint64_t size, std::uint64_t arrayLength, const AllocationSite& site)
{
    if (size == 0)
    {
        failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_SIZE_IS_ZERO), "size > 0");
    }
    const std::uint64_t allocationLength = guardedLength(m_preMargin, size, m_postMargin);
    std::byte* const block = static_cast<std::byte*>(::operator new(m_padding + allocationLength)) + m_padding;
    std::memset(block, FILLING, allocationLength);
    std::byte* const memory = block + m_preMargin;
    const AllocInfo info{.m_size = static_cast<std::uint32_t>(size),
                         .m_arrayLength = static_cast<std::uint32_t>(arrayLength),
                         .m_class = site.type,
                         .m_file = site.place.path,
                         .m_line = site.place.number,
                         .m_allocTime = nowMs()};
    if (size >= U32_MAX)
    {
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_SIZE_TOO_LARGE), "size < (u32)-1")
            << " size=" << size << " " << std::endl;
    }
    if (arrayLength >= U32_MAX)
    {
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_ARRAY_TOO_LONG), "arrayLength < (u32)-1")
            << " arrayLength=" << arrayLength << " " << std::endl;
    }
    SystemHeapBytes::take(allocationLength);
    const MutexGuard guard(m_mutex);
    m_live.change([&](auto& live) { live.emplace(memory, info); });
    return memory;
}

bool MemShield::isLive(const void* memory)
{
    const MutexGuard guard(m_mutex);
    return m_live->contains(static_cast<std::byte*>(const_cast<void*>(memory)));
}

void MemShield::verifyPtr(const void* memory, const SourcePlace& place)
{
    if (isLive(memory))
    {
        return;
    }
    beginReport();
    LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD) << "trying to access (verifyPtr) un-allocated memory"
                                                          << " file=" << place.path << " "
                                                          << " line=" << place.number << " "
                                                          << " mem=" << addressText(memory) << " " << std::endl;
    memshieldError({});
}

void MemShield::freeAndUnregister(void* memory, const SourcePlace& place)
{
    auto* const bytes = static_cast<std::byte*>(memory);
    const Release release = unregister(bytes);
    if (!release.info)
    {
        beginReport();
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD) << "trying to free un-allocated memory"
                                                              << " file=" << place.path << " "
                                                              << " line=" << place.number << " " << std::endl;
        memshieldError({});
    }
    if (!release.corruption.empty())
    {
        beginReport();
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD)
            << "memory overrun (during free)!" << release.corruption << std::endl;
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD) << "freed at"
                                                              << " file=" << place.path << " "
                                                              << " line=" << place.number << " " << std::endl;
        memshieldError({{bytes, *release.info}});
    }
    if (!release.isKept)
    {
        SystemHeapBytes::giveBack(std::uint64_t{m_preMargin} + release.info->m_size + m_postMargin);
        ::operator delete(bytes - m_preMargin - m_padding);
    }
}

MemShield::Release MemShield::unregister(std::byte* memory)
{
    const std::uint64_t freeTime = nowMs();
    const MutexGuard guard(m_mutex);
    const auto found = m_live->find(memory);
    if (found == m_live->end())
    {
        return {};
    }
    Release release = {.info = found->second, .corruption = corruptionOf(memory, found->second)};
    if (!release.corruption.empty())
    {
        return release;
    }
    std::memset(memory, FILLING, release.info->m_size);
    release.node = m_live.change([&](auto& live) { return live.extract(found); });
    if (m_historyLength != 0)
    {
        release.node.mapped().m_freeTime = freeTime;
        m_recentlyFreed.change([&](auto& freed) { freed.insert(std::move(release.node)); });
        release.isKept = true;
    }
    return release;
}

std::string MemShield::corruptionOf(const std::byte* memory, const AllocInfo& info) const
{
    const std::byte* const margin = memory + info.m_size;
    if (isFilled(margin, m_postMargin))
    {
        return {};
    }
    std::ostringstream text;
    text << "memory corruption (post) : " << addressText(memory) << " " << info.m_file << " " << info.m_line << "! [";
    for (std::uint32_t i = 0; i < m_postMargin; ++i)
    {
        if (margin[i] != std::byte{FILLING})
        {
            text << i << "->" << std::to_integer<int>(margin[i]) << ",";
        }
    }
    text << "] it->second.m_allocTime=" << info.m_allocTime << " "
         << " it->second.m_freeTime=" << info.m_freeTime << " "
         << " it->second.m_class=" << info.m_class << " ";
    return text.str();
}

/// Called by a thread that has found misuse:
///     the first such thread                   returns, and reports
///     that thread again, in its report        ends the process here
///     another one that waits for reports      stops here forever; the first one ends the process
///     another one that never waits            returns, and ends the process without a report
void MemShield::beginReport()
{
    static constinit platform::Atomic<std::uint32_t> reportingThread = 0;
    const std::uint32_t thisThread = platform::currentThreadId();
    std::uint32_t first = 0;
    if (reportingThread.compare_exchange_strong(first, thisThread))
    {
        // This thread may hold the lock of the tweaks, and the report may wait for a thread that waits for that lock.
        Tweaks::instance().unlockForGood();
        return;
    }
    if (first == thisThread)
    {
        // A log client has misused memory while it took a line of the report: reporting that would not come to an end.
        std::cout << "Assertion (false) failed " << __builtin_FILE() << " " << NUMBER_MISUSE
                  << ", misuse of memory while one is reported" << std::endl;
        platform::endProcess();
    }
    if (s_waitsForReport)
    {
        Tweaks::instance().unlockForGood();
        MEM_SHIELD_HOOKS.endReportsForGood();
        Semaphore never(0);
        never.wait();
    }
    skipsReport = true;
}

void MemShield::memshieldError(const std::vector<Record>& culprits)
{
    if (!skipsReport)
    {
        MEM_SHIELD_HOOKS.printMisuse(culprits);
    }
    failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_MISUSE), "false");
}

std::string MemShield::addressText(const void* memory)
{
    std::ostringstream text;
    text << std::hex << reinterpret_cast<std::uintptr_t>(memory);
    return text.str();
}

void MemShield::visitLive(const Visitor& visitor)
{
    const MutexGuard guard(m_mutex);
    for (const auto& [memory, info] : *m_live)
    {
        visitor(memory, info);
    }
}

void MemShield::visitRecentlyFreed(const Visitor& visitor)
{
    const MutexGuard guard(m_mutex);
    for (const auto& [memory, info] : *m_recentlyFreed)
    {
        visitor(memory, info);
    }
}

bool MemShield::checkInvariants()
{
    const MutexGuard guard(m_mutex);
    return std::ranges::all_of(*m_live, [&](const Map::value_type& record) {
        const auto& [memory, info] = record;
        return info.m_size != 0 && info.m_freeTime == 0 && isFilled(memory - m_preMargin, m_preMargin) &&
               isFilled(memory + info.m_size, m_postMargin);
    });
}
