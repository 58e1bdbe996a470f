#pragma once

// How this system's text files end a line: LINE_END, a constant of the folder that CMake chose.

#include "NativeText.h"
