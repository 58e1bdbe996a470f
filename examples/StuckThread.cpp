// A thread that the deadlock checker watches, and that gets stuck on purpose: the process ends.

#include "datapath/common/infra/DeadLockChecker.h"
#include "datapath/common/infra/ProgramSetup.h"
#include "datapath/common/infra/windows/MemWatcher.h"
#include "platform/Threads.h"

int main()
{
    ProgramSetup::start("stuck_thread.log");

    MemWatcher::printMem();            // the memory of the process
    MemWatcher::instance().printCpu(); // what each thread took of the processors since the last report

    DlcKeepalive keepalive("Copier"); // armed from the start; the first keepalive of the process starts the checker
    keepalive.setTimeoutSec(2);
    for (int file = 0; file < 3; ++file)
    {
        platform::sleepMs(50); // work that makes progress
        keepalive.setAlive();
    }
    keepalive.disarm(); // while it is not armed, a thread may wait for as long as it likes
    keepalive.arm();    // the next piece of work begins
    platform::sleepMs(120'000);
}
