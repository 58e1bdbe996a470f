#pragma once

// The entry point that a program with a window defines. The system's start-up code calls it once, on the main thread.
// On POSIX that code is main, which passes the program's resources as the module.

#include "platform/Dialog.h"

/// Runs the program and returns its exit status. previousInstance is null. commandLine is what follows the program's
/// name on Windows, and empty on POSIX. showCommand says how the first window is to be shown.
extern "C" int wWinMain(platform::ModuleHandle instance, platform::ModuleHandle previousInstance, wchar_t* commandLine,
                        int showCommand);
