#pragma once

// The first steps of a program. Without them it runs with guarded memory, the mode that finds misuse and is many times
// slower, and its log lines reach nobody.
//
//     int main()
//     {
//         FileLoggerClient& log = ProgramSetup::start("/var/log/example/example.log");
//         if (log.liveFileName().empty()) ...                        // the program runs, but without a log file
//         ...
//         Logger::instance().flushClients();                         // the last step, or the last lines are lost
//     }
//
// start takes the steps below one after the other. The main thread calls it once, before anything is allocated through
// GuardedMemory, so before the program starts threads, active objects or pools. Defaults of the program's own for
// tweaks (Tweaks::setDefaultValIfNotSet) come before it.

#include "datapath/common/infra/FileLoggerClient.h"
#include "datapath/common/infra/LogBasics.h"

#include <string>

namespace ProgramSetup
{

/// Chooses guarded or counted memory as the tweak t_enableMemshield says: counted, unless a tweak file sets it.
void chooseMemoryMode();

/// Makes a log client and registers it for all levels. The live file is basePath with ".txt"; its folder is made if it
/// is missing, but not the folders above that one. The tweak t_qlogMaxFiles, which must be set, is the budget of lines
/// that wait for the disk, in MiB. If the file cannot be opened, standard output says why and the lines are dropped.
/// The client stays until the process ends. place: what a memory report names as the origin of the client.
FileLoggerClient& startLogFile(const std::string& basePath, const SourcePlace& place = SourcePlace::here());

/// Both, in this order. Before that it sets the tweaks that have no default of their own and without which the library
/// would end the process, unless they are set: t_qlogMaxFiles to 3 MiB and t_disableBtPrint to 0.
FileLoggerClient& start(const std::string& basePath);

} // namespace ProgramSetup
