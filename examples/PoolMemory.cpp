// Memory in chunks of one size, with a reservation and a limit for each part of a program.

#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemoryPool.h"
#include "datapath/common/infra/MemoryReport.h"
#include "datapath/common/infra/ProgramSetup.h"

#include <cstring>

int main()
{
    ProgramSetup::start("pool_memory.log");

    MemoryPoolImpl pool({.chunkSize = 65'536, .maxPoolSize = 64U << 20U}); // bytes
    ModuleMemoryInformation* const cache =
        pool.registerModule({.name = "Cache", .reservedBytes = 1U << 20U, .limitBytes = 8U << 20U});
    MemoryPoolImpl::instance().attachSubPool(pool); // memory reports show it from now on

    ScatteredBuf buffer;
    const RcStatus status = pool.requestMemory(*cache, 200'000, buffer, 1).get(); // waits until it is there
    for (const MemorySegment& segment : buffer.getSegments())
    {
        std::memset(segment.buffer, 0, segment.getSizeBytes());
    }

    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
        << "status=" << status << " segments=" << buffer.getSegments().size() << std::endl;
    MemoryReport::printAllocations();

    pool.freeSegments(buffer.getSegments(), 0);
    MemoryPoolImpl::instance().detachSubPool(pool);
    pool.unregisterModule(*cache);
    pool.releaseUnused(); // a pool that is destroyed with memory ends the process

    Logger::instance().flushClients();
}
