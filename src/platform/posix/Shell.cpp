#include "platform/Shell.h"

#include "platform/Text.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace platform::posix
{

namespace
{

constexpr std::int32_t FAILURE_PATH_TOO_LONG = -1;

bool store(char* buffer, const std::string& path)
{
    if (path.size() >= PATH_BUFFER_SIZE)
    {
        return false;
    }
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    return true;
}

std::int32_t commonAppDataFolder(char* buffer)
{
    const char* const configured = std::getenv("PROGRAMDATA");
    const bool isConfigured = configured != nullptr && *configured != '\0';
    return store(buffer, isConfigured ? configured : "/var/lib") ? 0 : FAILURE_PATH_TOO_LONG;
}

bool appendToPath(char* path, const char* more)
{
    std::string joined(path);
    while (joined.ends_with(PATH_SEPARATOR))
    {
        joined.pop_back();
    }
    const std::string_view part(more);
    const std::size_t start = part.find_first_not_of(PATH_SEPARATOR);
    joined += PATH_SEPARATOR;
    return store(path, joined.append(part.substr(start == std::string_view::npos ? part.size() : start)));
}

} // namespace

} // namespace platform::posix

constinit platform::ShellCalls platform::shellCalls = {
    .commonAppDataFolder = {"commonAppDataFolder", posix::commonAppDataFolder},
    .appendToPath = {"appendToPath", posix::appendToPath},
};
