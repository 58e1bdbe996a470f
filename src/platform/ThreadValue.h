#pragma once

// A pointer that each thread has for itself, and a function that is called with it when the thread ends: FlsAlloc;
// pthread_key_create. Each target has a class of its own with the same operations:
//
//     struct Slots { static void release(void* slot); };     // called on the thread that ends, if it has a value
//     using OwnSlot = ThreadValue<Slots>;
//     OwnSlot::get(); OwnSlot::set(slot);
//
// Each thread begins with null. Other code that runs when the thread ends may set a value after the release: POSIX
// releases it too, Windows may leave it. The value of the main thread is not released. release must not read the value.

#include "NativeThreadValue.h"
