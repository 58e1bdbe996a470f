#pragma once

// The steps with which each program of the agent family starts. The main thread calls each of them once.
//
//     setAgentTweakDefaults();
//     initAgentLogger("Program.exe.log");

#include "datapath/common/infra/Tweaks.h"

#include <optional>
#include <string>

/// Sets each tweak that has a registered value (KnownTweaks.h) and that no file sets. The first use of the process's
/// table of tweaks reads those files.
void setAgentTweakDefaults();
void setAgentTweakDefaults(Tweaks& tweaks);

/// Makes the program's log client, whose files lie in Tavro/logs below the machine's folder for application data, and
/// registers it for all levels. If the system names no such folder, or Tavro cannot be created in it, the program runs
/// without a log; only the second failure is reported, on standard output. Must be called after setAgentTweakDefaults.
void initAgentLogger(const std::string& logFileName);

/// The folder Tavro for the data of the product family, and the path of a log without ".txt" below it, as
/// initAgentLogger uses them. Makes nothing.
struct AgentLogPlace
{
    std::string productFolder;
    std::string basePath;
};

/// Nothing if the system names no folder for application data.
[[nodiscard]] std::optional<AgentLogPlace> agentLogPlace(const std::string& logFileName);

/// The path of the log file that initAgentLogger has set up, or an empty text if there is none. Any thread may call,
/// except while initAgentLogger runs.
[[nodiscard]] std::string agentLogFile();
