#pragma once

// Starts the agent that adds the checkpoint. The connection settings come from a text file beside the program, named as
// the program with ".conf" appended: four words separated by blanks, tabs or line ends, in the order local address,
// local port, peer address, peer port. Each launch reads the file again.

#include <string>

/// Starts the agent for a checkpoint of that name (UTF-16) and does not wait for it. Each step is logged, and so is a
/// failure. Missing settings are passed on as empty texts. On POSIX standard error also tells the user that the agent
/// could not be started, why, and where the log is. Any thread may call.
void runAgent(const std::u16string& checkpointName);
