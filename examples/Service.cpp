// A small service from its start to its end: a log on the console, a pool of two worker threads, memory in chunks that
// two modules share, results that are waited for, a timer, and a report of the memory in use.

#include "datapath/common/infra/ActiveObject.h"
#include "datapath/common/infra/MemoryPool.h"
#include "datapath/common/infra/Timer.h"

#include <iostream>

class ConsoleClient : public LoggerClient
{
public:
    void log(const std::string& line) override { std::cout << line; }
    void flush() override { std::cout.flush(); }
};

/// Work for a worker: done with what was read, it gives the memory back and says so.
class Digest : public ActiveObject::Action
{
public:
    Digest(MemoryPoolImpl& pool, ScatteredBuf& read, FutureInternal::Future<RcStatus> done)
        : m_pool(pool), m_read(read), m_done(std::move(done))
    {
    }

    void execute() override
    {
        LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD) << "digested bytes=" << m_read.totalBytes() << std::endl;
        m_pool.freeSegments(m_read.getSegments(), 0);
        m_read.clear();
        m_done.set(RC_OK);
    }

private:
    MemoryPoolImpl& m_pool;
    ScatteredBuf& m_read;
    FutureInternal::Future<RcStatus> m_done; // all copies share one state
};

/// On the timer's thread, as long as the process lives: what it uses is never destroyed.
void tick(void* context)
{
    LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD) << "tick" << std::endl;
    static_cast<Semaphore*>(context)->signal();
}

int main()
{
    MemShield::setEnabled(false); // memory is counted, not guarded; before anything is allocated
    ConsoleClient client;
    Logger::instance().registerClient(&client, Logger::ALL_LEVELS);

    static constinit std::atomic<bool> isVerbose = false;
    ActiveObject workers("Worker", &isVerbose);
    workers.open(); // one thread
    workers.open(); // and another one

    MemoryPoolImpl pool({.chunkSize = 65'536, .maxPoolSize = 2U << 20U}); // one block of 32 chunks
    MemoryPoolImpl::instance().attachSubPool(pool);                       // so that reports show it
    ModuleMemoryInformation* const reader = pool.registerModule({.name = "Reader"});
    ModuleMemoryInformation* const writer = pool.registerModule({.name = "Writer", .limitBytes = 262'144});

    ScatteredBuf read;
    ScatteredBuf written;
    const RcStatus status = pool.requestMemory(*reader, 2U << 20U, read, 1).get(); // all that there is
    const FutureInternal::Future<RcStatus> writerServed = pool.requestMemory(*writer, 100'000, written, 2);
    LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
        << "reader status=" << status << ", writer waits=" << !writerServed.isSet() << std::endl;

    const FutureInternal::Future<RcStatus> digested;
    workers.enqueue(MemShield::create<Digest>({"Digest", SourcePlace::here()}, pool, read, digested));
    if (digested.get() == RC_OK && writerServed.get() == RC_OK) // the writer got what the reader gave back
    {
        LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
            << "writer segments=" << written.getSegments().size() << std::endl;
    }

    static auto& ticks = *new Semaphore(0);
    Timer::instance().addTimer(tick, &ticks, 100, false); // every 100 ms or a little later, not only once
    Timer::instance().start();                            // the thread that calls it
    ticks.wait();
    ticks.wait();
    MemShield::instance().printAllocations();

    // The end, in reverse: nobody works, nobody holds memory, nobody reports.
    workers.terminateAllThreads();
    pool.freeSegments(written.getSegments(), 0);
    pool.unregisterModule(*writer);
    pool.unregisterModule(*reader);
    pool.releaseUnused();
    MemoryPoolImpl::instance().detachSubPool(pool);
    Logger::instance().unregisterClient(&client);
}
