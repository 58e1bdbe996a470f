#pragma once

// Makes sure that a folder exists before something is kept in it.
//
//     Directories::ensureExists(std::string("test_appdata") + platform::PATH_SEPARATOR);

#include <string>

namespace Directories
{

/// Creates the folder and, before it, its immediate parent, if they do not exist. A parent further up must exist. A
/// path that exists is accepted, whatever it is. Paths are narrow, as the operating system takes them, and may end with
/// a separator. A parent that cannot be created is reported on standard error. A folder that cannot be created, for
/// instance because its name is empty, ends the process. Any thread may call.
void ensureExists(const std::string& path);

} // namespace Directories
