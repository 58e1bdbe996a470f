#pragma once

namespace platform
{

inline void relax() noexcept { __builtin_ia32_pause(); }

constexpr int looks(int wanted) noexcept { return wanted; }

} // namespace platform
