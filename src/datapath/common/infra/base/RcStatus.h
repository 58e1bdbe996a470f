#pragma once

// The result code of file, future and memory operations.

#include <cstdint>

/// What became of an operation. RC_ABORTED: it was given up before it had come to its end.
enum RcStatus : std::int32_t
{
    RC_OK = 0,
    RC_ERROR = 1,
    RC_ABORTED = 3,
    RC_NOT_FOUND = 5,
    RC_TIME_OUT = 15,
};
