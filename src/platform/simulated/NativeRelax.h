#pragma once

namespace platform
{

/// A switch point at which the other threads that can go on come first.
void relax() noexcept;

/// One thread runs at a time: looking often shows nothing that looking once does not.
constexpr int looks(int /*wanted*/) noexcept { return 1; }

} // namespace platform
