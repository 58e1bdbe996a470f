#pragma once

// What threads of this process share without a lock: platform::Atomic<T>, which is std::atomic<T> itself on Linux and
// Windows. Whatever synchronises threads uses it, so that simulated/, which decides itself which thread goes on, can do
// so at each of its operations.

#include "NativeAtomic.h"
