#include "tools/tavro/LogSystem.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>
#endif

#ifdef _WIN32

namespace
{

HANDLE toHandle(platform::FileHandle file) { return reinterpret_cast<HANDLE>(file); }

platform::FileHandle standardFile(DWORD which)
{
    return platform::FileHandle{reinterpret_cast<std::intptr_t>(GetStdHandle(which))};
}

} // namespace

platform::FileHandle Tool::standardInput() { return standardFile(STD_INPUT_HANDLE); }

platform::FileHandle Tool::standardOutput() { return standardFile(STD_OUTPUT_HANDLE); }

std::optional<Tool::FileIdentity> Tool::identityOf(platform::FileHandle file)
{
    BY_HANDLE_FILE_INFORMATION information = {};
    if (GetFileInformationByHandle(toHandle(file), &information) == FALSE)
    {
        return std::nullopt;
    }
    return FileIdentity{information.dwVolumeSerialNumber,
                        std::uint64_t{information.nFileIndexHigh} << 32U | information.nFileIndexLow};
}

std::uint64_t Tool::lengthOf(platform::FileHandle file)
{
    LARGE_INTEGER length = {};
    return GetFileSizeEx(toHandle(file), &length) == FALSE ? 0 : static_cast<std::uint64_t>(length.QuadPart);
}

bool Tool::isPipeClosed(platform::ErrorNumber error)
{
    return toNumber(error) == ERROR_NO_DATA || toNumber(error) == ERROR_BROKEN_PIPE ||
           toNumber(error) == ERROR_PIPE_NOT_CONNECTED;
}

bool Tool::enableColours()
{
    constexpr DWORD ESCAPE_SEQUENCES = 4; // ENABLE_VIRTUAL_TERMINAL_PROCESSING, which old headers lack
    const HANDLE terminal = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    SetConsoleOutputCP(CP_UTF8);
    return GetConsoleMode(terminal, &mode) != FALSE && SetConsoleMode(terminal, mode | ESCAPE_SEQUENCES) != FALSE;
}

#else

namespace
{

struct stat statusOf(platform::FileHandle file)
{
    struct stat status = {};
    static_cast<void>(fstat(static_cast<int>(file), &status)); // else all is zero
    return status;
}

} // namespace

platform::FileHandle Tool::standardInput() { return platform::FileHandle{STDIN_FILENO}; }

platform::FileHandle Tool::standardOutput() { return platform::FileHandle{STDOUT_FILENO}; }

std::optional<Tool::FileIdentity> Tool::identityOf(platform::FileHandle file)
{
    const struct stat status = statusOf(file);
    return status.st_ino == 0 ? std::nullopt : std::optional(FileIdentity{status.st_dev, status.st_ino});
}

std::uint64_t Tool::lengthOf(platform::FileHandle file)
{
    const struct stat status = statusOf(file);
    return S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
}

bool Tool::isPipeClosed(platform::ErrorNumber /*error*/) { return errno == EPIPE; }

bool Tool::enableColours() { return true; }

#endif
