// Runs one hot path a given number of times; scripts/instructions counts its instructions from outside.
//
//     hot_paths log|lock|action|future|allocation|tweak TIMES

#include "datapath/common/infra/ActiveObject.h"
#include "datapath/common/infra/Future.h"
#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/Tweaks.h"

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
        LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD) << "copied files=" << times << " of " << 4711 << std::endl;
    }
    Logger::instance().unregisterClient(&client);
}

void repeatLock(int times)
{
    for (Mutex mutex; times != 0; --times)
    {
        const MutexGuard guard(mutex);
    }
}

void repeatAction(int times)
{
    Semaphore done(0);
    ActiveObject object("Counter", &isVerbose);
    object.open();
    for (; times != 0; --times)
    {
        object.enqueue(GuardedMemory::create<Counting>({"Counting", SourcePlace::here()}, done, times == 1));
    }
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

void repeatTweak(int times)
{
    for (Tweaks::instance().update("t_counted", "7"); times != 0; --times)
    {
        static_cast<void>(Tweaks::instance().longVal("t_counted", 0));
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::map<std::string, std::function<void(int)>> paths{{"log", repeatLog},
                                                                {"lock", repeatLock},
                                                                {"action", repeatAction},
                                                                {"future", repeatFuture},
                                                                {"allocation", repeatAllocation},
                                                                {"tweak", repeatTweak}};
    const auto path = argc == 3 ? paths.find(argv[1]) : paths.end();
    if (path == paths.end() || std::stoi(argv[2]) <= 0)
    {
        std::cerr << "usage: hot_paths log|lock|action|future|allocation|tweak TIMES\n";
        return 2;
    }
    MemShield::setEnabled(false);
    path->second(std::stoi(argv[2]));
    return 0;
}
