#pragma once

// Owns an object of the guarded allocator and releases it with the place that the owner was given.
//
//     const GuardedPtr<Thing> thing(GuardedMemory::create<Thing>(SITE), {RELEASE_PLACE});
//
// It must point to where the object begins: a GuardedPtr to a base class that does not stand first is misuse.

#include "datapath/common/infra/GuardedMemory.h"

#include <memory>

struct GuardedDelete
{
    SourcePlace place;

    template <class T> void operator()(T* object) const { GuardedMemory::destroy(object, place); }
};

template <class T> using GuardedPtr = std::unique_ptr<T, GuardedDelete>;
