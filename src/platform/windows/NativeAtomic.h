#pragma once

#include <atomic>

namespace platform
{

template <class T> using Atomic = std::atomic<T>;

} // namespace platform
