#pragma once

// What threads of this process wait on. Three classes, each with an implementation of its own on every
// target:
//
//   NativeMutex       belongs to the thread that locked it: lock sleeps until it is free, tryLock returns at once
//   NativeSemaphore   a count; post adds one and wakes one waiter, wait takes one
//   NativeEvent       an auto-reset event: CreateEventA; set lets one wait pass, now or later, whether or not a
//                     wait that an earlier set let pass has returned yet
//
// Any thread may call. A count stays below 2^32 - 1. On POSIX none makes a system call while nobody has to wait.
// Where the system fails to wait, a wait looks again each millisecond, up to its limit. An object may be destroyed by
// the thread whose wait returned, once no other thread waits or is about to post; a
// mutex by the thread that has locked it last.

#include "NativeSync.h"
