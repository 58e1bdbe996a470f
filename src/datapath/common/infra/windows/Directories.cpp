#include "datapath/common/infra/windows/Directories.h"

#include "datapath/common/infra/FatalCheck.h"
#include "platform/Files.h"
#include "platform/Text.h"

#include <iostream>
#include <optional>

namespace
{

constexpr std::uint32_t NUMBER_FOLDER_MISSING = 48;
constexpr int FILE_EXISTS = 17; // the C library's EEXIST on every target

bool makeFolder(const std::string& path)
{
    const int error = platform::createFolderErrno(path.c_str());
    return error == 0 || error == FILE_EXISTS;
}

/// Returns the path before its last separator, where a separator at its very end does not count; nothing if there is
/// none, or if the parent is the root, which always exists.
std::optional<std::string> parentOf(const std::string& path)
{
    const std::size_t separator =
        path.size() < 2 ? std::string::npos : path.rfind(platform::PATH_SEPARATOR, path.size() - 2);
    const bool isNone = separator == std::string::npos || (separator == 0 && path[0] == '/');
    return isNone ? std::nullopt : std::optional(path.substr(0, separator));
}

} // namespace

void Directories::ensureExists(const std::string& path)
{
    if (const auto parent = parentOf(path); parent && !makeFolder(*parent))
    {
        std::cerr << "mkdir failed for parent " << *parent << " and it does not exist" << std::endl;
    }
    if (!makeFolder(path))
    {
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(NUMBER_FOLDER_MISSING), "(*_errno()) == 17")
            << "mkdir failed for dir " << path << " and it does not exist" << std::endl;
    }
}
