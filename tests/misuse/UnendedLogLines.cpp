// Not part of a program: scripts/check-log-lines compiles it and expects a warning for each line that says so.

#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/LogItem.h"

#include <iomanip>

namespace
{

LogItem item() { return {LoggerId::NON, LogLevel::Info, "f"}; }

CheckFailure failure() { return {LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "n < 4"}; }

template <class T> void logValue(const T& value)
{
    item() << value; // warning
    item() << value << std::endl;
}

} // namespace

void logLines(bool isSlow)
{
    LogItem(LoggerId::NON, LogLevel::Info, "f");                             // warning
    CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "n < 4"); // warning
    LogItem(LoggerId::NON, LogLevel::Info, "f") << "text";                   // warning
    item() << "text";                                                        // warning
    item() << "text" << 1 << '\n';                                           // warning
    item() << "text" << 1.5;                                                 // warning
    item() << 1.5 << std::hex;                                               // warning
    item() << std::setw(5) << 1;                                             // warning
    item() << "text" << std::endl << "more";                                 // warning
    failure() << " n=" << 5 << " ";                                          // warning
    if (isSlow)
        item() << "slow";                         // warning
    const auto later = [] { item() << "later"; }; // warning
    later();
    logValue(5);

    item() << std::endl;
    item() << "text" << 1.5 << std::hex << 255 << std::endl;
    item() << std::setw(5) << 1 << std::flush;
    failure() << " n=" << 5 << " " << std::endl;
    LogItem named(LoggerId::NON, LogLevel::Info, "f");
    named << "text";
    named << std::endl;
}
