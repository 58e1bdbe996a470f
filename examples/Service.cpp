// A small service from its start to its end: a log on the console, an active object with two workers, memory in chunks
// that two modules share, results that are waited for, a timer, and a report of the memory in use.

#include "datapath/common/infra/ActiveObject.h"
#include "datapath/common/infra/MemoryPool.h"
#include "datapath/common/infra/MemoryReport.h"
#include "datapath/common/infra/Timer.h"
#include "platform/Atomic.h"

#include <iostream>

class ConsoleClient : public LoggerClient
{
public:
    void log(const std::string& line) override { std::cout << line; }
    void flush() override { std::cout.flush(); }
};

/// Work for a worker: uses what was read, and gives the memory back.
struct Digest : ActiveObject::Action
{
    Digest(MemoryPoolImpl& usedPool, ScatteredBuf& buffer) : pool(usedPool), read(buffer) {}
    void execute() override { pool.freeSegments(read.getSegments(), 0); }

    MemoryPoolImpl& pool;
    ScatteredBuf& read;
};

int main()
{
    MemShield::setEnabled(false); // memory is counted, not guarded; to be called before anything is allocated
    ConsoleClient client;
    Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
    static constinit platform::Atomic<bool> isVerbose = false;
    ActiveObject workers("Worker", &isVerbose);
    workers.open();                                                       // one thread
    workers.open();                                                       // and another one
    MemoryPoolImpl pool({.chunkSize = 65'536, .maxPoolSize = 2U << 20U}); // one block of 32 chunks
    MemoryPoolImpl::instance().attachSubPool(pool);                       // reports show it then
    ModuleMemoryInformation* const reader = pool.registerModule({.name = "Reader"});
    ModuleMemoryInformation* const writer = pool.registerModule({.name = "Writer", .limitBytes = 262'144});

    ScatteredBuf read;
    ScatteredBuf written;
    const RcStatus status = pool.requestMemory(*reader, 2U << 20U, read, 1).get(); // all that there is
    const FutureInternal::Future<RcStatus> served = pool.requestMemory(*writer, 100'000, written, 2);
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
        << "reader status=" << status << ", writer waits=" << !served.isSet() << std::endl;
    workers.enqueue(GuardedMemory::create<Digest>({"Digest", SourcePlace::here()}, pool, read));
    const RcStatus servedStatus = served.get(); // waits until the worker has given back enough
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
        << "writer status=" << servedStatus << " segments=" << written.getSegments().size() << std::endl;

    static auto& ticks = *new Semaphore(0); // never destroyed: the timer's thread lives as long as the process
    Timer::instance().addTimer([](void*) { ticks.signal(); }, nullptr, 100, false); // repeated every 100 ms
    Timer::instance().start();                                                      // the thread that calls it
    ticks.wait();
    ticks.wait();
    MemoryReport::printAllocations();

    workers.terminateAllThreads(); // the end, in reverse order: work, memory, log
    pool.freeSegments(written.getSegments(), 0);
    pool.unregisterModule(*writer);
    pool.unregisterModule(*reader);
    const std::uint64_t givenBack = pool.releaseUnused();
    MemoryPoolImpl::instance().detachSubPool(pool);
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
        << "service ended, bytes given back=" << givenBack << std::endl;
    Logger::instance().unregisterClient(&client);
}
