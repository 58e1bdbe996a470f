#pragma once

// The verbs of the command line. Each function adds its verbs; the one that the user has chosen sets the exit code
// while the command line is parsed.

#include <CLI/CLI.hpp>

namespace Tool
{

/// One of the verbs that are added later has to follow. A word that is none of them is named in the message.
void expectVerb(CLI::App& app);

void addDoctorVerb(CLI::App& app, int& exitCode);
void addLogVerbs(CLI::App& app, int& exitCode);
void addTweaksVerbs(CLI::App& app, int& exitCode);

/// Adds to the verb "tweaks" those about the two copies of the consistent file.
void addTweaksPairVerbs(CLI::App& tweaks, int& exitCode);

} // namespace Tool
