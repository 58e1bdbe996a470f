#pragma once

// How this process was started, as far as the system tells. Each system has an implementation of its own.

#include <string>
#include <vector>

/// All texts are UTF-8.
struct Invocation
{
    std::string commandLine;
    std::vector<std::string> arguments; ///< the program first
    std::string workingFolder;
    std::vector<std::string> environment; ///< as NAME=value, in the system's order
};

[[nodiscard]] Invocation currentInvocation();
