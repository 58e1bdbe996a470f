// An outsider's program: it has names and casts that the library's own code does without.

#include "datapath/common/infra/ActiveObject.h"
#include "datapath/common/infra/Future.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/Tweaks.h"

#include <cstdio>

struct Order
{
    int REQUIRES = 0; // minutes
    int GUARDED_BY = 0;
    int CAPABILITY = 0;
};

class ConsoleClient : public LoggerClient
{
public:
    void log(const std::string& line) override { std::fputs(line.c_str(), stdout); }
};

struct Add : ActiveObject::Action
{
    Add(const Order& added, const FutureInternal::Future<int>& result) : order(added), sum(result) {}
    void execute() override { sum.set(order.REQUIRES + order.GUARDED_BY + order.CAPABILITY); }

    Order order;
    FutureInternal::Future<int> sum;
};

int main(int argc, char**)
{
    MemShield::setEnabled(false);
    ConsoleClient client;
    Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
    static const platform::Atomic<bool> isVerbose = false;
    ActiveObject worker("Adder", &isVerbose);
    worker.open();
    const FutureInternal::Future<int> sum;
    const Order order = {(int)(40.0 + argc), 0, 1};
    worker.enqueue(GuardedMemory::create<Add>({"Add", SourcePlace::here()}, order, sum));
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
        << "sum=" << sum.get() << " maxFiles=" << Tweaks::instance().value(GEN_FILE_LOGGER_MAX_FILES) << std::endl;
    worker.terminateAllThreads();
    Logger::instance().unregisterClient(&client);
}
