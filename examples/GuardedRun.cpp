// Leaks memory on purpose. With guarded memory (t_enableMemshield = on in tweaks_extension.txt) the memory report tells
// where it was allocated.

#include "datapath/common/infra/GuardedPtr.h"
#include "datapath/common/infra/Log.h"
#include "datapath/common/infra/MemoryReport.h"
#include "datapath/common/infra/ProgramSetup.h"

#include <array>

namespace
{

struct Session
{
    std::array<char, 1'000> received{};
};

Session* openSession() { return GuardedMemory::create<Session>({"Session", SourcePlace::here()}); }

void serve(bool isClosed)
{
    Session* const session = openSession();
    session->received.fill('x');
    if (isClosed) // the fault: otherwise nobody releases the session
    {
        GuardedMemory::destroy(session, SourcePlace::here());
    }
}

} // namespace

int main()
{
    ProgramSetup::start("guarded_run.log");

    const GuardedPtr<Session> owned(GuardedMemory::create<Session>({"Session", SourcePlace::here()}),
                                    {SourcePlace::here()}); // released with the pointer

    serve(true);
    serve(false);
    serve(false);
    MemoryReport::printAllocations();

    Logger::instance().flushClients();
}
