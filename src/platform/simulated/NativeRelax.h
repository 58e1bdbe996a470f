#pragma once

namespace platform
{

/// A switch point that prefers the other threads that can run.
void relax() noexcept;

inline constexpr bool RUNS_ONE_THREAD_AT_A_TIME = true;

} // namespace platform
