#pragma once

// Starts the agent that adds the checkpoint. The connection settings come from a text file beside
// the program, named as the program with ".conf" appended: four words separated by blanks, tabs or
// line ends, in the order local address, local port, peer address, peer port. The file is read anew
// for each launch.

#include <string>

/// Starts the agent for a checkpoint of that name (UTF-16) and does not wait for it. What it does
/// and what fails is logged; missing settings are passed on as empty. On POSIX the user is also told on standard
/// error that the agent could not be started, why, and where the log is. Any thread may call.
void runAgent(const std::u16string& checkpointName);
