#pragma once

// The process-wide allocator of the infrastructure's own objects and arrays. It works in one of two modes for the life
// of the process. The usual mode, counting, takes 8 bytes more for each block and tells objects from arrays. The
// guarded mode, for diagnosis, surrounds each block with margins, registers it with its place of allocation, checks it
// when it is released, and ends the process with a full memory report on any misuse. Code allocates through
// GuardedMemory.h.
//
//     counted    | length u32 | sanity word u32 | memory ... |           the words are little-endian on every target
//     guarded    | padding | pre margin | memory ... | post margin |     margins and fresh memory are filled with 0xFF
//
// Any thread may call, and may release what another thread allocated. Sizes are in bytes. When the system heap has no
// memory, std::bad_alloc is thrown. Texts of types and places are kept as pointers: pass literals.
//
// Lines are never logged under the allocator's lock, so log clients may allocate here, also while they take the lines
// of a report. While a client does so, it must not hold a lock that it takes to log a line. A client that allocates
// must be registered after the first block was allocated.

#include "datapath/common/infra/LogBasics.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/SystemHeapBytes.h"
#include "datapath/common/infra/base/Singleton.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <new>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

/// What is allocated, and where in the source.
struct AllocationSite
{
    const char* type; ///< the class, or the element type of an array ("s8")
    SourcePlace place;
};

class MemShield : public Singleton<MemShield, MemShield>
{
public:
    /// A guarded block, its margins included, is shorter.
    static constexpr std::uint64_t MAX_SINGLE_ALLOCATION_LENGTH = 314'572'800;

    /// What the header of 8 bytes leaves a counted block of the system heap's alignment.
    static constexpr std::size_t BLOCK_ALIGNMENT = 8;

    /// The record of a guarded block. Times are those of Clock::lastTimestampMs, in ms.
    struct AllocInfo
    {
        std::uint32_t m_size = 0;        ///< the bytes that were asked for
        std::uint32_t m_arrayLength = 0; ///< elements; 0 for an object
        const char* m_class = nullptr;
        const char* m_file = nullptr;
        std::uint32_t m_line = 0;
        std::uint64_t m_allocTime = 0;
        std::uint64_t m_freeTime = 0; ///< 0 while the block is live
    };

    /// A guarded block and what is known about it.
    struct Record
    {
        const std::byte* memory;
        AllocInfo info;
    };
    using Visitor = std::function<void(const std::byte* memory, const AllocInfo& info)>;

    /// What the allocator needs from the layers above it.
    struct Hooks
    {
        /// Starts MemShieldAO's worker. Called while the allocator is being made; the worker waits until it is made.
        void (*onCreation)();

        /// Logs the memory report that precedes the end of the process, with a line for each of the culprits.
        void (*printMisuse)(const std::vector<Record>& culprits);

        /// Called by a thread that then stops forever: releases those of its locks that a report takes.
        void (*endReportsForGood)();
    };

    /// Whether blocks are guarded, and not only counted.
    [[nodiscard]] static bool isEnabled() { return s_isEnabled; }

    /// Start-up only, before anything is allocated here.
    static void setEnabled(bool isEnabled) { s_isEnabled = isEnabled; }

    /// For a thread that a report needs, such as one that writes what others log. If the calling thread finds misuse
    /// while another thread reports, it does not wait for the end of the process, but ends it after its own lines.
    static void neverWaitForReport() { s_waitsForReport = false; }

    /// A block of size bytes: for an object if numItems is 0, else for an array of numItems elements.
    [[nodiscard]] static void* allocate(std::uint64_t size, std::uint64_t numItems, const AllocationSite& site)
    {
        return isEnabled() ? instance().internalAllocAndRegister(size, numItems, site)
                           : internalAllocAndCountOnlyArray(size, numItems);
    }

    static void releaseObject(void* memory, const SourcePlace& place)
    {
        verifyObject(memory, place);
        releaseVerified(memory, place);
    }

    static void releaseArray(void* memory, const SourcePlace& place)
    {
        isEnabled() ? instance().freeAndUnregister(memory, place) : freeAndCountArray(memory);
    }

    /// The two halves of releaseObject. Between them the caller may still use the object.
    static void verifyObject(const void* memory, const SourcePlace& place)
    {
        if (isEnabled())
        {
            instance().verifyPtr(memory, place);
        }
    }
    static void releaseVerified(void* memory, const SourcePlace& place)
    {
        isEnabled() ? instance().freeAndUnregister(memory, place) : freeAndCount(memory);
    }

    // The calls of the single modes. A block must be released in the mode in which it was allocated.
    [[nodiscard]] static void* internalAllocAndCountOnlyArray(std::uint64_t size, std::uint64_t numItems)
    {
        if (numItems >= OBJECT_SANITY_WORD) [[unlikely]]
        {
            failTooManyItems();
        }
        return allocateCounted(size, numItems == 0 ? OBJECT_SANITY_WORD : static_cast<std::uint32_t>(numItems));
    }

    static void freeAndCount(void* memory)
    {
        if (headerOf(memory)->sanityWord != OBJECT_SANITY_WORD) [[unlikely]]
        {
            failNotAnObject();
        }
        releaseCounted(memory);
    }

    static void freeAndCountArray(void* memory)
    {
        if (headerOf(memory)->sanityWord == OBJECT_SANITY_WORD) [[unlikely]]
        {
            failNotAnArray();
        }
        releaseCounted(memory);
    }

    [[nodiscard]] void* internalAllocAndRegister(std::uint64_t size, std::uint64_t arrayLength,
                                                 const AllocationSite& site) TAVRO_EXCLUDES(m_mutex);
    void freeAndUnregister(void* memory, const SourcePlace& place) TAVRO_EXCLUDES(m_mutex);

    /// The bytes of a guarded block with those margins. A block of MAX_SINGLE_ALLOCATION_LENGTH or more ends the
    /// process.
    [[nodiscard]] static std::uint64_t guardedLength(std::uint32_t preMargin, std::uint64_t size,
                                                     std::uint32_t postMargin);

    /// Ends the process unless the memory is a live guarded block.
    void verifyPtr(const void* memory, const SourcePlace& place) TAVRO_EXCLUDES(m_mutex);

    /// An address as messages show it: hexadecimal without a prefix.
    [[nodiscard]] static std::string addressText(const void* memory);

    /// Bytes that are taken from the system heap at this moment, margins and headers included.
    [[nodiscard]] static std::uint64_t systemHeapBytes() { return SystemHeapBytes::read(); }

    /// Call the visitor for each guarded block that is live, or that is kept after its release, in no particular order.
    /// The visitor runs under the lock: it must neither log nor use this allocator.
    void visitLive(const Visitor& visitor) TAVRO_EXCLUDES(m_mutex);
    void visitRecentlyFreed(const Visitor& visitor) TAVRO_EXCLUDES(m_mutex);

    /// Whether every registered block is sound and both its margins are whole. For tests.
    [[nodiscard]] bool checkInvariants() TAVRO_EXCLUDES(m_mutex);

private:
    friend Singleton;

    // A hash table, so that the cost of a release does not grow with the number of live blocks.
    using Map = std::unordered_map<std::byte*, AllocInfo>;
    using Records = StlMemShiledContainer<Map>;

    /// The result of unregistering a block.
    struct Release
    {
        std::optional<AllocInfo> info; // nothing: there is no such live block
        std::string corruption;        // what is wrong with the margin; a corrupt block stays registered
        bool isKept = false;           // the block is among the recently freed ones
        Map::node_type node = {};      // the block's record, which is destroyed without the lock
    };

    static constexpr std::size_t HEAP_ALIGNMENT = __STDCPP_DEFAULT_NEW_ALIGNMENT__;
    static constexpr std::uint32_t OBJECT_SANITY_WORD = 0xFFFF'FFFF;

    struct CountedHeader
    {
        std::uint32_t length;     // bytes of the whole block
        std::uint32_t sanityWord; // OBJECT_SANITY_WORD, or the number of an array's elements
    };

    MemShield();

    [[nodiscard]] static CountedHeader* headerOf(void* memory) { return static_cast<CountedHeader*>(memory) - 1; }

    [[nodiscard]] static void* allocateCounted(std::uint64_t size, std::uint32_t sanityWord)
    {
        if (!SystemHeapBytes::isCounting()) [[unlikely]]
        {
            static_cast<void>(instance()); // made by the first block, also in counting mode
        }
        const std::uint64_t length = size + sizeof(CountedHeader);
        if (length < size) [[unlikely]]
        {
            throw std::bad_alloc();
        }
        auto* const header = static_cast<CountedHeader*>(SystemHeapBytes::allocate(length));
        header->length = static_cast<std::uint32_t>(length); // blocks count with 32 bits of their length
        header->sanityWord = sanityWord;
        SystemHeapBytes::take(header->length);
        return header + 1;
    }

    static void releaseCounted(void* memory)
    {
        CountedHeader* const header = headerOf(memory);
        const std::uint32_t length = header->length;
        SystemHeapBytes::giveBack(length);
        SystemHeapBytes::release(header, length);
    }

    [[noreturn]] static void failTooManyItems();
    [[noreturn]] static void failNotAnObject();
    [[noreturn]] static void failNotAnArray();
    [[nodiscard]] bool isLive(const void* memory) TAVRO_EXCLUDES(m_mutex);
    [[nodiscard]] Release unregister(std::byte* memory) TAVRO_EXCLUDES(m_mutex);
    [[nodiscard]] std::string corruptionOf(const std::byte* memory, const AllocInfo& info) const;
    static void beginReport();
    [[noreturn]] static void memshieldError(const std::vector<Record>& culprits);

    static constinit inline bool s_isEnabled = true; // until the entry point has read the configuration
    static constinit inline thread_local bool s_waitsForReport = true;

    Records m_live TAVRO_GUARDED_BY(m_mutex){"MemShiledMap"};
    Records m_recentlyFreed TAVRO_GUARDED_BY(m_mutex){"MemShieldRecentFreed"};
    const std::uint32_t m_preMargin;     // bytes before each guarded block
    const std::uint32_t m_postMargin;    // bytes after it
    const std::size_t m_padding;         // bytes before the first margin, not counted; they align the memory after it
    Mutex m_mutex;                       // guards both maps; nothing is taken inside it
    const std::uint32_t m_historyLength; // ms; unless it is 0, released blocks are kept
};

/// The one table of hooks. MemoryReport.cpp defines it, so that whatever links the allocator links its report.
extern const MemShield::Hooks MEM_SHIELD_HOOKS;
