// What a process that a failed check or assertion ends leaves, seen from outside.

#include "datapath/common/infra/FatalCheck.h"
#include "tests/support/Support.h"

#include <iostream>

#include <gtest/gtest.h>

namespace
{

/// Writes each of its calls to standard output. Its destructor must never run.
class TellingClient : public LoggerClient
{
public:
    TellingClient() { Logger::instance().registerClient(this, 1U << 0U | 1U << 2U); }
    ~TellingClient() override { std::cout << "destroyed" << std::endl; }
    void log(const std::string& line) override { std::cout << "took " << line.substr(line.find(",NON")); }
    void flush() override { std::cout << "flushed" << std::endl; }
};

CHILD_SCENARIO(assertLine)
{
    std::atexit([] { std::cout << "exit handler" << std::endl; });
    static const TellingClient first;
    const TellingClient second;
    CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::numbered(17), "a == b") << " a=" << 1 << " " << std::endl;
    std::cout << "went on" << std::endl;
}

TEST(ProcessEnd, AnAssertLineIsFlushedWrittenToStandardOutputAndTheLast)
{
    const std::string message =
        ",NON,,assertLine, tests/datapath/common/infra/ProcessEndTest.cpp 17: a == b failed.  a=1 \n";
    const std::string taken = "took " + message + "flushed\n"; // from each client, before both are flushed again
    expectAbnormalEnd("assertLine", taken + taken + "flushed\nflushed\n~-~-~ ~:~:~,Assert,#" + message + "\n");
}

CHILD_SCENARIO(assertLineWithoutClients)
{
    Logger::instance().setAssertHandler(LoggerId::OLM, [](const std::string&) { std::cout << "handled" << std::endl; });
    LogItem(LoggerId::OLM, LogLevel::Assert, TAVRO_METHOD) << "alone" << std::endl;
}

TEST(ProcessEnd, AnAssertLineEndsTheProcessWithoutClientsToo)
{
    expectAbnormalEnd("assertLineWithoutClients", "handled\n~,OLM,,assertLineWithoutClients,alone\n\n");
}

CHILD_SCENARIO(assertion)
{
    static const TellingClient client;
    failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(4711), "h != NULL");
}

TEST(ProcessEnd, AFailedAssertionIsAFlushedErrorLineAndTheEnd)
{
    expectAbnormalEnd("assertion", "took ,NON,,assertion,Assertion (h != NULL) failed "
                                   "tests/datapath/common/infra/ProcessEndTest.cpp 4711\nflushed\n");
}

TEST(ProcessEnd, AFifthClientEndsTheProcess)
{
    const CapturingClient clients[4];
    const IgnoredAsserts ignoredAsserts;
    const CapturingClient fifth;
    EXPECT_TRUE(fifth.messages().empty());
    EXPECT_EQ("Assert,NON,Logger,registerClient, datapath/common/infra/Log.cpp 204: m_clientsCnt < 4 failed.  "
              "m_clientsCnt=4 ",
              clients[3].last());
}

} // namespace
