#pragma once

// What threads of this process wait on. Three classes, which every target implements for itself:
//
//   NativeMutex       belongs to the thread that has locked it. lock sleeps until it is free; tryLock returns at once.
//   NativeSemaphore   a count. post adds one and wakes one waiter; wait takes one.
//   NativeEvent       an auto-reset event, as CreateEventA makes it. set ends one wait: that of a thread which waits
//                     now, or else the next one. A wait that another set has ended does not count, even if it has not
//                     returned yet.
//
// Any thread may call. A count stays below 2^32 - 1. On POSIX no operation makes a system call unless a thread has to
// wait or to be woken. A thread whose wait has returned may destroy the object if no other thread waits and none will
// call post or set; the calls that have ended waits may still be returning. The thread that has locked a mutex last may
// destroy it after its unlock, even if the unlock of the thread before it is still returning.

#include "NativeSync.h"
