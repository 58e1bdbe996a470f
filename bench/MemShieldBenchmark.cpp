// Blocks of 100 bytes from the guarded allocator, counted only or guarded, beside plain new and delete.

#include "datapath/common/infra/MemShield.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

namespace
{

constexpr std::uint64_t SIZE = 100;
constexpr AllocationSite SITE{"block", SourcePlace::here()};

[[maybe_unused]] const bool isCounting = [] {
    MemShield::setEnabled(false);
    return true;
}();

struct Counted
{
    static void* allocate() { return MemShield::allocate(SIZE, 0, SITE); }
    static void release(void* block) { MemShield::releaseObject(block, SITE.place); }
};

struct Guarded
{
    static void* allocate() { return MemShield::instance().internalAllocAndRegister(SIZE, 0, SITE); }
    static void release(void* block)
    {
        MemShield::instance().verifyPtr(block, SITE.place);
        MemShield::instance().freeAndUnregister(block, SITE.place);
    }
};

struct Plain
{
    static void* allocate() { return ::operator new(SIZE); }
    static void release(void* block) { ::operator delete(block); }
};

template <class Allocator> void pairs(benchmark::State& state)
{
    for (auto _ : state)
    {
        void* const block = Allocator::allocate();
        benchmark::DoNotOptimize(block);
        Allocator::release(block);
    }
    SystemHeapBytes::leaveShare();
}

template <class Allocator> void usedPairs(benchmark::State& state)
{
    int value = 0;
    std::array<char, SIZE> copy;
    for (auto _ : state)
    {
        void* const block = Allocator::allocate();
        std::memset(block, ++value, SIZE);
        benchmark::DoNotOptimize(block);
        std::memcpy(copy.data(), block, SIZE);
        benchmark::DoNotOptimize(copy);
        Allocator::release(block);
    }
    SystemHeapBytes::leaveShare();
}

/// Replaces a random one of many live blocks.
template <class Allocator> void replaceRandom(benchmark::State& state)
{
    std::vector<void*> blocks(static_cast<std::size_t>(state.range(0)));
    std::ranges::generate(blocks, Allocator::allocate);
    std::minstd_rand random;
    for (auto _ : state)
    {
        void*& block = blocks[random() % blocks.size()];
        Allocator::release(block);
        block = Allocator::allocate();
    }
    std::ranges::for_each(blocks, Allocator::release);
}

/// Allocates and releases a block beside many live ones.
void guardedAmong(benchmark::State& state)
{
    std::vector<void*> blocks(static_cast<std::size_t>(state.range(0)));
    std::ranges::generate(blocks, Guarded::allocate);
    pairs<Guarded>(state);
    std::ranges::for_each(blocks, Guarded::release);
}

void countedPairs(benchmark::State& state) { pairs<Counted>(state); }
void peerPairs(benchmark::State& state) { pairs<Plain>(state); }
void countedUsedPairs(benchmark::State& state) { usedPairs<Counted>(state); }
void peerUsedPairs(benchmark::State& state) { usedPairs<Plain>(state); }
void guardedReplace(benchmark::State& state) { replaceRandom<Guarded>(state); }
void peerReplace(benchmark::State& state) { replaceRandom<Plain>(state); }

BENCHMARK(countedPairs)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(peerPairs)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(countedUsedPairs)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(peerUsedPairs)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(guardedAmong)->Arg(1000)->Arg(1'000'000);
BENCHMARK(guardedReplace)->Arg(1000)->Arg(1'000'000);
BENCHMARK(peerReplace)->Arg(1000)->Arg(1'000'000);

} // namespace
