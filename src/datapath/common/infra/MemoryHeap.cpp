#include "datapath/common/infra/MemoryHeap.h"

#include "datapath/common/infra/GuardedMemory.h"

#include <vector>

namespace
{

constexpr std::uint32_t NUMBER_HEAP_NO_OWNER = 64;
constexpr std::uint32_t NUMBER_NULL_OWNER = 65;
constexpr std::uint32_t NUMBER_NOT_A_HEAP_MODULE = 66;
constexpr std::uint32_t NUMBER_HEAP_RELEASED = 67;
constexpr std::uint32_t NUMBER_HEAP_GROSS_TOO_SMALL = 69;
constexpr std::uint32_t NUMBER_HEAP_MODULE_TOO_SMALL = 72;
constexpr std::uint32_t NUMBER_HEAP_NET_TOO_SMALL = 75;

constexpr MethodText RELEASE = MethodText::of("MemoryHeap::freeSegmentContentLocked");

void check(bool holds, std::uint32_t number, const char* condition)
{
    if (!holds)
    {
        CheckFailure(LoggerId::NON, RELEASE, SourcePlace::numbered(number), condition) << std::endl;
    }
}

} // namespace

HeapModuleMemoryInformation* MemoryHeap::registerModule(const std::string& name, HeapModuleMemoryInformation* parent)
{
    auto* const module = GuardedMemory::create<HeapModuleMemoryInformation>(
        {"HeapModuleMemoryInformation", SourcePlace::here()}, name, parent);
    bool isAdded = false;
    {
        const MutexGuard guard(m_mutex);
        isAdded = m_modules.change([&](auto& modules) { return modules.try_emplace(name, module).second; });
    }
    if (!isAdded)
    {
        GuardedMemory::destroy(module, SourcePlace::here());
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD)
            << "a module named \"" << name << "\" is registered already" << std::endl;
        return nullptr;
    }
    return module;
}

MemorySegment MemoryHeap::takeSegment(HeapModuleMemoryInformation& module, std::uint64_t bytes)
{
    if (bytes == 0)
    {
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD)
            << "a segment of 0 bytes was asked for by module \"" << module.name() << "\"" << std::endl;
        return {};
    }
    char* const buffer = GuardedMemory::createArray<char>({"s8", SourcePlace::here()}, bytes);
    const MutexGuard guard(m_mutex);
    m_usedMemoryGross += CHUNK_SIZE;
    m_usedMemoryNet += bytes;
    module.addUsedBytes(CHUNK_SIZE);
    return {.sizeBytes = bytes, .buffer = buffer, .owner = &module};
}

void MemoryHeap::freeSegments(std::list<MemorySegment>& segments, std::int32_t fromIndex)
{
    for (auto segment = positionOf(segments, fromIndex); segment != segments.end(); ++segment)
    {
        freeSegment(*segment);
    }
}

void MemoryHeap::freeSegment(MemorySegment& segment)
{
    check(segment.owner != MemorySegment::NoOwner, NUMBER_HEAP_NO_OWNER, "mmi != MemorySegment::NoOwner");
    check(segment.owner != nullptr, NUMBER_NULL_OWNER, "mmi != 0");
    check(segment.owner->isHeapMemory(), NUMBER_NOT_A_HEAP_MODULE, "mmi->isHeapMemory()");
    check(segment.buffer != nullptr, __LINE__, "segment->buffer != 0"); // given back already
    GuardedMemory::destroyArray(segment.buffer, SourcePlace::numbered(NUMBER_HEAP_RELEASED));
    countFreed(segment);
}

void MemoryHeap::countFreed(MemorySegment& segment)
{
    const MutexGuard guard(m_mutex);
    check(m_usedMemoryGross >= CHUNK_SIZE, NUMBER_HEAP_GROSS_TOO_SMALL, "m_usedMemoryGross >= getChunkSize()");
    m_usedMemoryGross -= CHUNK_SIZE;
    check(segment.owner->getCurrentlyUsedBytes() >= CHUNK_SIZE, NUMBER_HEAP_MODULE_TOO_SMALL,
          "mmi->getCurrentlyUsedBytes() >= getChunkSize()");
    segment.owner->subtractUsedBytes(CHUNK_SIZE);
    check(m_usedMemoryNet >= segment.sizeBytes, NUMBER_HEAP_NET_TOO_SMALL,
          "m_usedMemoryNet >= segment->getSizeBytes()");
    m_usedMemoryNet -= segment.sizeBytes;
    segment.buffer = nullptr;
}

void MemoryHeap::addUsedMemoryNet(std::int32_t bytes)
{
    const MutexGuard guard(m_mutex);
    m_usedMemoryNet += static_cast<std::uint64_t>(std::int64_t{bytes});
}

void MemoryHeap::printMemoryUsage()
{
    std::uint64_t gross = 0;
    std::uint64_t net = 0;
    std::vector<std::pair<std::string, std::uint64_t>> modules;
    {
        const MutexGuard guard(m_mutex);
        gross = m_usedMemoryGross;
        net = m_usedMemoryNet;
        for (const auto& [name, module] : *m_modules)
        {
            modules.emplace_back(name, module->getCurrentlyUsedBytes());
        }
    }
    // Logged without the lock: a log client may find misuse of memory, whose report comes here.
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD, LogItem::NO_FRACTION)
        << "Memory HEAP: "
        << " m_usedMemoryGross=" << gross << " "
        << " m_usedMemoryNet=" << net << " " << std::endl;
    for (const auto& [name, used] : modules)
    {
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD, LogItem::NO_FRACTION) << name << ":"
                                                                                   << " used=" << used << std::endl;
    }
}
