#pragma once

// Atomic values that threads of this process share without a lock: platform::Atomic<T> is std::atomic<T> itself on
// Linux and Windows. Code that synchronises threads uses it instead of std::atomic, so that the scheduler of simulated/
// can switch to another thread at each of its operations.

#include "NativeAtomic.h"
