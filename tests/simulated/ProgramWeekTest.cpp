// The whole program during a week of virtual time.

#include "datapath/common/infra/MemShield.h"
#include "platform/Dialog.h"
#include "platform/Entry.h"
#include "platform/Shell.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <cstring>
#include <malloc.h>
#include <sstream>

namespace
{

std::string appDataFolder;

struct Holdings
{
    int handles = openHandles();
    std::uint64_t bytes = mallinfo2().uordblks;
    std::uint64_t guardedBytes = MemShield::systemHeapBytes();
};

/// Lets a week and half a minute pass.
std::intptr_t showForAWeek(platform::ModuleHandle /*module*/, int /*dialogId*/, platform::DialogProcedure /*procedure*/)
{
    constexpr std::uint32_t DAY_MS = 86'400'000;
    platform::sleepMs(DAY_MS);
    const Holdings before;
    platform::sleepMs(6 * DAY_MS);
    const Holdings after;
    EXPECT_EQ(before.handles, after.handles);
    EXPECT_EQ(before.guardedBytes, after.guardedBytes);
    EXPECT_LT(after.bytes, before.bytes + 6U * 24 * 60) << "a byte a minute would be more";
    platform::sleepMs(30'000); // until the last check is over
    return 1;
}

TEST(Program, AWeekTakesNothingAndWritesALineAMinute)
{
    constexpr int MINUTES = 7 * 24 * 60;
    const ScratchFolder folder;
    appDataFolder = folder.path("");
    const ScopedReplacement data(platform::shellCalls.commonAppDataFolder,
                                 [](char* buffer) { return std::strcpy(buffer, appDataFolder.c_str()), 0; });
    const ScopedReplacement dialog(platform::dialogCalls.runDialog, showForAWeek);
    EXPECT_EQ(0, wWinMain(nullptr, nullptr, nullptr, 0));

    std::istringstream log(ScratchFolder::readText(folder.path("Tavro/logs/TavroVssAgentGUI.exe.log.txt")));
    Texts rest; // the lines from then on that are not about a check
    int checks = 0;
    bool isOpen = false;
    for (std::string line; std::getline(log, line);)
    {
        const bool isCheck = line.ends_with("DeadLockCheckerManager,run, m_lockSet.size()=1 ");
        checks += isCheck ? 1 : 0;
        isOpen && !isCheck ? rest.push_back(line) : void();
        isOpen = isOpen || line.ends_with("wWinMain,Showing dialog...");
    }
    EXPECT_EQ(MINUTES, checks);
    expectMatches({"~WindowsTimer,WindowsTimer, m_ticksPerMs=1000000 ", "~wWinMain,Done."}, rest);
}

} // namespace
