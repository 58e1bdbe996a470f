#pragma once

namespace platform
{

inline void relax() noexcept
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield");
#endif
}

inline constexpr bool RUNS_ONE_THREAD_AT_A_TIME = false;

} // namespace platform
