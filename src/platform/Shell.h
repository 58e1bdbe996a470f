#pragma once

// Folders that the machine gives to programs, and paths built in fixed buffers. Every function may
// be called from any thread.

#include "platform/Call.h"

#include <cstddef>
#include <cstdint>

namespace platform
{

/// The room that these functions ask for, the terminating zero included.
inline constexpr std::size_t PATH_BUFFER_SIZE = 260;

struct ShellCalls
{
    Call<std::int32_t(char* buffer)> commonAppDataFolder;
    Call<bool(char* path, const char* more)> appendToPath;
};

/// The implementation in use. Tests replace single entries before other threads call them.
extern ShellCalls shellCalls;

/// SHGetFolderPathA of CSIDL_COMMON_APPDATA, created if missing; the environment's PROGRAMDATA,
/// else /var/lib, neither of them created. Writes the narrow path, zero-terminated, into a buffer of PATH_BUFFER_SIZE.
/// Returns 0, or the system's failure code.
[[nodiscard]] inline std::int32_t commonAppDataFolder(char* buffer) { return shellCalls.commonAppDataFolder(buffer); }

/// PathAppendA: joins two paths with exactly one PATH_SEPARATOR (Text.h), in place, in a buffer of
/// PATH_BUFFER_SIZE. False when the result does not fit.
inline bool appendToPath(char* path, const char* more) { return shellCalls.appendToPath(path, more); }

} // namespace platform
