#include "datapath/common/infra/MemoryReport.h"

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/MemShieldAO.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/MemoryHeap.h"
#include "datapath/common/infra/MemoryPool.h"
#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/windows/MemWatcher.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <vector>

namespace
{

constexpr SourcePlace PLACE_TOO_MANY_ALLOCATIONS = SourcePlace::numbered(516, "datapath/common/infra/MemShield.cpp");

constexpr MethodText PRINT_ALLOCATIONS = MethodText::of("MemShield::printAllocations");
constexpr MethodText PRINT_RECENTLY_FREED = MethodText::of("MemShield::printRecentlyFreed");
constexpr MethodText DUMP = MethodText::of("MemShield::memShieldDumpLocked");

using Records = std::vector<MemShield::Record>;
using Visit = void (MemShield::*)(const MemShield::Visitor& visitor);

Records sortedRecords(Visit visit)
{
    Records records;
    (MemShield::instance().*visit)([&](const std::byte* memory, const MemShield::AllocInfo& info) {
        records.push_back({memory, info});
    });
    std::ranges::sort(records, std::less(), &MemShield::Record::memory);
    return records;
}

void dump(const Records& records)
{
    for (const auto& [memory, info] : records)
    {
        LogItem(LoggerId::NON, LogLevel::Info, DUMP)
            << "dumpalloc: " << MemShield::addressText(memory) << " : "
            << " it->second.m_class=" << info.m_class << " "
            << " it->second.m_file=" << info.m_file << " "
            << " it->second.m_line=" << info.m_line << " "
            << " it->second.m_size=" << info.m_size << " "
            << " it->second.m_arrayLength=" << info.m_arrayLength << " " << std::endl;
    }
}

void startWorker() { MemShieldAO::instance().open(); }

void printMisuse(const Records& culprits)
{
    MemoryReport::printAllocations();
    MemoryReport::printRecentlyFreed();
    dump(culprits); // no other line tells the size of such a block
}

void endReportsForGood()
{
    MemWatcher::instance().endReportForGood();
    MemoryPoolImpl::endReportsForGood();
}

} // namespace

constinit const MemShield::Hooks MEM_SHIELD_HOOKS{
    .onCreation = startWorker, .printMisuse = printMisuse, .endReportsForGood = endReportsForGood};

void MemoryReport::printAllocations()
{
    struct Group
    {
        std::uint64_t count = 0;
        std::uint64_t bytes = 0;
    };
    MemShield& memShield = MemShield::instance(); // made before the report begins: it reads tweaks and starts a thread
    const bool isVerbose = Tweaks::instance().value(MEM_SHIELD_VERBOSE) != 0;
    const std::int64_t limit = Tweaks::instance().value(MEM_SHIELD_MAX_ALLOCATION_IN_CODE_LINE);
    LogItem(LoggerId::NON, LogLevel::Info, PRINT_ALLOCATIONS)
        << "Allocated from system heap: " << MemShield::systemHeapBytes() << std::endl;

    std::map<std::pair<const char*, std::uint32_t>, Group> groups;
    std::uint64_t total = 0;
    memShield.visitLive([&](const std::byte* /*memory*/, const MemShield::AllocInfo& info) {
        Group& group = groups[{info.m_file, info.m_line}];
        ++group.count;
        group.bytes += info.m_size;
        total += info.m_size;
    });
    LogItem(LoggerId::NON, LogLevel::Info, PRINT_ALLOCATIONS) << "Total memory allocation: " << total << std::endl;
    std::uint64_t largestCount = 0;
    for (const auto& [place, group] : groups)
    {
        largestCount = std::max(largestCount, group.count);
        if (isVerbose)
        {
            LogItem(LoggerId::NON, LogLevel::Info, PRINT_ALLOCATIONS)
                << "allocation " << place.first << " " << place.second << " -> " << group.count << " allocations "
                << group.bytes << " bytes" << std::endl;
        }
    }
    if (!groups.empty() && static_cast<std::int64_t>(largestCount) >= limit)
    {
        CheckFailure(LoggerId::NON, PRINT_ALLOCATIONS, PLACE_TOO_MANY_ALLOCATIONS, "false")
            << "Too many allocations from as single log line. "
            << " maxAllocationInCodeLine=" << limit << " "
            << " maxAllocationsFound=" << largestCount << " " << std::endl;
    }
    MemWatchedContainerDatabase::instance().printWatchedContainers();
    MemoryPoolImpl::instance().printMemoryUsage();
    MemoryHeap::instance().printMemoryUsage();
    MemWatcher::printMem();
    MemWatcher::instance().printCpu();
}

void MemoryReport::printRecentlyFreed()
{
    static_cast<void>(MemShield::instance()); // made before the report begins
    LogItem(LoggerId::NON, LogLevel::Info, PRINT_RECENTLY_FREED)
        << " Timer::instance()->getLastTimestampMs_Inaccurate(true)=" << Clock::lastTimestampMs() << " " << std::endl;
    for (const auto& [memory, info] : sortedRecords(&MemShield::visitRecentlyFreed))
    {
        LogItem(LoggerId::NON, LogLevel::Info, PRINT_RECENTLY_FREED)
            << "Freed item mem =" << MemShield::addressText(memory) << " info="
            << " info.m_size=" << info.m_size << " "
            << " info.m_file=" << info.m_file << " "
            << " info.m_line=" << info.m_line << " "
            << " it->second.m_freeTime=" << info.m_freeTime << " "
            << " it->second.m_allocTime=" << info.m_allocTime << " "
            << " it->second.m_class=" << info.m_class << " " << std::endl;
    }
}

void MemoryReport::memShieldDumpLocked() { dump(sortedRecords(&MemShield::visitLive)); }
