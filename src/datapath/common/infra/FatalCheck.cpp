#include "datapath/common/infra/FatalCheck.h"

#include "platform/Process.h"

CheckFailure::CheckFailure(LoggerId loggerId, const MethodText& method, const SourcePlace& place, const char* condition)
    : LogItem(loggerId, LogLevel::Assert, method)
{
    *this << " " << place.path << " " << place.number << ": " << condition << " failed. ";
}

void failAssertion(LoggerId loggerId, const MethodText& method, const SourcePlace& place, const char* condition)
{
    LogItem(loggerId, LogLevel::Error, method)
        << "Assertion (" << condition << ") failed " << place.path << " " << place.number << std::endl;
    platform::endProcess();
}
