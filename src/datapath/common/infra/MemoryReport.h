#pragma once

// The memory report: what the guarded allocator has handed out, by places in the source, and what else in the process
// holds memory. It stands above all the units that it reports on; the allocator calls it before misuse of memory ends
// the process.
//
//     MemoryReport::printAllocations();
//
// Any thread may call. Lines are logged, and the locks of the units that are reported on are taken: the caller may hold
// none of these. Places and blocks appear only with guarded memory. Its lines name MemShield, by which support knows
// them.

namespace MemoryReport
{

/// Logs how much is allocated and by which places, then the watched containers, the process-wide memory pool and heap,
/// and the memory and CPU usage of the process. A place with too many blocks ends the process
/// (t_MemShieldMaxAllocationInCodeLine).
void printAllocations();

/// Logs the guarded blocks that are kept after their release (t_allocationHistoryLengthMs), in the order of addresses.
void printRecentlyFreed();

/// Logs every live guarded block, as of one moment, in the order of addresses.
void memShieldDumpLocked();

} // namespace MemoryReport
