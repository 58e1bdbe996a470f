#pragma once

// The error numbers that platform calls report. On every target they are those of Windows, because log lines and
// messages quote them; the POSIX implementation maps errno to the nearest one.

#include <cstdint>

namespace platform
{

/// A reason for a failure, named after what happened; Success is 0.
enum class ErrorNumber : std::uint32_t
{
    Success = 0,
    FileNotFound = 2,
    PathNotFound = 3,
    TooManyOpenFiles = 4,
    AccessDenied = 5,
    InvalidHandle = 6,
    NotEnoughMemory = 8,
    NotSameDevice = 17,
    NoMoreFiles = 18,
    WriteProtect = 19,
    SharingViolation = 32,
    NotSupported = 50,
    InvalidParameter = 87,
    DiskFull = 112,
    InvalidName = 123,
    FolderNotEmpty = 145,
    Busy = 170,
    AlreadyExists = 183,
    BadExecutable = 193,
    NameTooLong = 206,
    InvalidFolder = 267,
    IoDevice = 1117,
    CannotResolveName = 1921,
};

/// The number as messages quote it.
[[nodiscard]] constexpr std::uint32_t toNumber(ErrorNumber error) noexcept { return static_cast<std::uint32_t>(error); }

} // namespace platform
