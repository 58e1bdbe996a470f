#pragma once

// The memory report's parts that do not come from the guarded allocator itself: what else in the process holds memory.

namespace MemoryReport
{

/// Logs the watched containers, the process-wide memory pool and heap, and the memory and CPU usage of the process. Any
/// thread may call; no lock that these take may be held.
void printOthers();

} // namespace MemoryReport
