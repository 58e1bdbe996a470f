#pragma once

// Runs code of the program that may end the process, and goes on instead. The tool asks that code what it would do, so
// that the two never differ.
//
//     const std::optional<End> end = endOf([&] { table.value(QLOG_MAX_FILES); });
//
// Main thread only, while no other thread runs. No log client may be registered: the texts go to the standard streams
// then, where they are caught.

#include <functional>
#include <optional>
#include <string>

namespace Tool
{

/// What the program would write when it ends.
struct End
{
    std::string explanation; ///< on standard error; may be empty
    std::string check;       ///< the last line on standard output: the check or assertion that has failed

    [[nodiscard]] std::string text() const
    {
        return explanation.empty() ? "the program ends: " + check : explanation + "; the program ends: " + check;
    }
};

/// Returns nothing if the code does not end the process. What it writes to the standard streams does not appear there.
[[nodiscard]] std::optional<End> endOf(const std::function<void()>& code);

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
