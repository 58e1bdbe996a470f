#pragma once

// The two ways to end the process when something is wrong beyond repair. Each names its place: the
// unit's path below the source root, and either a stable message number that support matches on or
// the line.
//
// A failed check is a line of level Assert, into which the caller streams an explanation. The Logger flushes its
// clients, writes the line to standard output and ends the process:
//
//     CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(204), "m_clientsCnt < 4")
//         << " m_clientsCnt=" << m_clientsCnt << " " << std::endl;
//
// A failed assertion is a line of level Error, right after which the process ends. While there is no log client, its
// text goes to standard output:
//
//     failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "h != NULL");
//
// Any thread may call. The condition tells, as a text, what should have been true.

#include "datapath/common/infra/LogBasics.h"
#include "datapath/common/infra/LogItem.h"

/// The line of a failed check, up to the explanation. Ending the line ends the process, unless the
/// Logger's hook lets it go on.
class CheckFailure : public LogItem
{
public:
    [[nodiscard("end the line: << std::endl")]] CheckFailure(LoggerId loggerId, const MethodText& method,
                                                             const SourcePlace& place, const char* condition);
};
