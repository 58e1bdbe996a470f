#pragma once

// What log lines are about: levels, parts of the product, and places in the source; and the functions with which units
// below LogItem log, which are the Logger and the watched containers that it uses. All other units stream into a
// LogItem or a CheckFailure.
//
//     failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "h != NULL");
//
// Any thread may call. A condition tells, as a text, what should have been true.

#include "datapath/common/infra/base/MethodText.h"

#include <cstdint>
#include <string_view>

/// How severe a line is. The clients' masks have one bit for each level.
enum class LogLevel : std::uint32_t
{
    Assert = 0, ///< a failed check; ends the process
    Fatal = 1,
    Error = 2,
    Warn = 3,
    Info = 4,
    Debug = 5,
    Control = 6, ///< control output, such as the listing of the configuration
    Further = 7, ///< written like Info, with a bit of its own in the masks
};

/// Which part of the product family a line comes from.
enum class LoggerId : std::uint32_t
{
    Invalid = 0,
    OLM = 1,
    KRN = 2,
    NON = 3,
};

/// A place in the source as messages name it: the unit's path below the source root, and a number.
struct SourcePlace
{
    const char* path;
    std::uint32_t number;

    /// This unit and a message number that stays the same when lines move.
    [[nodiscard]] static constexpr SourcePlace numbered(std::uint32_t number, const char* path = __builtin_FILE())
    {
        return {path, number};
    }

    /// This unit and line.
    [[nodiscard]] static constexpr SourcePlace here(std::uint32_t line = __builtin_LINE(),
                                                    const char* path = __builtin_FILE())
    {
        return {path, line};
    }
};

/// Logs one line. LogItem.cpp defines it.
void logLine(LogLevel level, const MethodText& method, std::string_view message);

/// Logs the failed assertion at level Error and ends the process. FatalCheck.cpp defines it.
[[noreturn]] void failAssertion(LoggerId loggerId, const MethodText& method, const SourcePlace& place,
                                const char* condition);

/// Logs a whole CheckFailure with its explanation; returns only if the Logger's hook lets the process go on.
/// FatalCheck.cpp defines it.
void failCheck(const MethodText& method, const SourcePlace& place, const char* condition, std::string_view explanation);
