#pragma once

// The deadlock checker calls this for each watched thread when one of them hangs. Any thread may call.

#include <cstdint>

class ThreadBacktracePrinter
{
public:
    /// Logs the thread's id, its name and the caller's data, and that no back trace can be made.
    static void print(std::uint32_t threadId, std::uint64_t threadData);
};
