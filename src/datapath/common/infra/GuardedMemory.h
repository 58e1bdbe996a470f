#pragma once

// Objects and arrays of the guarded allocator. MemShield counts or guards the blocks below them.
//
//     Thing* const thing = GuardedMemory::create<Thing>({"Thing", SourcePlace::here()}, argument);
//     GuardedMemory::destroy(thing, SourcePlace::here());
//     char* const bytes = GuardedMemory::createArray<char>({"s8", SourcePlace::here()}, length);
//     GuardedMemory::destroyArray(bytes, SourcePlace::here());
//
// The caller owns what it creates; GuardedPtr owns an object in its place. Any thread may call, and may destroy what
// another one created. What the system heap cannot give is a std::bad_alloc; misuse ends the process.

#include "datapath/common/infra/MemShield.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

namespace GuardedMemory
{

/// Allocates and constructs.
template <class T, class... Args> [[nodiscard]] T* create(const AllocationSite& site, Args&&... args)
{
    static_assert(alignof(T) <= MemShield::BLOCK_ALIGNMENT);
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

/// Destroys and releases an object that its owner knows by a base class that need not stand first in it: memory is the
/// address that create gave, as dynamic_cast<void*> finds it while the object certainly lives. Nothing is read through
/// a pointer that is not a live guarded block.
template <class T> void destroy(T* object, void* memory, const SourcePlace& place)
{
    static_assert(!std::is_polymorphic_v<T> || std::has_virtual_destructor_v<T> || std::is_final_v<T>);
    MemShield::verifyObject(memory, place); // before the destructor of an object that is gone already
    object->~T();
    MemShield::releaseVerified(memory, place);
}

/// The same for the address that create gave, also through a base class if that stands first and has a virtual
/// destructor. Not for null.
template <class T> void destroy(T* object, const SourcePlace& place) { destroy(object, object, place); }

/// Elements are not initialized. An array of 0 elements is an error when blocks are guarded, and must be released as
/// an object when they are counted.
template <class T> [[nodiscard]] T* createArray(const AllocationSite& site, std::uint64_t length)
{
    static_assert(alignof(T) <= MemShield::BLOCK_ALIGNMENT && std::is_trivially_default_constructible_v<T> &&
                  std::is_trivially_destructible_v<T>);
    constexpr std::uint64_t MAX_BYTES = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t bytes = length > MAX_BYTES / sizeof(T) ? MAX_BYTES : length * sizeof(T);
    return static_cast<T*>(MemShield::allocate(bytes, length, site));
}

template <class T> void destroyArray(T* array, const SourcePlace& place)
{
    MemShield::releaseArray(const_cast<std::remove_const_t<T>*>(array), place);
}

} // namespace GuardedMemory
