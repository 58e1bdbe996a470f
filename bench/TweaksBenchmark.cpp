// The table of tweaks: lookups by name and loading a file, beside a std::map under a lock and beside a configuration
// library whose table never changes and takes no lock. A dynamic tweak beside a variable.
//
// Loading logs a line for each tweak. A line is built whether or not there is a log client, so the clients of other
// benchmarks do not change the result.

#include "datapath/common/infra/DynamicTweaks.h"
#include "datapath/common/infra/Tweaks.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>
#ifdef BENCH_HAS_INIREADER
#include <INIReader.h>
#endif

bool plainBool = false; // not static, so the compiler must read it each time

namespace
{

namespace fs = std::filesystem;

constexpr const char* FILE_NAME = "tweaks_extension.txt"; // one of the files that a table of tweaks reads
constexpr std::int64_t MISSING = -1;

/// Distinct names in random order, such as "t_componentSettingFlush000123Ms".
std::vector<std::string> makeNames(std::size_t count)
{
    constexpr std::array WORDS = {"Queue", "Snapshot", "Memory",    "Retry",  "component", "Flush", "agent",   "Cloud",
                                  "IO",    "Setting",  "Threshold", "Logger", "Timeout",   "Max",   "replica", "Port"};
    constexpr std::array UNITS = {"Ms", "Sec", "Enabled", "Bytes", ""};
    std::mt19937 random(1);
    std::vector<std::string> names(count, "t_");
    for (std::size_t i = 0; i < count; ++i)
    {
        for (std::size_t words = 1 + random() % 5; words > 0; --words)
        {
            names[i] += WORDS[random() % WORDS.size()];
        }
        names[i] += std::to_string(1'000'000 + i).substr(1) + UNITS[random() % UNITS.size()];
    }
    return names;
}

/// While it lives, the working folder is a temporary one. A tweak file in it gives each name its index as its value.
class TweakFolder
{
public:
    explicit TweakFolder(const std::vector<std::string>& names = {})
    {
        fs::create_directory(m_path);
        fs::current_path(m_path);
        std::ofstream file(FILE_NAME);
        for (std::size_t i = 0; i < names.size(); ++i)
        {
            file << names[i] << " = " << i << '\n';
        }
    }
    TweakFolder(const TweakFolder&) = delete;
    TweakFolder& operator=(const TweakFolder&) = delete;
    ~TweakFolder()
    {
        fs::current_path(m_pathBefore);
        fs::remove_all(m_path);
    }

private:
    fs::path m_pathBefore = fs::current_path();
    fs::path m_path = fs::temp_directory_path() / ("tweaks-benchmark-" + std::to_string(getpid()));
};

// Each table reads the file in the working folder in its constructor.

struct FreshTweaks : Tweaks
{
    [[nodiscard]] std::int64_t read(const std::string& name) const { return longVal(name, MISSING); }
};

struct LockedMap
{
    struct Less : CaseInsensitiveLess
    {
        using is_transparent = void;
    };

    LockedMap()
    {
        std::ifstream file(FILE_NAME);
        for (const TweakLine& line : Tweaks::getTweaksFromStream(file, TweakFileKind::Consistent))
        {
            values[line.name] = std::stoll(line.valueText);
        }
    }

    [[nodiscard]] std::int64_t read(const std::string& name) const
    {
        const std::lock_guard guard(mutex);
        const auto found = values.find(name);
        return found == values.end() ? MISSING : found->second;
    }

    mutable std::mutex mutex;
    std::map<std::string, std::int64_t, Less> values;
};

/// Looks up COUNT names in random order, which is also their order in memory.
template <class Table, std::size_t COUNT> void lookUp(benchmark::State& state)
{
    static const std::vector<std::string> inFile = makeNames(COUNT);
    static const Table table = [] {
        const TweakFolder folder(inFile);
        return Table();
    }();
    static const std::vector<std::string> names = [] {
        std::vector<std::string> shuffled = inFile;
        std::ranges::shuffle(shuffled, std::mt19937(2));
        return std::vector<std::string>(shuffled);
    }();
    auto next = static_cast<std::size_t>(state.thread_index()) * COUNT / static_cast<std::size_t>(state.threads());
    std::int64_t smallest = 0;
    for (auto _ : state)
    {
        smallest = std::min(smallest, table.read(names[next]));
        next = next + 1 == COUNT ? 0 : next + 1;
    }
    if (smallest == MISSING)
    {
        state.SkipWithError("a name was not found");
    }
}

/// Loads into memory that is fresh from the system, as when a program starts.
template <class Table> void load(benchmark::State& state)
{
    const std::vector<std::string> names = makeNames(static_cast<std::size_t>(state.range()));
    const TweakFolder folder(names);
    std::optional<Table> table;
    for (auto _ : state)
    {
        state.PauseTiming();
        table.reset();
        malloc_trim(0);
        state.ResumeTiming();
        table.emplace();
    }
    if (table->read(names.back()) != state.range() - 1)
    {
        state.SkipWithError("the file was not loaded");
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * state.range());
}

template <class Flag> void readFlag(benchmark::State& state, const Flag& flag)
{
    std::int64_t count = 0;
    for (auto _ : state)
    {
        count += flag ? 1 : 0;
        benchmark::ClobberMemory(); // the flag must be read again
    }
    benchmark::DoNotOptimize(count);
}

void dynamicTweak(benchmark::State& state)
{
    const TweakFolder folder; // for the table of the process, which the first run makes
    readFlag(state, DynamicTweaks::instance().t_IOVerboseLogs);
}

void peerBool(benchmark::State& state) { readFlag(state, plainBool); }

double least(const std::vector<double>& times) { return std::ranges::min(times); }

void withFileSizes(benchmark::internal::Benchmark* loading)
{
    loading->Arg(20'000)->Arg(200'000)->UseRealTime()->ComputeStatistics("least", least);
}

BENCHMARK(lookUp<FreshTweaks, 100>)->Name("longVal/100")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(lookUp<FreshTweaks, 100'000>)->Name("longVal/100000")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(lookUp<LockedMap, 100>)->Name("peerMap/100")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(lookUp<LockedMap, 100'000>)->Name("peerMap/100000")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(load<FreshTweaks>)->Name("loadTweaks")->Apply(withFileSizes);
BENCHMARK(dynamicTweak);
BENCHMARK(peerBool);

#ifdef BENCH_HAS_INIREADER
struct IniFile
{
    [[nodiscard]] std::int64_t read(const std::string& name) const { return reader.GetInteger("", name, MISSING); }

    INIReader reader{FILE_NAME};
};

BENCHMARK(lookUp<IniFile, 100>)->Name("peerIniGet/100")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(lookUp<IniFile, 100'000>)->Name("peerIniGet/100000")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(load<IniFile>)->Name("peerIniLoad")->Apply(withFileSizes);
#endif

} // namespace
