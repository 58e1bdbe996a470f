#pragma once

// Makes sure that a folder exists before something is kept in it.
//
//     Directories::ensureExists(std::string("test_appdata") + platform::PATH_SEPARATOR);

#include <string>

namespace Directories
{

/// Creates the folder and, before it, its parent, if they do not exist. Folders above the parent must exist. Whatever
/// exists at the path is accepted, a file as well. Paths are narrow, as the operating system takes them, and may end
/// with a separator. A parent that cannot be created is reported on standard error. A folder that cannot be created,
/// for instance because its name is empty, ends the process. Any thread may call.
void ensureExists(const std::string& path);

} // namespace Directories
