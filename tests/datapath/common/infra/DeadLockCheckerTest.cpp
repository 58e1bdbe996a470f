#include "datapath/common/infra/DeadLockChecker.h"

#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/Tweaks.h"
#include "tests/support/Support.h"

#include <algorithm>

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
    auto check = [&, now = std::uint64_t{1'000'000}](int laterMs) mutable {
        return keepalive.checkLease(now += static_cast<std::uint64_t>(laterMs), 60);
    };
    const auto expectStuck = [&](const std::string& seconds) {
        EXPECT_EQ(Texts{"Error" + LEASE + "Writer is stuck for " + seconds + " sec"}, client.newMessages());
    };
    keepalive.setTimeoutSec(180);
    EXPECT_TRUE(check(0) == SILENT && check(60'999) == SILENT); // made alive
    EXPECT_EQ(Texts(), client.newMessages());
    EXPECT_EQ(119U, check(1));
    expectStuck("61");
    EXPECT_EQ(0U, check(119'999));
    expectStuck("180");
    keepalive.setAlive();
    EXPECT_TRUE(check(100'000) == SILENT && check(60'000) == SILENT);
    EXPECT_EQ(80U, check(40'000));
    expectStuck("100");
    keepalive.disarm();
    EXPECT_EQ(SILENT, check(1'000'000));
    keepalive.arm();
    EXPECT_TRUE(check(1'000'000) == SILENT && check(60'000) == SILENT);
    EXPECT_EQ(Texts(), client.newMessages());
}

TEST_F(DeadLockChecker, ATimeOutEndsTheProcessAfterTheBackTraces)
{
    Tweaks::instance().update("t_defaultDlcTimeoutSec", "100");
    DlcKeepalive keepalive("");
    const std::string name = "pid=" + std::to_string(platform::currentThreadId());
    EXPECT_EQ(100U, keepalive.timeoutSec());
    EXPECT_EQ(SILENT, keepalive.checkLease(0, 60));
    const auto timeOut = [&] {
        client.newMessages();
        EXPECT_EQ(0U - 1, keepalive.checkLease(101'000, 60));
        return client.newMessages();
    };
    const std::string stuck = "Error" + LEASE + name + " is stuck for 101 sec";
    const std::string tooLong = "Control" + LEASE + name +
                                " waited too long  deltaSec=101  m_timeoutSec=100  m_listener=0000000000000000  "
                                "checking custom behavior";
    const std::string end =
        "Assert" + LEASE + " datapath/common/infra/DeadLockChecker.cpp #: false failed. " + name + " waited too long";
    Tweaks::instance().update("t_disableBtPrint", "1");
    expectMatches({stuck, tooLong, "Info,NON,DlcKeepalive,printThreadsBackTrace,backtrace printing is disabled", end},
                  timeOut());
    Tweaks::instance().update("t_disableBtPrint", "0");
    const std::string printer = "Info,NON,ThreadBacktracePrinter,print,";
    const std::string named = printer + " threadName=~ pid=#";
    const std::string traced = printer + "currently not Implemented in windows threadId=#  threadData=0  threadName=~ ";
    expectMatches({stuck, tooLong, "Info,NON,MemWatcher,iterateThreads,start", named, traced, named, traced,
                   "Info,NON,MemWatcher,iterateThreads,done", end},
                  timeOut());
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
    client.newMessages();
    DeadLockCheckerManager::instance().registerChecker(keepalive);
    done.addObserver(keepalive);
    done.set(RC_OK);
    EXPECT_EQ(before, MemShield::systemHeapBytes());
    DeadLockCheckerManager::instance().unregisterChecker(keepalive);
    std::ostringstream address;
    address << std::hex << reinterpret_cast<std::uintptr_t>(keepalive);
    const std::string failure = ", datapath/common/infra/DeadLockChecker.cpp #: ret failed.  checker=" + address.str();
    const std::string manager = "Assert,NON,DeadLockCheckerManager,";
    expectMatches({manager + "registerChecker" + failure + " checker already registered",
                   manager + "unregisterChecker" + failure + " checker not found"},
                  client.newMessages());
}

} // namespace
