#pragma once

// Shows what an examination of the tweaks has found (TweaksExamination.h), for people and for programs.

#include "tools/tavro/TweaksExamination.h"

#include <ostream>
#include <string>
#include <vector>

namespace Tool
{

/// How findings are shown.
struct FindingsForm
{
    std::string folder; ///< stands before the names of files; may be empty
    bool hasOnlyErrors = false;
    bool isJson = false;
};

/// Shows each finding on a line of its own, `file:line: error: text`, or all of them as one JSON array. Returns whether
/// there was one to show.
bool writeFindings(std::ostream& out, const std::vector<Finding>& findings, const FindingsForm& form);

/// Which settings are shown, and how.
struct SettingsForm
{
    std::vector<std::string> names; ///< none: those that are set
    bool hasAll = false;            ///< also those that are not set, with their defaults
    bool isJson = false;
};

/// Shows value, origin, type, unit and meaning. Returns the names among the wanted ones that are neither known nor set.
[[nodiscard]] std::vector<std::string> writeSettings(std::ostream& out, const Examination& examination,
                                                     const SettingsForm& form);

} // namespace Tool
