#pragma once

// Runs code of the program that may end the process, and goes on instead. The tool asks that code what it would do, so
// that the two never differ.
//
//     const std::optional<std::string> end = endOf([&] { table.value(QLOG_MAX_FILES); });
//
// Main thread only, while no other thread runs. No log client may be registered: the texts go to the standard streams
// then, where they are caught.

#include <functional>
#include <optional>
#include <string>

namespace Tool
{

/// Returns nothing if the code does not end the process. Otherwise returns what the program would tell on standard
/// error, followed by the assertion in parentheses. What the code writes to the standard streams does not appear there.
[[nodiscard]] std::optional<std::string> endOf(const std::function<void()>& code);

/// While one exists, code that makes folders makes none and believes that it did.
class NoFolders
{
public:
    NoFolders();
    NoFolders(const NoFolders&) = delete;
    NoFolders& operator=(const NoFolders&) = delete;
    ~NoFolders();
};

} // namespace Tool
