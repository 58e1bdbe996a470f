#include "datapath/common/infra/LogItem.h"
#include "tests/support/Support.h"

#include <gtest/gtest.h>
#include <windows.h>

namespace
{

TEST(LastError, IsStillThereForTheMessageOfALogLine)
{
    const CapturingClient client;
    SetLastError(5);
    LogItem(LoggerId::NON, LogLevel::Error, "open") << "lastError=" << GetLastError() << std::endl;
    EXPECT_EQ("Error,NON,,open,lastError=5", client.last());
}

} // namespace
