#pragma once

// A pointer that each thread has for itself, and a function that is called with it when the thread ends: FlsAlloc;
// pthread_key_create. Each target has a class of its own with the same operations:
//
//     struct Slots { static void release(void* slot); };
//     using OwnSlot = ThreadValue<Slots>;
//     OwnSlot::set(slot);
//
// release is called on the thread that ends, with a value that is not null.
// The value of a new thread is null. Other code that runs when the thread ends may set a value after the release: POSIX
// releases that value too, Windows may leave it. When the process ends, Windows releases the value of the thread that
// ends it; POSIX releases none. release must not call get.

#include "NativeThreadValue.h"
