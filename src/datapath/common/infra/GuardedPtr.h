#pragma once

// Owns an object of the guarded allocator. A release that finds misuse reports the place that the pointer was given.
//
//     const GuardedPtr<Thing> thing(GuardedMemory::create<Thing>(SITE), {RELEASE_PLACE});
//
// It must hold the address that create returned: T may be a base class of the object only if it is the first one.

#include "datapath/common/infra/GuardedMemory.h"

#include <memory>

/// Releases an object and, if that finds misuse, reports the place.
struct GuardedDelete
{
    SourcePlace place;

    template <class T> void operator()(T* object) const { GuardedMemory::destroy(object, place); }
};

/// The owner of an object; GuardedPtr.h shows how one is made.
template <class T> using GuardedPtr = std::unique_ptr<T, GuardedDelete>;
