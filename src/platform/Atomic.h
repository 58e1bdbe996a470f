#pragma once

// What threads of this process share without a lock: platform::Atomic<T>, which is std::atomic<T> on Linux and Windows,
// the same code. What synchronises threads is one of these, so that a floor that decides itself which thread goes on
// can do so at each of its operations.

#include "NativeAtomic.h"
