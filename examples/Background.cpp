// Work in the background: an active object, a future with its result, and a timer.

#include "datapath/common/infra/ActiveObject.h"
#include "datapath/common/infra/Future.h"
#include "datapath/common/infra/ProgramSetup.h"
#include "datapath/common/infra/Timer.h"

#include <algorithm>
#include <string>
#include <utility>

namespace
{

using Count = FutureInternal::Future<std::int64_t>;

struct CountLines : ActiveObject::Action
{
    CountLines(std::string countedText, Count& count) : text(std::move(countedText)), result(count) {}
    void execute() override { result.set(std::ranges::count(text, '\n')); } // on a worker's thread

    const std::string text;
    Count result; // copies of a future share one result
};

platform::Atomic<bool> isVerbose = false; // on: the workers log more

} // namespace

int main()
{
    ProgramSetup::start("background.log");

    ActiveObject workers("Counter", &isVerbose);
    workers.open(); // one thread
    workers.open(); // and another one
    Count count;
    workers.enqueue(GuardedMemory::create<CountLines>({"CountLines", SourcePlace::here()}, "one\ntwo\n", count));
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "lines=" << count.get() << std::endl; // waits

    static auto& ticks = *new Semaphore(0); // never destroyed: the timer's thread lives as long as the process
    Timer::instance().start();              // once in a process
    Timer::instance().addTimer([](void*) { ticks.signal(); }, nullptr, 200, false); // after more than 200 ms
    ticks.wait();
    ticks.wait();
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "two ticks" << std::endl;

    workers.terminateAllThreads(); // waits for the actions that are being executed
    Logger::instance().flushClients();
}
