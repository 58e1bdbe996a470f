#pragma once

// The verbs of the command line. Each function adds its verbs; the one that the user has chosen sets the exit code
// while the command line is parsed.

#include <CLI/CLI.hpp>

namespace Tool
{

void addDoctorVerb(CLI::App& app, int& exitCode);
void addTweaksVerbs(CLI::App& app, int& exitCode);

} // namespace Tool
