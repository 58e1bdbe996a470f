#pragma once

// Starts the agent that adds the checkpoint. The connection settings come from a text file beside the program, named as
// the program with ".conf" appended: four words separated by blanks, tabs or line ends, in the order local address,
// local port, peer address, peer port. Each launch reads the file again.

#include <string>
#include <string_view>

/// The file that is started; the system looks for it.
inline constexpr std::string_view AGENT_FILE_NAME = "TavroVssAgent.exe";

/// The name of this program's log without ".txt".
inline constexpr const char* CHECKPOINT_LOG = "TavroVssAgentGUI.exe.log";

/// What the settings file says. A missing word is empty.
struct ConnectionSettings
{
    std::string localURL;
    std::string localPort;
    std::string peerURL;
    std::string peerPort;
};

/// The settings file of the program with that path.
[[nodiscard]] std::string settingsPathOf(const std::string& programPath);

[[nodiscard]] ConnectionSettings readSettings(const std::string& settingsPath);

/// Bytes of the settings become one UTF-16 unit each, whatever their encoding; nothing in the name is escaped.
[[nodiscard]] std::u16string composeCommandLine(const ConnectionSettings& settings,
                                                const std::u16string& checkpointName);

/// Starts the agent for a checkpoint of that name (UTF-16) and does not wait for it. Each step is logged, and so is a
/// failure. Missing settings are passed on as empty texts. On POSIX standard error also tells the user that the agent
/// could not be started, why, and where the log is. Any thread may call.
void runAgent(const std::u16string& checkpointName);
