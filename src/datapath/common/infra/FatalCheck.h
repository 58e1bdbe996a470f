#pragma once

// The two ways to stop the process when something is wrong beyond repair. Each names its place: the
// unit's path below the source root, and either a stable message number that support matches on or
// the line.
//
// The check is a line of level Assert; whoever streams into it explains. The Logger flushes its
// clients, writes the line to standard output and ends the process:
//
//     CheckFailure(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(204), "m_clientsCnt < 4")
//         << " m_clientsCnt=" << m_clientsCnt << " " << std::endl;
//
// The assertion is a line of level Error and the end of the process right after it. Before there is a log
// client, its text goes to standard output:
//
//     failAssertion(LoggerId::NON, THIS_METHOD, SourcePlace::here(), "h != NULL");
//
// Any thread may call. The condition is the text of what should have held.

#include "datapath/common/infra/LogBasics.h"
#include "datapath/common/infra/LogItem.h"

/// The line of a failed check, up to the explanation. Ending the line ends the process, unless the
/// Logger's hook lets it go on.
class CheckFailure : public LogItem
{
public:
    CheckFailure(LoggerId loggerId, const MethodText& method, const SourcePlace& place, const char* condition);
};
