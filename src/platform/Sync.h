#pragma once

// What threads of this process wait on. Three classes, which every target implements for itself:
//
//   NativeMutex       belongs to the thread that has locked it. lock sleeps until it is free; tryLock returns at once.
//   NativeSemaphore   a count. post adds one and wakes one waiter; wait takes one.
//   NativeEvent       an auto-reset event, as CreateEventA makes it. set ends one wait, now or later, also while a wait
//                     that an earlier set has ended has not returned yet.
//
// Any thread may call. A count stays below 2^32 - 1. On POSIX none makes a system call while nobody has to wait. A
// thread whose wait has returned may destroy the object once no other thread waits or is about to post. The thread that
// has locked a mutex last may destroy the mutex.

#include "NativeSync.h"
