#pragma once

// The entry point of a windowed program. The system's start-up code calls it once on the main
// thread; on POSIX that is main, which passes the program's resources as the module.

#include "platform/Dialog.h"

extern "C" int wWinMain(platform::ModuleHandle instance, platform::ModuleHandle previousInstance, wchar_t* commandLine,
                        int showCommand);
