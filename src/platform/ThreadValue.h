#pragma once

// A pointer of each thread's own, with a function that is called with it when the thread ends: FlsAlloc;
// pthread_key_create. A class that is chosen at link time, the same on every target:
//
//     struct Slots { static void release(void* slot); };     // called on the thread that ends, if it has a value
//     using OwnSlot = ThreadValue<Slots>;
//     OwnSlot::get(); OwnSlot::set(slot);
//
// Each thread begins with null. A value that is set after the release, by what else runs at the thread's end, is
// released in its turn on POSIX, and may be left on Windows. The main thread's is not released. release must not ask
// for the value.

#include "NativeThreadValue.h"
