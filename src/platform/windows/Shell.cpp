#include "platform/Shell.h"

#include "platform/windows/System.h"

#include <shlobj.h>
#include <shlwapi.h>

namespace platform::windows
{

namespace
{

static_assert(PATH_BUFFER_SIZE == MAX_PATH);

std::int32_t commonAppDataFolder(char* buffer)
{
    return SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA | CSIDL_FLAG_CREATE, nullptr, SHGFP_TYPE_CURRENT, buffer);
}

bool appendToPath(char* path, const char* more) { return PathAppendA(path, more) != FALSE; }

} // namespace

} // namespace platform::windows

constinit platform::ShellCalls platform::shellCalls = {
    .commonAppDataFolder = {"commonAppDataFolder", windows::commonAppDataFolder},
    .appendToPath = {"appendToPath", windows::appendToPath},
};
