#pragma once

// What takes the place of compiled resources: the program defines them, its entry passes them on.

#include "platform/Dialog.h"

namespace platform::posix
{

extern ModuleResources programResources;

} // namespace platform::posix
