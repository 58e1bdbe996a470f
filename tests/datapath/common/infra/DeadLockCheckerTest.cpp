#include "datapath/common/infra/DeadLockChecker.h"

#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/Tweaks.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <gtest/gtest.h>

namespace
{

const std::string LEASE = ",NON,DlcKeepalive,checkLease,";
constexpr std::uint32_t SILENT = DlcKeepalive::NOTHING_DUE;

struct DeadLockChecker : LogTest
{
    DeadLockChecker()
    {
        waitForOwnThreads();
        client.newMessages();
    }
};

TEST_F(DeadLockChecker, ReportsWhatIsWithoutProgressForMoreThanAnInterval)
{
    DlcKeepalive keepalive("Writer");
    keepalive.setTimeoutSec(180);
    const auto expectChecks = [&](const std::vector<std::pair<std::uint64_t, std::uint32_t>>& checks) {
        for (const auto& [nowMs, secondsLeft] : checks)
        {
            EXPECT_EQ(secondsLeft, keepalive.checkLease(nowMs, 60)) << nowMs;
            EXPECT_EQ(secondsLeft == SILENT ? Texts()
                                            : Texts{"Error" + LEASE + "Writer is stuck for " +
                                                    std::to_string(180 - secondsLeft) + " sec"},
                      client.newMessages());
        }
    };
    expectChecks({{1'000'000, SILENT}, {1'060'999, SILENT}, {1'061'000, 119}, {1'180'999, 0}});
    keepalive.setAlive();
    expectChecks({{1'300'000, SILENT}, {1'360'000, SILENT}, {1'400'000, 80}});
    keepalive.disarm();
    expectChecks({{2'000'000, SILENT}});
    keepalive.arm();
    expectChecks({{3'000'000, SILENT}, {3'060'000, SILENT}});
}

TEST_F(DeadLockChecker, ATimeOutEndsTheProcessAfterTheBackTraces)
{
    Tweaks::instance().update("t_defaultDlcTimeoutSec", "100");
    DlcKeepalive keepalive("");
    const std::string name = "pid=" + std::to_string(platform::currentThreadId());
    EXPECT_EQ(SILENT, keepalive.checkLease(0, 60));
    const auto expectTimeOut = [&](const char* disableBtPrint, const Texts& backTraces) {
        Tweaks::instance().update("t_disableBtPrint", disableBtPrint);
        client.newMessages();
        EXPECT_EQ(0U - 1, keepalive.checkLease(101'000, 60));
        Texts expected{"Error" + LEASE + name + " is stuck for 101 sec",
                       "Control" + LEASE + name +
                           " waited too long  deltaSec=101  m_timeoutSec=100  m_listener=0000000000000000  "
                           "checking custom behavior",
                       "Assert" + LEASE + " datapath/common/infra/DeadLockChecker.cpp #: false failed. " + name +
                           " waited too long"};
        expected.insert(expected.end() - 1, backTraces.begin(), backTraces.end());
        expectMatches(expected, client.newMessages());
    };
    expectTimeOut("1", {"Info,NON,DlcKeepalive,printThreadsBackTrace,backtrace printing is disabled"});
    const std::string printer = "Info,NON,ThreadBacktracePrinter,print,";
    const std::string named = printer + " threadName=~ pid=#";
    const std::string traced = printer + "currently not Implemented in windows threadId=#  threadData=0  threadName=~ ";
    expectTimeOut("0", {"Info,NON,MemWatcher,iterateThreads,start", named, traced, named, traced,
                        "Info,NON,MemWatcher,iterateThreads,done"});
    EXPECT_EQ(2, client.count("~ threadName=MemShieldAO pid=#") +
                     client.count("~ threadName=class DeadLockCheckerManager pid=#"));
    Tweaks::instance().update("t_disableBtPrint", "");
    const ScopedProcessEnd ending;
    EXPECT_THROW(keepalive.checkLease(101'000, 60), ProcessEnded);
    EXPECT_PRED2(matches, client.last(), "Error,NON,Tweaks,longVal,Assertion (false) failed ~Tweaks.cpp #");
}

TEST_F(DeadLockChecker, KeepalivesAreRegisteredOnce)
{
    FutureInternal::Future<RcStatus> done;
    const std::uint64_t before = MemShield::systemHeapBytes();
    auto* const keepalive = GuardedMemory::create<DlcKeepalive>({"DlcKeepalive", SourcePlace::here()}, "Request");
    DeadLockCheckerManager::instance().registerChecker(keepalive);
    done.addObserver(keepalive);
    done.set(RC_OK);
    EXPECT_EQ(before, MemShield::systemHeapBytes());
    DeadLockCheckerManager::instance().unregisterChecker(keepalive);
    std::ostringstream failure;
    failure << ", datapath/common/infra/DeadLockChecker.cpp #: ret failed.  checker=" << std::hex
            << reinterpret_cast<std::uintptr_t>(keepalive) << " checker ";
    expectMatches(
        {"registerChecker" + failure.str() + "already registered", "unregisterChecker" + failure.str() + "not found"},
        client.messagesAfter("Assert,NON,DeadLockCheckerManager,"));
}

} // namespace
