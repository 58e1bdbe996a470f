// One log line of about 120 bytes with eight streamed pieces: built and handed to a client that does nothing. The peer
// builds the same text with std::ostringstream, with a constant head, and hands it to no client.

#include "datapath/common/infra/LogItem.h"

#include <sstream>

#include <benchmark/benchmark.h>

namespace
{

class IdleClient : public LoggerClient
{
public:
    void log(const std::string& line) override { benchmark::DoNotOptimize(line.data()); }
};

void registerOnce()
{
    static IdleClient client;
    static const bool isRegistered = [] {
        Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
        return true;
    }();
    benchmark::DoNotOptimize(isRegistered);
}

template <class Stream> void streamMessage(Stream&& stream, int value)
{
    stream << "write took longer than expected, waitedMs=" << value << " bytes=" << 65536 << " queued=" << value
           << " retries=" << 3 << std::endl;
}

void logItem(benchmark::State& state)
{
    registerOnce();
    int value = 12345;
    for (auto _ : state)
    {
        streamMessage(LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD), value++);
    }
    state.SetItemsProcessed(state.iterations());
}

void peerOstringstream(benchmark::State& state)
{
    int value = 12345;
    for (auto _ : state)
    {
        std::ostringstream stream;
        stream << "2024-03-05 07:08:09.042,Info,4711,NON,,logItem,";
        streamMessage(stream, value++);
        benchmark::DoNotOptimize(stream.str());
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(logItem)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(peerOstringstream)->ThreadRange(1, 4)->UseRealTime();

} // namespace
