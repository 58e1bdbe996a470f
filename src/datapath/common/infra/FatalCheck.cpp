#include "datapath/common/infra/FatalCheck.h"

#include "platform/Process.h"

#include <iostream>

CheckFailure::CheckFailure(LoggerId loggerId, const MethodText& method, const SourcePlace& place, const char* condition)
    : LogItem(loggerId, LogLevel::Assert, method)
{
    *this << " " << place.path << " " << place.number << ": " << condition << " failed. ";
}

void failAssertion(LoggerId loggerId, const MethodText& method, const SourcePlace& place, const char* condition)
{
    const auto streamFailure = [&](std::ostream& stream) {
        stream << "Assertion (" << condition << ") failed " << place.path << " " << place.number << std::endl;
    };
    LogItem line(loggerId, LogLevel::Error, method);
    streamFailure(line);
    if (!Logger::instance().hasClients())
    {
        streamFailure(std::cout);
    }
    std::cout.flush(); // endProcess does not flush what was written before
    platform::endProcess();
}

void failCheck(const MethodText& method, const SourcePlace& place, const char* condition, std::string_view explanation)
{
    CheckFailure(LoggerId::NON, method, place, condition) << explanation << std::endl;
}
