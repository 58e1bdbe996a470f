#pragma once

// The process-wide allocator of the infrastructure's own objects and arrays, in one of two modes that holds
// for the life of the process. Counting, the usual one, costs 8 bytes a block and knows objects from arrays.
// Guarded, for diagnosis, surrounds each block with margins, registers it with its place of allocation,
// checks it when it is released, and ends the process with a full memory report on any misuse.
//
//     Thing* const thing = MemShield::create<Thing>({"Thing", SourcePlace::here()}, argument);
//     MemShield::destroy(thing, SourcePlace::here());
//     char* const bytes = MemShield::createArray<char>({"s8", SourcePlace::here()}, length);
//     MemShield::destroyArray(bytes, SourcePlace::here());
//
// Any thread may call, and may release what another one allocated. Sizes are in bytes. What the system heap
// cannot give is a std::bad_alloc. Texts of types and places are kept as pointers: pass literals.
//
// Lines are never logged under the allocator's lock, so log clients may allocate here, a report included, if
// they hold no lock of their own meanwhile that their logging takes. A client that allocates must be registered
// after the first block was allocated.

#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/Singleton.h"
#include "datapath/common/infra/SystemHeapBytes.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
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

    /// What is known of a guarded block. Times are in ms, as the clock's inaccurate reading gives them.
    struct AllocInfo
    {
        std::uint32_t m_size = 0;        ///< that was asked for
        std::uint32_t m_arrayLength = 0; ///< elements; 0 for an object
        const char* m_class = nullptr;
        const char* m_file = nullptr;
        std::uint32_t m_line = 0;
        std::uint64_t m_allocTime = 0;
        std::uint64_t m_freeTime = 0; ///< 0 while live
    };

    /// Whether blocks are guarded, or only counted.
    [[nodiscard]] static bool isEnabled() { return s_isEnabled; }

    /// Start-up only, before anything is allocated here.
    static void setEnabled(bool isEnabled) { s_isEnabled = isEnabled; }

    /// For a thread that a report needs, such as one that writes what others log: misuse that it finds while another
    /// thread reports one ends the process at once, after its own lines. Any other thread waits for that end.
    static void neverWaitForReport() { s_waitsForReport = false; }

    /// Allocates and constructs. The caller owns the object.
    template <class T, class... Args> [[nodiscard]] static T* create(const AllocationSite& site, Args&&... args)
    {
        static_assert(alignof(T) <= BLOCK_ALIGNMENT);
        void* const memory = allocateObject(sizeof(T), site);
        try
        {
            return ::new (memory) T(std::forward<Args>(args)...);
        }
        catch (...)
        {
            releaseObject(memory, site.place);
            throw;
        }
    }

    /// Destroys and releases the object at the address that create gave, through a base class too if that stands first
    /// and has a virtual destructor. Not for null. Nothing is read through a pointer that is not a live guarded block.
    template <class T> static void destroy(T* object, const SourcePlace& place) { destroy(object, object, place); }

    /// The same for an owner that knows the object by a base class that need not stand first: memory is the address
    /// that create gave, as dynamic_cast<void*> finds it while the object certainly lives.
    template <class T> static void destroy(T* object, void* memory, const SourcePlace& place)
    {
        static_assert(!std::is_polymorphic_v<T> || std::has_virtual_destructor_v<T> || std::is_final_v<T>);
        if (isEnabled())
        {
            instance().verifyPtr(memory, place); // before the destructor of an object that is gone already
            object->~T();
            instance().freeAndUnregister(memory, place);
        }
        else
        {
            object->~T();
            freeAndCount(memory);
        }
    }

    /// Elements are not initialized. An array of 0 elements is an error when blocks are guarded, and must be
    /// released as an object when they are counted.
    template <class T> [[nodiscard]] static T* createArray(const AllocationSite& site, std::uint64_t length)
    {
        static_assert(alignof(T) <= BLOCK_ALIGNMENT && std::is_trivially_default_constructible_v<T> &&
                      std::is_trivially_destructible_v<T>);
        constexpr std::uint64_t MOST = std::numeric_limits<std::uint64_t>::max();
        const std::uint64_t size = length > MOST / sizeof(T) ? MOST : length * sizeof(T);
        return static_cast<T*>(internalAllocAndCountOnlyArray(size, length, site));
    }

    template <class T> static void destroyArray(T* array, const SourcePlace& place)
    {
        releaseArray(const_cast<std::remove_const_t<T>*>(array), place);
    }

    [[nodiscard]] static void* allocateObject(std::uint64_t size, const AllocationSite& site)
    {
        return isEnabled() ? instance().internalAllocAndRegister(size, 0, site)
                           : allocateCounted(size, OBJECT_SANITY_WORD);
    }

    static void releaseObject(void* memory, const SourcePlace& place)
    {
        if (isEnabled())
        {
            instance().verifyPtr(memory, place);
            instance().freeAndUnregister(memory, place);
        }
        else
        {
            freeAndCount(memory);
        }
    }

    /// An array of numItems elements that take size bytes in all; guarded or counted, as the mode is.
    [[nodiscard]] static void* internalAllocAndCountOnlyArray(std::uint64_t size, std::uint64_t numItems,
                                                              const AllocationSite& site);
    static void releaseArray(void* memory, const SourcePlace& place)
    {
        if (isEnabled())
        {
            instance().freeAndUnregister(memory, place);
        }
        else
        {
            freeAndCountArray(memory);
        }
    }

    /// The two ways by themselves. A block must be released the way it was allocated.
    [[nodiscard]] void* internalAllocAndRegister(std::uint64_t size, std::uint64_t arrayLength,
                                                 const AllocationSite& site) EXCLUDES(m_mutex);
    void freeAndUnregister(void* memory, const SourcePlace& place) EXCLUDES(m_mutex);

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

    /// Ends the process unless it is.
    void verifyPtr(const void* memory, const SourcePlace& place) EXCLUDES(m_mutex);

    /// Bytes taken from the system heap, margins and headers included, at this moment.
    [[nodiscard]] static std::uint64_t systemHeapBytes() { return SystemHeapBytes::read(); }

    /// Logs how much is allocated and by which places, then the other memory reports.
    void printAllocations() EXCLUDES(m_mutex);

    /// Logs the blocks that are kept after their release.
    void printRecentlyFreed() EXCLUDES(m_mutex);

    /// Logs every live guarded block, as of one moment under the lock.
    void memShieldDumpLocked() EXCLUDES(m_mutex);

    /// Whether every registered block is sound and both its margins are whole. For tests.
    [[nodiscard]] bool checkInvariants() EXCLUDES(m_mutex);

private:
    friend Singleton;

    using Record = std::pair<std::byte*, AllocInfo>;
    // By hash: the cost of a release must not grow with the number of live blocks.
    using Records = StlMemShiledContainer<std::unordered_map<std::byte*, AllocInfo>>;

    static constexpr std::size_t HEAP_ALIGNMENT = __STDCPP_DEFAULT_NEW_ALIGNMENT__;
    static constexpr std::size_t BLOCK_ALIGNMENT = 8; // what a counted block's header leaves of the heap's

    static constexpr std::uint32_t OBJECT_SANITY_WORD = 0xFFFF'FFFF;

    /// What precedes the memory of a counted block.
    struct CountedHeader
    {
        std::uint32_t length;     // of the whole block
        std::uint32_t sanityWord; // of an object, or the number of an array's elements
    };

    MemShield();

    [[nodiscard]] static CountedHeader* headerOf(void* memory) { return static_cast<CountedHeader*>(memory) - 1; }

    [[nodiscard]] static void* allocateCounted(std::uint64_t size, std::uint32_t sanityWord)
    {
        if (!SystemHeapBytes::isCounting()) [[unlikely]]
        {
            static_cast<void>(instance()); // made by the first use, also where blocks are only counted
        }
        const std::uint64_t length = size + sizeof(CountedHeader);
        if (length < size) [[unlikely]]
        {
            throw std::bad_alloc();
        }
        auto* const header = static_cast<CountedHeader*>(::operator new(length));
        header->length = static_cast<std::uint32_t>(length); // counted in 32 bits, here and when released
        header->sanityWord = sanityWord;
        SystemHeapBytes::take(header->length);
        return header + 1;
    }

    static void releaseCounted(void* memory)
    {
        CountedHeader* const header = headerOf(memory);
        SystemHeapBytes::giveBack(header->length);
        ::operator delete(header);
    }

    [[noreturn]] static void failNotAnObject();
    [[noreturn]] static void failNotAnArray();
    [[nodiscard]] bool isLive(const void* memory) EXCLUDES(m_mutex);
    [[nodiscard]] std::string corruptionOf(const std::byte* memory, const AllocInfo& info) const;
    static void beginReport();
    static void waitForEnd();
    [[noreturn]] void memshieldError(const std::vector<Record>& culprits);
    static void dump(const std::vector<Record>& records);
    [[nodiscard]] static std::vector<Record> copyOf(const Records& records) { return {records.begin(), records.end()}; }
    static void sortByAddress(std::vector<Record>& records);

    static constinit inline bool s_isEnabled = true; // until the entry point has read the configuration
    static constinit inline thread_local bool s_waitsForReport = true;

    Records m_live GUARDED_BY(m_mutex){"MemShiledMap"};
    Records m_recentlyFreed GUARDED_BY(m_mutex){"MemShieldRecentFreed"};
    const std::uint32_t m_preMargin;     // bytes before each guarded block
    const std::uint32_t m_postMargin;    // bytes after it
    const std::size_t m_padding;         // bytes before the first margin, not counted: they align what is handed out
    Mutex m_mutex;                       // guards both maps; nothing is taken inside it
    const std::uint32_t m_historyLength; // ms; not 0: released blocks are kept
};
