// The memory pool under many schedules.

#include "datapath/common/infra/MemoryHelperThread.h"
#include "datapath/common/infra/MemoryPool.h"
#include "tests/simulated/Scenarios.h"
#include "tests/support/Support.h"

#include <array>
#include <memory>

namespace
{

constexpr std::uint32_t CHUNK = 32;
constexpr std::uint32_t BLOCK = 2 * CHUNK;

using Future = FutureInternal::Future<RcStatus>;

/// Grows by two chunks at a time, when it is answered.
struct LatePool : MemoryPoolImpl
{
    explicit LatePool(std::uint32_t most) : MemoryPoolImpl({.chunkSize = CHUNK, .maxPoolSize = most * BLOCK})
    {
        advance(2'000'000'000); // growth reads a cached timestamp, which is old enough then to be renewed
    }
    ~LatePool() override
    {
        waitForGrowth();
        releaseUnused();
    }

    void answer(RcStatus status)
    {
        asked.wait();
        *memory = status == RC_OK ? blocks.emplace_back(std::make_unique<Block>())->data() : nullptr;
        Future(growth).set(status);
    }

    Future allocateSingleAllocation(std::uint32_t /*size*/, char*& place) override
    {
        memory = &place;
        growth = Future();
        asked.signal();
        return growth;
    }
    void releaseSingleAllocation(char* released, std::uint32_t /*size*/) override
    {
        check(std::erase_if(blocks, [&](const auto& block) { return block->data() == released; }) == 1, "it has come");
    }
    std::uint32_t singleAllocationSize() const override { return BLOCK; }

    using Block = std::array<char, BLOCK>;
    std::vector<std::unique_ptr<Block>> blocks;
    Semaphore asked{0};
    Future growth;           // the last one that was asked for
    char** memory = nullptr; // where it puts its block
};

/// A request with its buffer.
struct Taken
{
    void request(LatePool& pool, ModuleMemoryInformation& module, std::uint32_t bytes)
    {
        result = pool.requestMemory(module, bytes, buffer, 0);
    }
    void giveBack(LatePool& pool)
    {
        check(result.get() == RC_OK, "it is served");
        pool.freeSegments(buffer.getSegments(), 0);
    }

    ScatteredBuf buffer;
    Future result = Future::ready(RC_ERROR);
};

void expectAllBack(LatePool& pool, std::uint64_t bytes)
{
    pool.waitForGrowth();
    check(pool.checkInvariants() && pool.usage().gross == 0 && pool.releaseUnused() == bytes, "all bytes are back");
}

struct PoolSchedules : testing::Test
{
    PoolSchedules()
    {
        waitForOwnThreads();
        MemoryHelperThread::instance().waitUntilRunning();
    }
};

TEST_F(PoolSchedules, GrowthAndWhatComesBackReachWhoeverWaits)
{
    exploreBothWays([] {
        LatePool pool(2);
        ModuleMemoryInformation& one = *pool.registerModule({.name = "one"});
        ModuleMemoryInformation& two = *pool.registerModule({.name = "two"});
        Taken held;
        held.request(pool, one, CHUNK);
        pool.answer(RC_OK);
        static_cast<void>(held.result.get());
        Taken large;
        Taken small;
        runTogether({{"large", [&] { large.request(pool, one, 3 * CHUNK); }},
                     {"small", [&] { small.request(pool, two, CHUNK); }},
                     {"bringer", [&] { pool.answer(RC_OK); }},
                     {"giver", [&] { held.giveBack(pool); }}}); // both requests need what the other two threads provide
        large.giveBack(pool);
        small.giveBack(pool);
        expectAllBack(pool, 2 * BLOCK);
    });
}

TEST_F(PoolSchedules, OneGrowthServesAReservationAndARequest)
{
    exploreBothWays([] {
        LatePool pool(1);
        ModuleMemoryInformation& one = *pool.registerModule({.name = "one"});
        ModuleMemoryInformation* two = nullptr;
        Taken taken;
        runTogether({{"reserver", [&] { two = pool.registerModule({.name = "two", .reservedBytes = CHUNK}); }},
                     {"taker", [&] { taken.request(pool, one, 1); }},
                     {"bringer", [&] { pool.answer(RC_OK); }}});
        taken.giveBack(pool);
        check(two != nullptr && pool.unregisterModule(*two), "there is enough for both");
        expectAllBack(pool, BLOCK);
    });
}

TEST_F(PoolSchedules, TheEndOfGrowthIsThatOfAllGrowthThatFollows)
{
    exploreBothWays([] {
        LatePool pool(2);
        Taken taken;
        taken.request(pool, *pool.registerModule({.name = "one"}), 3 * CHUNK);
        const auto bring = [&] { repeat(2, [&] { pool.answer(RC_OK); }); };
        const auto wait = [&] { pool.waitForGrowth(), check(taken.result.isSet(), "it has grown twice"); };
        runTogether({{"bringer", bring}, {"owner", wait}});
        taken.giveBack(pool);
        expectAllBack(pool, 2 * BLOCK);
    });
}

/// Destroys a pool that still grows for a request.
void destroyGrowing(RcStatus answer)
{
    const std::uint64_t heapBytes = MemShield::systemHeapBytes();
    auto pool = std::make_unique<LatePool>(1);
    ModuleMemoryInformation& module = *pool->registerModule({.name = "one"});
    Taken taken;
    taken.request(*pool, module, 1);
    const auto destroy = [&] {
        const bool isAborted = answer != RC_OK || pool->unregisterModule(module);
        pool->waitForGrowth();
        isAborted ? void() : taken.giveBack(*pool);
        expectAllBack(*pool, answer == RC_OK ? BLOCK : 0);
        pool.reset();
        check((taken.result.get() == RC_ABORTED) == isAborted, "who waits is told");
    };
    runTogether({{"bringer", [&] { pool->answer(answer); }}, {"owner", destroy}});
    taken.result = Future::ready(RC_OK);
    while (MemShield::systemHeapBytes() != heapBytes) // the helper thread may still release finished helpers
    {
        platform::relax();
    }
}

TEST_F(PoolSchedules, CanBeDestroyedWhenItHasGrown)
{
    exploreBothWays([] { destroyGrowing(RC_OK); });
}

TEST_F(PoolSchedules, CanBeDestroyedWhenItCouldNotGrow)
{
    exploreBothWays([] { destroyGrowing(RC_TIME_OUT); });
}

} // namespace
