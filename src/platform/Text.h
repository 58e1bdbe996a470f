#pragma once

// How this system writes, constants of the folder that CMake chose: LINE_END ends a line of a text file, endsText
// tells which byte in one ends the text before the end of the file, and PATH_SEPARATOR stands between the parts of a
// path.

#include "NativeText.h"
