#include "platform/posix/Paths.h"

#include <algorithm>

namespace platform::posix
{

std::string toNative(std::string_view path)
{
    std::string native(path);
    std::ranges::replace(native, '\\', '/');
    return native;
}

std::string fromNative(std::string_view path)
{
    std::string translated(path);
    std::ranges::replace(translated, '/', '\\');
    return translated;
}

} // namespace platform::posix
