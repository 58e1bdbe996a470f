#pragma once

// The folder in which programs keep their data, and paths in fixed buffers.
//
//     std::array<char, PATH_BUFFER_SIZE> path{};
//     if (commonAppDataFolder(path.data()) == 0 && appendToPath(path.data(), "Tavro")) ...
//
// Every function may be called from any thread.

#include "platform/Call.h"

#include <cstddef>
#include <cstdint>

namespace platform
{

/// The size of the buffers, in characters, with the terminating zero.
inline constexpr std::size_t PATH_BUFFER_SIZE = 260;

/// The table of this header's calls, which tests replace.
struct ShellCalls
{
    Call<std::int32_t(char* buffer)> commonAppDataFolder;
    Call<bool(char* path, const char* more)> appendToPath;
};

extern ShellCalls shellCalls;

/// SHGetFolderPathA of CSIDL_COMMON_APPDATA, which creates a missing folder; the environment's PROGRAMDATA or else
/// /var/lib, which are not created. Writes the narrow path, zero-terminated, into a buffer of PATH_BUFFER_SIZE. Returns
/// 0 or the system's failure code.
[[nodiscard]] inline std::int32_t commonAppDataFolder(char* buffer) { return shellCalls.commonAppDataFolder(buffer); }

/// PathAppendA. Joins two paths in place, with exactly one PATH_SEPARATOR (Text.h), in a buffer of PATH_BUFFER_SIZE.
/// Returns false if the result does not fit.
inline bool appendToPath(char* path, const char* more) { return shellCalls.appendToPath(path, more); }

} // namespace platform
