#pragma once

// What the deadlock checker calls for each watched thread when one of them hangs. Any thread may call.

#include <cstdint>

class ThreadBacktracePrinter
{
public:
    /// Logs which thread it is, and that no back trace of it can be made. The data is the caller's and only logged.
    static void print(std::uint32_t threadId, std::uint64_t threadData);
};
