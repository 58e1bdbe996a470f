#pragma once

namespace platform
{

/// A switch point at which the other threads that can go on come first.
void relax() noexcept;

inline constexpr bool RUNS_ONE_THREAD_AT_A_TIME = true;

} // namespace platform
