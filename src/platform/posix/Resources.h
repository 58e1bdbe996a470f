#pragma once

// The resources of the program on POSIX, where a program file has none of its own. The program defines them, and main
// passes them to its entry point.

#include "platform/Dialog.h"

namespace platform::posix
{

extern ModuleResources programResources;

} // namespace platform::posix
