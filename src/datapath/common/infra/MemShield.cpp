#include "datapath/common/infra/MemShield.h"

#include "datapath/common/infra/MemShieldAO.h"
#include "datapath/common/infra/MemoryPool.h"
#include "datapath/common/infra/MemoryReport.h"
#include "datapath/common/infra/Semaphore.h"
#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/windows/MemWatcher.h"
#include "platform/Process.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <limits>
#include <map>
#include <optional>
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
constexpr std::uint32_t NUMBER_TOO_MANY_ALLOCATIONS = 516;

constexpr std::uint32_t U32_MAX = std::numeric_limits<std::uint32_t>::max();
constexpr unsigned char FILLING = 0xFF; // of margins, and of fresh and released memory

// Functions whose lines are logged by others.
constexpr MethodText COUNTED_OBJECT_RELEASE{"MemShield::freeAndCount", "MemShield,freeAndCount"};
constexpr MethodText DUMP{"MemShield::memShieldDumpLocked", "MemShield,memShieldDumpLocked"};
constexpr MethodText COUNTED_ARRAY_RELEASE{"MemShield::freeAndCountArray", "MemShield,freeAndCountArray"};

/// As messages show addresses: hexadecimal without a prefix.
std::string addressText(const void* memory)
{
    std::ostringstream text;
    text << std::hex << reinterpret_cast<std::uintptr_t>(memory);
    return text.str();
}

bool isFilled(const std::byte* bytes, std::uint32_t length)
{
    return std::all_of(bytes, bytes + length, [](std::byte byte) { return byte == std::byte{FILLING}; });
}

/// Of a thread that misuses memory during the report of another one and must not wait for that.
constinit thread_local bool isReportLeftOut = false;

std::uint64_t nowMs() { return static_cast<std::uint64_t>(Timer::instance().getLastTimestampMs_Inaccurate(true)); }

} // namespace

MemShield::MemShield()
    : m_preMargin(static_cast<std::uint32_t>(Tweaks::instance().intVal("t_memshield_pre_margin_size", 16))),
      m_postMargin(static_cast<std::uint32_t>(Tweaks::instance().intVal("t_memshield_post_margin_size", 64))),
      m_padding((HEAP_ALIGNMENT - m_preMargin % HEAP_ALIGNMENT) % HEAP_ALIGNMENT),
      m_historyLength(static_cast<std::uint32_t>(Tweaks::instance().intVal("t_allocationHistoryLengthMs", 0)))
{
    MemShieldAO::instance().open();
}

void* MemShield::internalAllocAndCountOnlyArray(std::uint64_t size, std::uint64_t numItems, const AllocationSite& site)
{
    if (isEnabled())
    {
        return instance().internalAllocAndRegister(size, numItems, site);
    }
    if (numItems >= U32_MAX)
    {
        failAssertion(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(NUMBER_TOO_MANY_ITEMS),
                      "numItems < std::numeric_limits<u32>::max()");
    }
    return allocateCounted(size, numItems == 0 ? OBJECT_SANITY_WORD : static_cast<std::uint32_t>(numItems));
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

void* MemShield::internalAllocAndRegister(std::uint64_t size, std::uint64_t arrayLength, const AllocationSite& site)
{
    if (size == 0)
    {
        failAssertion(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(NUMBER_SIZE_IS_ZERO), "size > 0");
    }
    const std::uint64_t allocationLength = m_preMargin + size + m_postMargin;
    if (allocationLength >= MAX_SINGLE_ALLOCATION_LENGTH)
    {
        failAssertion(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(NUMBER_ALLOCATION_TOO_LONG),
                      "allocationLength < MAX_SINGLE_ALLOCATION_LENGTH");
    }
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
        CheckFailure(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(NUMBER_SIZE_TOO_LARGE), "size < (u32)-1")
            << " size=" << size << " " << std::endl;
    }
    if (arrayLength >= U32_MAX)
    {
        CheckFailure(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(NUMBER_ARRAY_TOO_LONG), "arrayLength < (u32)-1")
            << " arrayLength=" << arrayLength << " " << std::endl;
    }
    SystemHeapBytes::take(allocationLength);
    const MutexGuard guard(m_mutex);
    m_live.emplace(memory, info);
    return memory;
}

bool MemShield::isLive(const void* memory)
{
    const MutexGuard guard(m_mutex);
    return m_live.contains(static_cast<std::byte*>(const_cast<void*>(memory)));
}

void MemShield::verifyPtr(const void* memory, const SourcePlace& place)
{
    if (isLive(memory))
    {
        return;
    }
    beginReport();
    LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD) << "trying to access (verifyPtr) un-allocated memory"
                                                         << " file=" << place.path << " "
                                                         << " line=" << place.number << " "
                                                         << " mem=" << addressText(memory) << " " << std::endl;
    memshieldError({});
}

void MemShield::freeAndUnregister(void* memory, const SourcePlace& place)
{
    auto* const bytes = static_cast<std::byte*>(memory);
    const std::uint64_t freeTime = nowMs();
    std::optional<AllocInfo> info;
    std::string corruption;
    decltype(m_live.extract(bytes)) released;
    {
        const MutexGuard guard(m_mutex);
        if (const auto found = m_live.find(bytes); found != m_live.end())
        {
            info = found->second;
            corruption = corruptionOf(bytes, *info);
            if (corruption.empty())
            {
                std::memset(bytes, FILLING, info->m_size);
                released = m_live.extract(found);
            }
        }
        if (!released.empty() && m_historyLength != 0)
        {
            released.mapped().m_freeTime = freeTime;
            m_recentlyFreed.insert(std::move(released));
            return;
        }
    }
    if (released.empty())
    {
        beginReport();
    }
    if (!info)
    {
        LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD) << "trying to free un-allocated memory"
                                                             << " file=" << place.path << " "
                                                             << " line=" << place.number << " " << std::endl;
        memshieldError({});
    }
    if (!corruption.empty())
    {
        LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD)
            << "memory overrun (during free)!" << corruption << std::endl;
        LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD) << "freed at"
                                                             << " file=" << place.path << " "
                                                             << " line=" << place.number << " " << std::endl;
        memshieldError({{bytes, *info}});
    }
    SystemHeapBytes::giveBack(std::uint64_t{m_preMargin} + info->m_size + m_postMargin);
    ::operator delete(bytes - m_preMargin - m_padding);
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

void MemShield::beginReport()
{
    static constinit platform::Atomic<std::uint32_t> reportingThread = 0;
    const std::uint32_t thisThread = platform::currentThreadId();
    std::uint32_t first = 0;
    if (reportingThread.compare_exchange_strong(first, thisThread))
    {
        Tweaks::instance().unlockForGood(); // whoever has what the report waits for may wait for the tweaks
        return;
    }
    if (first == thisThread)
    {
        // A log client that misuses memory itself would be reported through itself without end.
        std::cout << "Assertion (false) failed " << __builtin_FILE() << " " << NUMBER_MISUSE
                  << ", misuse of memory while one is reported" << std::endl;
        platform::endProcess();
    }
    if (s_waitsForReport)
    {
        waitForEnd();
    }
    isReportLeftOut = true;
}

/// The thread never goes on, so it first gives up what it holds and the report takes.
void MemShield::waitForEnd()
{
    Tweaks::instance().unlockForGood();
    MemWatcher::instance().endReportForGood();
    MemoryPoolImpl::endReportsForGood();
    Semaphore never(0);
    never.wait();
}

void MemShield::memshieldError(const std::vector<Record>& culprits)
{
    if (!isReportLeftOut)
    {
        printAllocations();
        printRecentlyFreed();
        dump(culprits); // what no other line tells of the block: how large it is
    }
    failAssertion(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(NUMBER_MISUSE), "false");
}

void MemShield::printAllocations()
{
    struct Group
    {
        std::uint64_t count = 0;
        std::uint64_t bytes = 0;
    };
    const bool isVerbose = Tweaks::instance().intVal("t_MemShieldVerbose", 1) != 0;
    const std::int64_t limit = Tweaks::instance().intVal("t_MemShieldMaxAllocationInCodeLine", 700'000);
    LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
        << "Allocated from system heap: " << systemHeapBytes() << std::endl;

    std::map<std::pair<const char*, std::uint32_t>, Group> groups;
    std::uint64_t total = 0;
    {
        const MutexGuard guard(m_mutex);
        for (const auto& [memory, info] : m_live)
        {
            Group& group = groups[{info.m_file, info.m_line}];
            ++group.count;
            group.bytes += info.m_size;
            total += info.m_size;
        }
    }
    LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD) << "Total memory allocation: " << total << std::endl;
    std::uint64_t largestCount = 0;
    for (const auto& [place, group] : groups)
    {
        largestCount = std::max(largestCount, group.count);
        if (isVerbose)
        {
            LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
                << "allocation " << place.first << " " << place.second << " -> " << group.count << " allocations "
                << group.bytes << " bytes" << std::endl;
        }
    }
    if (!groups.empty() && static_cast<std::int64_t>(largestCount) >= limit)
    {
        CheckFailure(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(NUMBER_TOO_MANY_ALLOCATIONS), "false")
            << "Too many allocations from as single log line. "
            << " maxAllocationInCodeLine=" << limit << " "
            << " maxAllocationsFound=" << largestCount << " " << std::endl;
    }
    MemoryReport::printOthers();
}

void MemShield::sortByAddress(std::vector<Record>& records) { std::ranges::sort(records, std::less(), &Record::first); }

void MemShield::printRecentlyFreed()
{
    LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
        << " Timer::instance()->getLastTimestampMs_Inaccurate(true)=" << nowMs() << " " << std::endl;
    std::vector<Record> records;
    {
        const MutexGuard guard(m_mutex);
        records = copyOf(m_recentlyFreed);
    }
    sortByAddress(records);
    for (const auto& [memory, info] : records)
    {
        LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
            << "Freed item mem =" << addressText(memory) << " info="
            << " info.m_size=" << info.m_size << " "
            << " info.m_file=" << info.m_file << " "
            << " info.m_line=" << info.m_line << " "
            << " it->second.m_freeTime=" << info.m_freeTime << " "
            << " it->second.m_allocTime=" << info.m_allocTime << " "
            << " it->second.m_class=" << info.m_class << " " << std::endl;
    }
}

void MemShield::memShieldDumpLocked()
{
    std::vector<Record> records;
    {
        const MutexGuard guard(m_mutex);
        records = copyOf(m_live);
    }
    sortByAddress(records);
    dump(records);
}

void MemShield::dump(const std::vector<Record>& records)
{
    for (const auto& [memory, info] : records)
    {
        LogItem(LoggerId::NON, LogLevel::Info, DUMP)
            << "dumpalloc: " << addressText(memory) << " : "
            << " it->second.m_class=" << info.m_class << " "
            << " it->second.m_file=" << info.m_file << " "
            << " it->second.m_line=" << info.m_line << " "
            << " it->second.m_size=" << info.m_size << " "
            << " it->second.m_arrayLength=" << info.m_arrayLength << " " << std::endl;
    }
}

bool MemShield::checkInvariants()
{
    const MutexGuard guard(m_mutex);
    return std::ranges::all_of(m_live, [&](const Records::value_type& record) {
        const auto& [memory, info] = record;
        return info.m_size != 0 && info.m_freeTime == 0 && isFilled(memory - m_preMargin, m_preMargin) &&
               isFilled(memory + info.m_size, m_postMargin);
    });
}
