#include "tests/support/Support.h"

#include "platform/windows/System.h"

#include <process.h>

int openHandles()
{
    DWORD count = 0;
    GetProcessHandleCount(GetCurrentProcess(), &count);
    return static_cast<int>(count);
}

int runProgram(const std::string& path, const std::vector<std::string>& arguments)
{
    std::vector<const char*> pointers{path.c_str()};
    for (const std::string& argument : arguments)
    {
        pointers.push_back(argument.c_str());
    }
    pointers.push_back(nullptr);
    return static_cast<int>(_spawnv(_P_WAIT, path.c_str(), pointers.data()));
}
