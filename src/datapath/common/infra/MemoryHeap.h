#pragma once

// The process-wide account of memory segments that modules take from the ordinary heap instead of from a pool. Each
// segment counts as one chunk of 4096 bytes gross, whatever its size, and as its own size net.
//
//     HeapModuleMemoryInformation* const module = MemoryHeap::instance().registerModule("Index", nullptr);
//     MemorySegment segment = MemoryHeap::instance().takeSegment(*module, 100);
//     MemoryHeap::instance().freeSegment(segment);
//
// Made on first use and never destroyed, as are the modules. Any thread may call. Memory comes from MemShield and is
// released without the heap's lock, because the report of misuse that a release finds takes that lock.

#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/MemoryAllocatorInterface.h"
#include "datapath/common/infra/ModuleMemoryInformation.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/base/Singleton.h"

#include <map>
#include <string>

class MemoryHeap final : public Singleton<MemoryHeap, MemoryHeap>, public MemoryAllocatorInterface
{
public:
    /// Returns null, with an Error line, if the name is taken. What a module uses counts for all its ancestors, too.
    HeapModuleMemoryInformation* registerModule(const std::string& name, HeapModuleMemoryInformation* parent)
        TAVRO_EXCLUDES(m_mutex);

    /// A segment of that many bytes, which are not initialized. For 0 bytes, logs an Error line and returns a segment
    /// without buffer and owner. Throws std::bad_alloc, with nothing counted.
    [[nodiscard]] MemorySegment takeSegment(HeapModuleMemoryInformation& module, std::uint64_t bytes)
        TAVRO_EXCLUDES(m_mutex);

    void freeSegments(std::list<MemorySegment>& segments, std::int32_t fromIndex) override TAVRO_EXCLUDES(m_mutex);
    void freeSegment(MemorySegment& segment) override TAVRO_EXCLUDES(m_mutex);
    void addUsedMemoryNet(std::int32_t bytes) override TAVRO_EXCLUDES(m_mutex);
    [[nodiscard]] std::uint32_t getChunkSize() const override { return CHUNK_SIZE; }

    /// Logs both totals and what each module uses.
    void printMemoryUsage() TAVRO_EXCLUDES(m_mutex);

private:
    friend Singleton;

    static constexpr std::uint32_t CHUNK_SIZE = 4096;

    MemoryHeap() = default;
    void countFreed(MemorySegment& segment) TAVRO_EXCLUDES(m_mutex);

    Mutex m_mutex; // guards the members below and the modules' figures; nothing is taken inside it
    StlMemShiledContainer<std::map<std::string, HeapModuleMemoryInformation*>> m_modules TAVRO_GUARDED_BY(m_mutex){
        "mmis"};
    std::uint64_t m_usedMemoryGross TAVRO_GUARDED_BY(m_mutex) = 0; // a chunk for each segment
    std::uint64_t m_usedMemoryNet TAVRO_GUARDED_BY(m_mutex) = 0;   // what was asked for
};
