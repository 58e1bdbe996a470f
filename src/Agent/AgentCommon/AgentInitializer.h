#pragma once

// The start-up steps that the programs of the agent family share. For the main thread, once each.

#include <string>

/// Registers the defaults of the agent family's tweaks; what a tweak file sets stays. Makes the table of
/// tweaks and so reads its files.
void setAgentTweakDefaults();

/// Makes the program's log client, whose files lie in Tavro/logs below the machine's folder for application data, and
/// registers it for all levels. Without that folder the program runs without a log; only one that cannot be
/// created is reported, on standard output. To be called after setAgentTweakDefaults.
void initAgentLogger(const std::string& logFileName);

/// The path of the log file that initAgentLogger has set up; empty if there is none. Any thread may call at any time
/// but during initAgentLogger.
[[nodiscard]] std::string agentLogFile();
