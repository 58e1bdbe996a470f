#pragma once

namespace platform
{

inline void relax() noexcept { __builtin_ia32_pause(); }

inline constexpr bool RUNS_ONE_THREAD_AT_A_TIME = false;

} // namespace platform
