#pragma once

// Folders that must exist before something is kept in them.

#include <string>

namespace Directories
{

/// Creates the folder, and before it its immediate parent, where they are missing. Parents further up must
/// exist. A path that exists is accepted, whatever it is. Paths are narrow and the system's own; a separator may
/// end them. A parent that cannot be created is reported on standard error; a folder that cannot be created, such
/// as one without a name, ends the process. Any thread may call.
void ensureExists(const std::string& path);

} // namespace Directories
