#include "Invocation.h"

#include <filesystem>
#include <fstream>
#include <unistd.h>

// There is no raw command line here: programs are started with arguments. The line is the arguments
// joined by blanks, so blanks between them and quotes around them are not those of the caller.
Invocation currentInvocation()
{
    Invocation invocation;
    std::ifstream commandLine("/proc/self/cmdline", std::ios::binary);
    for (std::string argument; std::getline(commandLine, argument, '\0');)
    {
        invocation.commandLine += (invocation.arguments.empty() ? "" : " ") + argument;
        invocation.arguments.push_back(argument);
    }
    invocation.workingFolder = std::filesystem::current_path().string();
    for (const char* const* entry = environ; *entry != nullptr; ++entry)
    {
        invocation.environment.emplace_back(*entry);
    }
    return invocation;
}
