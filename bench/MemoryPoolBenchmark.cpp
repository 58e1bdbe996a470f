// Chunks of 65,536 bytes from a memory pool, requested, served at once and given back, beside lists of free chunks
// under a std::mutex; and requests that wait until memory is given back.

#include "datapath/common/infra/MemoryPool.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#ifdef BENCH_HAS_BOOST_POOL
#include <boost/pool/pool.hpp>
#endif

namespace
{

constexpr std::uint32_t CHUNK_SIZE = 65'536;
constexpr std::size_t MAX_THREADS = 4;
constexpr std::size_t BURST = 16;
constexpr std::uint64_t ENOUGH_BYTES = MAX_THREADS * BURST * CHUNK_SIZE;

/// One thread's chunks from the pool, for a module of its own.
class Pooled
{
public:
    explicit Pooled(int thread) : m_module(moduleOf(static_cast<std::size_t>(thread))) {}

    void take(std::size_t i)
    {
        benchmark::DoNotOptimize(pool().requestMemory(m_module, CHUNK_SIZE, m_buffers[i], i).get());
    }
    void giveBack(std::size_t i)
    {
        pool().freeSegments(m_buffers[i].getSegments(), 0);
        m_buffers[i].clear();
    }

private:
    static MemoryPoolImpl& pool()
    {
        static auto& pool = *new MemoryPoolImpl({.chunkSize = CHUNK_SIZE, .maxPoolSize = ENOUGH_BYTES});
        return pool;
    }
    static ModuleMemoryInformation& moduleOf(std::size_t thread)
    {
        static const auto modules = [] {
            std::array<ModuleMemoryInformation*, MAX_THREADS> made{};
            for (ModuleMemoryInformation*& module : made)
            {
                module = pool().registerModule({.name = "Module" + std::to_string(&module - made.data())});
            }
            return made;
        }();
        return *modules.at(thread);
    }

    ModuleMemoryInformation& m_module;
    std::array<ScatteredBuf, BURST> m_buffers;
};

/// The simplest peer: a list of free chunks, which hold the links themselves.
class FreeList
{
public:
    void* take()
    {
        const std::lock_guard guard(m_mutex);
        return std::exchange(m_first, m_first->next);
    }
    void giveBack(void* memory)
    {
        const std::lock_guard guard(m_mutex);
        m_first = ::new (memory) Free{m_first};
    }
    static FreeList& instance()
    {
        static FreeList list;
        return list;
    }

private:
    struct Free
    {
        Free* next;
    };

    FreeList()
    {
        for (std::uint64_t offset = 0; offset < ENOUGH_BYTES; offset += CHUNK_SIZE)
        {
            giveBack(m_block.get() + offset);
        }
    }

    const std::unique_ptr<char[]> m_block = std::make_unique<char[]>(ENOUGH_BYTES);
    std::mutex m_mutex;
    Free* m_first = nullptr;
};

/// One thread's chunks from a peer.
template <class List> class Listed
{
public:
    explicit Listed(int /*thread*/) {}
    void take(std::size_t i)
    {
        m_chunks[i] = List::instance().take();
        benchmark::DoNotOptimize(m_chunks[i]);
    }
    void giveBack(std::size_t i) { List::instance().giveBack(m_chunks[i]); }

private:
    std::array<void*, BURST> m_chunks;
};

template <class Chunks> void pairs(benchmark::State& state)
{
    Chunks chunks(state.thread_index());
    for (auto _ : state)
    {
        chunks.take(0);
        chunks.giveBack(0);
    }
}

template <class Chunks> void bursts(benchmark::State& state)
{
    Chunks chunks(state.thread_index());
    for (auto _ : state)
    {
        for (std::size_t i = 0; i < BURST; ++i)
        {
            chunks.take(i);
        }
        for (std::size_t i = 0; i < BURST; ++i)
        {
            chunks.giveBack(i);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(BURST));
}

void poolPairs(benchmark::State& state) { pairs<Pooled>(state); }
void poolBursts(benchmark::State& state) { bursts<Pooled>(state); }
void peerListPairs(benchmark::State& state) { pairs<Listed<FreeList>>(state); }
void peerListBursts(benchmark::State& state) { bursts<Listed<FreeList>>(state); }

BENCHMARK(poolPairs)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(peerListPairs)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(poolBursts)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(peerListBursts)->ThreadRange(1, 4)->UseRealTime();

#ifdef BENCH_HAS_BOOST_POOL

class BoostPool
{
public:
    void* take()
    {
        const std::lock_guard guard(m_mutex);
        return m_pool.malloc();
    }
    void giveBack(void* memory)
    {
        const std::lock_guard guard(m_mutex);
        m_pool.free(memory);
    }
    static BoostPool& instance()
    {
        static BoostPool pool;
        return pool;
    }

private:
    std::mutex m_mutex;
    boost::pool<> m_pool{CHUNK_SIZE};
};

void peerBoostPairs(benchmark::State& state) { pairs<Listed<BoostPool>>(state); }
void peerBoostBursts(benchmark::State& state) { bursts<Listed<BoostPool>>(state); }

BENCHMARK(peerBoostPairs)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(peerBoostBursts)->ThreadRange(1, 4)->UseRealTime();

#endif

/// As many requests as the argument says, ten of each module in turn, wait for the only chunk of a pool. Giving it back
/// serves one of them, and so on until no request waits.
void serveWaiting(benchmark::State& state)
{
    constexpr std::size_t REQUESTS_OF_A_MODULE = 10;
    constexpr std::uint32_t ONLY_CHUNK = 2U << 20U;
    MemoryPoolImpl pool({.chunkSize = ONLY_CHUNK, .maxPoolSize = ONLY_CHUNK});
    std::vector<ScatteredBuf> buffers(static_cast<std::size_t>(state.range(0)));
    std::vector<ModuleMemoryInformation*> modules(buffers.size() / REQUESTS_OF_A_MODULE);
    for (ModuleMemoryInformation*& module : modules)
    {
        module = pool.registerModule({.name = "Module" + std::to_string(&module - modules.data())});
    }
    for (auto _ : state)
    {
        ScatteredBuf first;
        static_cast<void>(pool.requestMemory(*modules.front(), ONLY_CHUNK, first, 0));
        for (std::size_t i = 0; i < buffers.size(); ++i)
        {
            static_cast<void>(pool.requestMemory(*modules[i % modules.size()], ONLY_CHUNK, buffers[i], i));
        }
        const auto start = std::chrono::steady_clock::now();
        pool.freeSegments(first.getSegments(), 0);
        for (ScatteredBuf& buffer : buffers)
        {
            pool.freeSegments(buffer.getSegments(), 0);
            buffer.clear();
        }
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(time.count());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    for (ModuleMemoryInformation* const module : modules)
    {
        pool.unregisterModule(*module);
    }
    pool.releaseUnused();
}

BENCHMARK(serveWaiting)->Arg(1000)->Arg(10'000)->UseManualTime();

} // namespace
