#pragma once

// The memory report: what the guarded allocator has handed out, by places in the source, and what else in the process
// holds memory. It stands above all the units that it reports on; the allocator calls it before misuse of memory ends
// the process.
//
//     MemoryReport::printAllocations();
//
// A thread that calls must hold no lock of the units that are reported on. Places and blocks appear only with guarded
// memory. The lines carry the name of MemShield, by which support knows them.

namespace MemoryReport
{

/// Logs how much is allocated and by which places, then the watched containers, the process-wide memory pool and heap,
/// and the memory and CPU usage of the process. A place with t_MemShieldMaxAllocationInCodeLine blocks or more ends the
/// process.
void printAllocations();

/// Logs the guarded blocks that are kept after their release (t_allocationHistoryLengthMs), in the order of addresses.
void printRecentlyFreed();

/// Logs every guarded block that is live at one moment, in the order of addresses.
void memShieldDumpLocked();

} // namespace MemoryReport
