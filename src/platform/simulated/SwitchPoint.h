#pragma once

namespace platform::simulated
{

/// Before each operation that other threads can notice: another thread may go on here. Returns when it is the calling
/// thread's turn again.
void switchPoint() noexcept;

} // namespace platform::simulated
