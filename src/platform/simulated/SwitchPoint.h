#pragma once

namespace platform::simulated
{

/// Called before each operation that other threads can observe: another thread may go on here. Returns when the calling
/// thread has the turn again.
void switchPoint() noexcept;

} // namespace platform::simulated
