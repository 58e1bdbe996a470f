#pragma once

// Makes objects and arrays in memory of the guarded allocator: MemShield counts or guards their blocks.
//
//     Thing* const thing = GuardedMemory::create<Thing>({"Thing", SourcePlace::here()}, argument);
//     GuardedMemory::destroy(thing, SourcePlace::here());
//     char* const bytes = GuardedMemory::createArray<char>({"s8", SourcePlace::here()}, length);
//     GuardedMemory::destroyArray(bytes, SourcePlace::here());
//
// The caller owns what it creates, or hands an object to a GuardedPtr. Any thread may call, and may destroy what
// another thread created. When the system heap has no memory, std::bad_alloc is thrown; misuse ends the process.

#include "datapath/common/infra/MemShield.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

namespace GuardedMemory
{

/// Makes an object. If its constructor throws, the memory is released and the exception goes on to the caller.
template <class T, class... Args> [[nodiscard]] T* create(const AllocationSite& site, Args&&... args)
{
    static_assert(alignof(T) <= MemShield::BLOCK_ALIGNMENT, "guarded blocks are aligned to 8 bytes");
    void* const memory = MemShield::allocate(sizeof(T), 0, site);
    try
    {
        return ::new (memory) T(std::forward<Args>(args)...);
    }
    catch (...)
    {
        MemShield::releaseObject(memory, site.place);
        throw;
    }
}

/// Destroys and releases an object through a pointer to any of its base classes. memory is the address that create
/// returned: dynamic_cast<void*> finds it, as long as the object is known to live. With guarded memory, nothing is read
/// through memory unless that is a live block.
template <class T> void destroy(T* object, void* memory, const SourcePlace& place)
{
    static_assert(!std::is_polymorphic_v<T> || std::has_virtual_destructor_v<T> || std::is_final_v<T>);
    MemShield::verifyObject(memory, place); // before the destructor, which must not run on a released object
    object->~T();
    MemShield::releaseVerified(memory, place);
}

/// The same for a pointer that is the address that create returned. T may be a base class if it is the first one and
/// has a virtual destructor. Not for null.
template <class T> void destroy(T* object, const SourcePlace& place) { destroy(object, object, place); }

/// An array whose elements are not initialized. An array of 0 elements ends the process with guarded memory, and must
/// be released as an object otherwise.
template <class T> [[nodiscard]] T* createArray(const AllocationSite& site, std::uint64_t length)
{
    static_assert(alignof(T) <= MemShield::BLOCK_ALIGNMENT && std::is_trivially_default_constructible_v<T> &&
                  std::is_trivially_destructible_v<T>);
    constexpr std::uint64_t MAX_BYTES = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t bytes = length > MAX_BYTES / sizeof(T) ? MAX_BYTES : length * sizeof(T);
    return static_cast<T*>(MemShield::allocate(bytes, length, site));
}

/// Releases an array that createArray has made. Its elements have no destructors to run.
template <class T> void destroyArray(T* array, const SourcePlace& place)
{
    MemShield::releaseArray(const_cast<std::remove_const_t<T>*>(array), place);
}

} // namespace GuardedMemory
