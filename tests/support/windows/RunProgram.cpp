#include "tests/support/Support.h"

#include "platform/windows/System.h"

#include <process.h>

int openHandles()
{
    DWORD count = 0;
    GetProcessHandleCount(GetCurrentProcess(), &count);
    return static_cast<int>(count);
}

int runProgram(const char* const* arguments) { return static_cast<int>(_spawnv(_P_WAIT, arguments[0], arguments)); }
