// Runs one hot path a given number of times; scripts/check-instructions counts its instructions from outside. A path
// may write files into the working folder.
//
//     hot_paths PATH TIMES

#include "datapath/common/infra/ActiveObject.h"
#include "datapath/common/infra/Future.h"
#include "datapath/common/infra/GenFileLogger.h"
#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/MemoryPool.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/Tweaks.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <map>
#include <string>

namespace
{

const platform::Atomic<bool> isVerbose = false;

struct Dropping : LoggerClient
{
    void log(const std::string& /*line*/) override {}
};

struct Waiting : ActiveObject::Action
{
    explicit Waiting(Semaphore& waitedFor) : semaphore(waitedFor) {}
    void execute() override { semaphore.wait(); }

    Semaphore& semaphore;
};

struct Counting : ActiveObject::Action
{
    Counting(Semaphore& signalled, bool isLast) : done(signalled), signals(isLast) {}
    void execute() override { signals ? done.signal() : void(); }

    Semaphore& done;
    bool signals;
};

void repeatLog(int times)
{
    Dropping client;
    Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
    for (; times != 0; --times)
    {
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "copied files=" << times << " of " << 4711 << std::endl;
    }
    Logger::instance().unregisterClient(&client);
}

/// Only the calling thread is counted, which wakes the writer rarely: the lines are not flushed.
void repeatQueuedLine(int times)
{
    GenFileLogger::Settings settings = GenFileLogger::tweakedSettings("hot_paths", 100);
    settings.modes.flushEveryLine = false;
    GenFileLogger logger(std::move(settings));
    for (const std::string line(120, '.'); times != 0; --times)
    {
        logger.write(line.data(), static_cast<std::uint32_t>(line.size()));
    }
}

void repeatLock(int times)
{
    for (Mutex mutex; times != 0; --times)
    {
        const MutexGuard guard(mutex);
    }
}

/// The worker stands still meanwhile, because the memory that it gives back decides what the next action's costs.
void repeatAction(int times)
{
    Semaphore mayGoOn(0);
    Semaphore done(0);
    ActiveObject object("Counter", &isVerbose);
    object.open();
    object.enqueue(GuardedMemory::create<Waiting>({"Waiting", SourcePlace::here()}, mayGoOn));
    for (; times != 0; --times)
    {
        object.enqueue(GuardedMemory::create<Counting>({"Counting", SourcePlace::here()}, done, times == 1));
    }
    mayGoOn.signal();
    done.wait();
}

void repeatFuture(int times)
{
    for (; times != 0; --times)
    {
        FutureInternal::Future<RcStatus> future;
        future.set(RC_OK);
        static_cast<void>(future.get());
    }
}

void repeatAllocation(int times)
{
    for (; times != 0; --times)
    {
        MemShield::releaseObject(MemShield::allocate(100, 0, {"Block", SourcePlace::here()}), SourcePlace::here());
    }
}

void repeatGuardedAllocation(int times)
{
    MemShield::setEnabled(true);
    repeatAllocation(times);
}

void repeatMember(int times)
{
    const DynamicTweaks& tweaks = DynamicTweaks::instance();
    for (int sum = 0; times != 0; --times)
    {
        sum += tweaks.t_disableLogMemoryAllocationTracking ? 1 : 0;
    }
}

void repeatTimestamp(int times)
{
    for (; times != 0; --times)
    {
        static_cast<void>(Timer::instance().getTimestampMs());
    }
}

void repeatChunk(int times)
{
    constexpr std::uint32_t CHUNK_SIZE = 65'536;
    static auto& pool = *new MemoryPoolImpl({.chunkSize = CHUNK_SIZE, .maxPoolSize = std::uint64_t{4} * CHUNK_SIZE});
    ModuleMemoryInformation* const module = pool.registerModule({.name = "hot"});
    for (ScatteredBuf buffer; times != 0; --times)
    {
        static_cast<void>(pool.requestMemory(*module, CHUNK_SIZE, buffer, 0).get());
        pool.freeSegments(buffer.getSegments(), 0);
        buffer.clear();
    }
}

/// Each timer is added and called, and both write a log line.
void repeatTimer(int times)
{
    for (; times != 0; --times)
    {
        Timer::instance().addTimer([](void*) {}, nullptr, 0, true);
    }
}

void repeatTweak(int times)
{
    for (Tweaks::instance().update("t_counted", "7"); times != 0; --times)
    {
        static_cast<void>(Tweaks::instance().longVal("t_counted", 0));
    }
}

} // namespace

/// valgrind counts from here on, by this name, and on this thread alone.
extern "C" [[gnu::noinline]] void counted(const std::function<void(int)>& repeat, int times) { repeat(times); }

int main(int argc, char** argv)
{
    const std::map<std::string, std::function<void(int)>> paths{{"line", repeatLog},
                                                                {"queued-line", repeatQueuedLine},
                                                                {"lock", repeatLock},
                                                                {"action", repeatAction},
                                                                {"future", repeatFuture},
                                                                {"counted-allocation", repeatAllocation},
                                                                {"guarded-allocation", repeatGuardedAllocation},
                                                                {"tweak", repeatTweak},
                                                                {"dynamic-tweak", repeatMember},
                                                                {"timestamp", repeatTimestamp},
                                                                {"chunk", repeatChunk},
                                                                {"timer", repeatTimer}};
    const auto path = argc == 3 ? paths.find(argv[1]) : paths.end();
    if (path == paths.end() || std::stoi(argv[2]) <= 0)
    {
        std::cerr << "usage: hot_paths PATH TIMES\npaths:";
        std::ranges::for_each(paths, [](const auto& each) { std::cerr << " " << each.first; });
        std::cerr << "\n";
        return 2;
    }
    MemShield::setEnabled(false);
    counted(path->second, std::stoi(argv[2]));
    return 0;
}
