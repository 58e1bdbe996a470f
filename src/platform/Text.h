#pragma once

// How text files and paths look on this system. LINE_END ends a line of a text file, endsText tells which byte ends the
// text before the end of the file, and PATH_SEPARATOR stands between the parts of a path. They are constants of the
// implementation that CMake has chosen.

#include "NativeText.h"
