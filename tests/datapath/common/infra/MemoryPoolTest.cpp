#include "datapath/common/infra/MemoryPool.h"

#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/MemoryHeap.h"
#include "datapath/common/infra/Timer.h"
#include "fuzz/PoolOperations.h"
#include "platform/Time.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include <gtest/gtest.h>

namespace
{

constexpr std::uint32_t BLOCK = 2U << 20U;
constexpr std::uint32_t CHUNK = 65'536;

using Future = FutureInternal::Future<RcStatus>;
using Texts = std::vector<std::string>;
std::int64_t nowMs = 20'000;

struct MemoryPool : testing::Test
{
    MemoryPool() { MemShield::setEnabled(false); }

    /// Compares the messages since the last call that begin with the head. expected has what follows the head in each.
    void expectMessages(const std::string& head, const Texts& expected)
    {
        Texts messages = client.messages();
        messages.erase(messages.begin(), messages.begin() + std::exchange(numSeen, std::ssize(messages)));
        std::erase_if(messages, [&](const std::string& message) { return !message.starts_with(head); });
        EXPECT_EQ(expected.size(), messages.size());
        for (std::size_t i = 0; i < std::min(messages.size(), expected.size()); ++i)
        {
            EXPECT_PRED2(matches, messages[i], head + expected[i]);
        }
    }

    const ScratchFolder folder;
    const CapturingClient client;
    std::ptrdiff_t numSeen = 0;
};

/// The answers to growth that comes late. The test may give them while the pool is being destroyed.
struct LateGrowth
{
    void fail(RcStatus status)
    {
        asked.wait();
        Future(future).set(status);
    }
    Future future = Future::ready(RC_OK);
    Semaphore asked{0};
};

struct LatePool : MemoryPoolImpl
{
    explicit LatePool(LateGrowth& answers) : MemoryPoolImpl({.chunkSize = CHUNK, .maxPoolSize = BLOCK}), growth(answers)
    {
    }
    Future allocateSingleAllocation(std::uint32_t /*size*/, char*& /*memory*/) override
    {
        Future future; // a new one for each growth
        growth.future = future;
        growth.asked.signal();
        return future;
    }
    LateGrowth& growth;
};

/// A segment of a request that can be served at once.
MemorySegment take(MemoryPoolImpl& pool, ModuleMemoryInformation& module, std::uint32_t bytes = 1)
{
    ScatteredBuf buffer;
    EXPECT_EQ(RC_OK, pool.requestMemory(module, bytes, buffer, 0).get());
    return buffer.getSegments().front();
}

TEST_F(MemoryPool, ARequestBeyondItsModulesLimitWaitsWithWhatItHas)
{
    MemoryPoolImpl pool({.chunkSize = CHUNK, .maxPoolSize = 1});
    ModuleMemoryInformation& module = *pool.registerModule({.name = "limited", .limitBytes = 3 * CHUNK + 1});
    ScatteredBuf buffer;
    const Future future = pool.requestMemory(module, 200'000, buffer, 7);
    ScatteredBuf later;
    const Future laterFuture = pool.requestMemory(module, 1, later, 8);
    pool.printMemoryUsage();
    expectMessages("Info,OLM,MemoryPoolImpl,",
                   {"allocatePagesFromSingleAllocationLocked,allocated 2097152 bytes",
                    "printMemoryUsage,Memory POOL:  m_usedMemoryGross=196608  m_usedMemoryNet=196608  free=1900544",
                    "printMemoryUsage,limited: limit=196608 used=196608 pending=2",
                    "printMemoryUsage,subMemPools: totalFree=0  totalUsed=0  totalFrag=0  maxFree=0  maxUsed=0 "});
    EXPECT_TRUE(!future.isSet() && !laterFuture.isSet() && buffer.isUniform() && buffer.totalBytes() == 3 * CHUNK &&
                buffer.owner() == &module);
    char* const last = buffer.getSegments().back().buffer;
    EXPECT_TRUE(pool.unregisterModule(module));
    EXPECT_TRUE(future.get() == RC_ABORTED && laterFuture.get() == RC_ABORTED && buffer.getSegments().empty());
    ModuleMemoryInformation& next = *pool.registerModule({.name = "limited"});
    MemorySegment segment = take(pool, next);
    EXPECT_EQ(last, segment.buffer); // given back last, handed out first
    std::list<MemorySegment> segments{segment};
    pool.freeSegments(segments, 1);
    pool.freeSegments(segments, 2);
    pool.freeSegments(segments, -1);
    EXPECT_EQ(CHUNK, pool.usage().gross);
    pool.freeSegments(segments, 0);
    EXPECT_TRUE(pool.unregisterModule(next) && pool.checkInvariants());
    EXPECT_EQ(BLOCK, pool.releaseUnused());
}

void expectFillings(bool isGuarded)
{
    MemShield::setEnabled(isGuarded);
    waitForOwnThreads();
    const std::uint64_t heapBytes = MemShield::systemHeapBytes();
    MemoryPoolImpl pool({.chunkSize = CHUNK, .maxPoolSize = 1});
    ModuleMemoryInformation& module = *pool.registerModule({.name = "m"});
    for (const char filling : {'\xFE', isGuarded ? '\xEE' : 'x'})
    {
        MemorySegment segment = take(pool, module);
        EXPECT_EQ(CHUNK - 16,
                  std::count(segment.buffer + 16, segment.buffer + CHUNK, filling)); // the first bytes are a link
        std::memset(segment.buffer, 'x', CHUNK);
        pool.freeSegment(segment);
    }
    EXPECT_GT(heapBytes + CHUNK, MemShield::systemHeapBytes()); // blocks of pools are not counted
    EXPECT_TRUE(pool.unregisterModule(module) && pool.releaseUnused() == BLOCK);
    EXPECT_EQ(heapBytes, MemShield::systemHeapBytes());
}

TEST_F(MemoryPool, FillsFreshChunks) { expectFillings(false); }
TEST_F(MemoryPool, FillsFreshAndReturnedChunksWhileMemoryIsGuarded) { expectFillings(true); }

TEST_F(MemoryPool, BrokenFiguresEndTheProcess)
{
    static const IgnoredAsserts ignoredAsserts;
    struct OddPool : MemoryPoolImpl
    {
        using MemoryPoolImpl::MemoryPoolImpl;
        std::uint32_t singleAllocationSize() const override { return CHUNK + 16; }
    };
    for (const auto& [free, isAble, isEmpty] : {std::tuple(5U, true, true), {5U, false, false}, {0U, true, false}})
    {
        MemoryPoolImpl::FreeBytesInfo(free, isAble, isEmpty);
    }
    static auto& pool = *new MemoryPoolImpl({.chunkSize = CHUNK, .maxPoolSize = BLOCK});
    auto& odd = *new OddPool({.chunkSize = CHUNK, .maxPoolSize = 1});
    ModuleMemoryInformation& module = *pool.registerModule({.name = "m"});
    ModuleMemoryInformation& other = *odd.registerModule({.name = "other"});
    MemorySegment segment = take(pool, module, 7);
    pool.addUsedMemoryNet(5);
    pool.freeSegment(segment);
    pool.addUsedMemoryNet(-5);
    segment = take(pool, module, 7);
    segment.owner = &other; // a module of another pool
    odd.freeSegment(segment);
    segment = take(pool, module, 7);
    HeapModuleMemoryInformation heapModule("heap", nullptr);
    heapModule.addUsedBytes(CHUNK);
    segment.owner = &heapModule;
    pool.freeSegment(segment);
    auto& grown = *new OddPool({.chunkSize = CHUNK, .maxPoolSize = 1});
    static_cast<void>(take(grown, *grown.registerModule({.name = "m"})));
    pool.~MemoryPoolImpl();
    LateGrowth growth;
    auto& late = *new LatePool(growth);
    ScatteredBuf buffer;
    static_cast<void>(late.requestMemory(*late.registerModule({.name = "m"}), 1, buffer, 0));
    growth.fail(RC_ERROR);
    const std::string place = ", datapath/common/infra/MemoryPool.cpp ";
    const std::string info = "MemoryPoolImpl::FreeBytesInfo,FreeBytesInfo" + place;
    const std::string free = "MemoryPoolImpl,freeChunkFromMmiLocked" + place;
    expectMessages(
        "Assert,OLM,",
        {info + "56: m_free == 0 failed. ambiguity related to the question: is mmi able to get memory m_free=5",
         info + "51: freeInMmi == true failed. trying to give memory to a full mmi",
         info + "69: false failed. unknown getFreeBytesLocked result:isAbleToGetMemory=1isEmptyMemPool=0isFullMmi=0",
         free + "327: m_usedMemoryNet == 0 failed. ",
         free + "319: m_usedMemoryGross >= m_chunkSize failed.  m_usedMemoryGross=0",
         free + "321: m_usedMemoryNet >= netBytes failed.  m_usedMemoryNet=0segment size = 7",
         free + "334: mmi->getCurrentlyUsedBytes() >= m_chunkSize failed.  mmi->getCurrentlyUsedBytes()=0 "
                "m_chunkSize=65536",
         "MemoryPoolImpl,freeSegmentContentLocked" + place + "343: !info->isHeapMemory() failed. ",
         "SequentialRequestsManager,importRequestReferenceInternal,~ 174: ~ failed. unsubscribed mmi",
         "MemoryPoolImpl,allocatePagesFromSingleAllocationLocked" + place +
             "188: allocationSize % m_chunkSize == 0 failed.  allocationSize=65552 m_chunkSize=65536",
         "MemoryPoolImpl,~MemoryPoolImpl" + place + "95: m_totalPollSize == 0 failed.  m_totalPollSize=2097152",
         "MemoryAllocationHelper,update" + place +
             "1245: a_val == RC_ABORTED || a_val == RC_TIME_OUT failed.  a_val=1"});
}

TEST_F(MemoryPool, SettingsThatCannotBeMetAreRefusedWithAReason)
{
    MemoryPoolImpl pool({.chunkSize = CHUNK, .maxPoolSize = BLOCK - 1});
    MemoryPoolImpl sub({.chunkSize = 24});
    const MemoryPoolImpl tooSmall({.chunkSize = 8});
    EXPECT_EQ(0U, sub.getChunkSize() + tooSmall.getChunkSize() + MemoryPoolImpl::instance().getChunkSize());
    const std::string chunks = " bytes is below 16 or no divisor of 2097152, the pool has no chunks";
    expectMessages("Error,OLM,MemoryPoolImpl,MemoryPoolImpl,a chunk size of ", {"24" + chunks, "8" + chunks});
    ModuleMemoryInformation* const parent = pool.registerModule({.name = "parent"});
    ModuleMemoryInformation* const child = pool.registerModule(
        {.name = "child", .reservedBytes = BLOCK / 2 + 1, .limitBytes = BLOCK - 1, .parent = parent});
    const std::string covered = " bytes cannot be covered beside 1114112 bytes that are in use or reserved, of 2097152";
    const std::vector<std::pair<MemoryPoolImpl::ModuleSettings, std::string>> refused = {
        {{.name = "child"}, "the name is taken"},
        {{.name = "m", .limitBytes = CHUNK - 1}, "a limit of 65535 bytes is no whole chunk of 65536"},
        {{.name = "m", .reservedBytes = CHUNK + 1, .limitBytes = 2 * CHUNK - 1},
         "a reservation of 65537 bytes takes more chunks than the limit of 131071"},
        {{.name = "m", .reservedBytes = BLOCK / 2}, "a reservation of 1048576" + covered},
        {{.name = "m", .reservedBytes = ~std::uint64_t{}}, "a reservation of 18446744073709551615" + covered},
        {{.name = "m", .parent = child}, "its parent \"child\" has a reservation or a limit"}};
    for (const auto& [settings, reason] : refused)
    {
        EXPECT_EQ(nullptr, pool.registerModule(settings));
        expectMessages("Error,OLM,MemoryPoolImpl,registerModule,module \"" + settings.name + "\" is not registered: ",
                       {reason});
    }
    EXPECT_EQ(nullptr, sub.registerModule({.name = "m"}));
    EXPECT_EQ(nullptr, MemoryPoolImpl({.chunkSize = 16}).registerModule({.name = "m", .parent = parent}));
    expectMessages("Error,OLM,MemoryPoolImpl,registerModule,module \"m\" is not registered: ",
                   {"the pool has no chunks", "its parent is not of this pool"});
    MemorySegment segment = take(pool, *child);
    EXPECT_FALSE(pool.unregisterModule(*parent) || pool.unregisterModule(*child) || sub.unregisterModule(*child));
    expectMessages("Error,OLM,MemoryPoolImpl,unregisterModule,cannot unregister ",
                   {"module \"parent\", which has 1 children", "module \"child\", of which 65536 bytes are in use",
                    "a module that is not of this pool"});
    EXPECT_TRUE(sub.attachSubPool(pool));
    EXPECT_FALSE(sub.attachSubPool(pool) || pool.attachSubPool(sub) || pool.attachSubPool(pool));
    EXPECT_TRUE(sub.detachSubPool(pool) && !sub.detachSubPool(pool));
    expectMessages("Error,OLM,MemoryPoolImpl,",
                   {"attachSubPool,the pool is attached already",
                    "attachSubPool,a pool cannot be attached to itself or to one that is attached to it",
                    "attachSubPool,a pool cannot be attached to itself or to one that is attached to it",
                    "detachSubPool,the pool is not attached"});
    pool.freeSegment(segment);
    EXPECT_TRUE(pool.releaseUnused() == 0 && pool.unregisterModule(*child) && pool.unregisterModule(*parent));
    EXPECT_EQ(BLOCK, pool.releaseUnused());
}

TEST_F(MemoryPool, GrowthAndLongWaitsAreLoggedAtMostOnceASecond)
{
    const ScopedReplacement tickCount{platform::timeCalls.tickCountMs,
                                      [] { return static_cast<std::uint64_t>(nowMs); }};
    const ScopedReplacement frequency{platform::timeCalls.performanceFrequency,
                                      [](std::int64_t& value) { return (value = 1'000) > 0; }};
    const ScopedReplacement counter{platform::timeCalls.performanceCounter,
                                    [](std::int64_t& value) { return (value = nowMs) > 0; }};
    const auto passMs = [](std::int64_t ms) {
        nowMs += ms;
        static_cast<void>(Timer::instance().getTimestampMs());
    };
    MemoryPoolImpl pool({.chunkSize = BLOCK, .maxPoolSize = 4 * BLOCK});
    ModuleMemoryInformation& module = *pool.registerModule({.name = "m"});
    std::list<MemorySegment> segments;
    for (const int laterMs : {0, 0, 999, 1})
    {
        passMs(laterMs);
        segments.push_back(take(pool, module));
    }
    expectMessages("Info,OLM,MemoryPoolImpl,allocatePagesFromSingleAllocationLocked,",
                   {"allocated 2097152 bytes", "allocated 8388608 bytes"});
    ScatteredBuf buffer;
    const Future future = pool.requestMemory(module, 7, buffer, 4711);
    for (const int laterMs : {60'000, 999, 1, 1'739'000, 1'000})
    {
        passMs(laterMs);
        pool.printMemoryUsage();
    }
    const std::string text = ",OLM,MemoryPoolImpl,monitorPendingMemoryAllocations,Memory allocation pending time "
                             "reaches threshold of ";
    const std::string clients = " sec for clients: (clientTraceId,name,requestedBytes,pendingTime) (4711,m,7,";
    expectMessages("Info" + text, {"60" + clients + "61)", "60" + clients + "1800)", "60" + clients + "1801)"});
    numSeen = 0;
    expectMessages("Error" + text, {"1800" + clients + "1801)"});
    pool.freeSegments(segments, 0);
    pool.freeSegments(buffer.getSegments(), 0);
    EXPECT_TRUE(future.get() == RC_OK && pool.unregisterModule(module));
    EXPECT_EQ(4 * BLOCK, pool.releaseUnused());
}

TEST_F(MemoryPool, GrowthThatFailsLateIsWaitedFor)
{
    LateGrowth growth;
    auto pool = std::make_unique<LatePool>(growth);
    std::atomic<bool> isOver = false;
    std::thread answers([&] {
        growth.fail(RC_ABORTED);
        do // again, because the same request asks once more when its growth fails early
        {
            growth.fail(RC_TIME_OUT);
        } while (!isOver);
    });
    EXPECT_EQ(nullptr, pool->registerModule({.name = "m", .reservedBytes = BLOCK}));
    expectMessages("Error,OLM,MemoryPoolImpl,registerModule,module \"m\" is not registered: ",
                   {"the pool could not grow for a reservation of 2097152 bytes"});
    ScatteredBuf buffer;
    const Future future = pool->requestMemory(*pool->registerModule({.name = "m"}), 1, buffer, 0);
    pool.reset();
    EXPECT_EQ(RC_ABORTED, future.get());
    EXPECT_EQ(RC_TIME_OUT, growth.future.get());
    isOver = true;
    growth.future = Future();
    growth.asked.signal();
    answers.join();
}

TEST_F(MemoryPool, ServesSeveralThreadsThatWaitForEachOther)
{
    MemoryPoolImpl pool({.chunkSize = BLOCK / 4, .maxPoolSize = 1});
    ModuleMemoryInformation* const parent = pool.registerModule({.name = "parent"});
    std::vector<ModuleMemoryInformation*> modules;
    for (const std::uint32_t reserved : {1U, 0U, 0U, 0U})
    {
        modules.push_back(
            pool.registerModule({.name = std::to_string(modules.size()), .reservedBytes = reserved, .parent = parent}));
    }
    runInThreads(4, [&](int index) {
        ModuleMemoryInformation* const module = modules[static_cast<std::size_t>(index)];
        for (unsigned i = 0; i < 300; ++i)
        {
            ScatteredBuf buffer;
            EXPECT_EQ(RC_OK, pool.requestMemory(*module, (i % 3 + 1) * BLOCK / 4, buffer, i).get());
            std::memset(buffer.getSegments().back().buffer, index, BLOCK / 4);
            pool.freeSegments(buffer.getSegments(), 1);
            pool.freeSegment(buffer.getSegments().front());
            i % 50 == 0 ? pool.printMemoryUsage() : static_cast<void>(pool.releaseUnused());
        }
        EXPECT_TRUE(pool.checkInvariants() && pool.unregisterModule(*module));
    });
    EXPECT_TRUE(pool.unregisterModule(*parent));
    pool.releaseUnused();
}

TEST_F(MemoryPool, TheHeapCountsAChunkForEachSegment)
{
    static const IgnoredAsserts ignoredAsserts;
    MemoryHeap& heap = MemoryHeap::instance();
    HeapModuleMemoryInformation* const parent = heap.registerModule("parent", nullptr);
    HeapModuleMemoryInformation* const child = heap.registerModule("child", parent);
    EXPECT_EQ(nullptr, heap.registerModule("child", nullptr));
    EXPECT_EQ(nullptr, heap.takeSegment(*child, 0).buffer);
    expectMessages("Error,NON,MemoryHeap,", {"registerModule,a module named \"child\" is registered already",
                                             "takeSegment,a segment of 0 bytes was asked for by module \"child\""});
    MemorySegment own = heap.takeSegment(*parent, 5'000);
    std::list<MemorySegment> segments{heap.takeSegment(*child, 100), heap.takeSegment(*child, 1)};
    heap.freeSegments(segments, 2);
    heap.freeSegments(segments, 1);
    EXPECT_TRUE(segments.back().buffer == nullptr && segments.front().buffer != nullptr);
    heap.printMemoryUsage();
    heap.freeSegment(segments.front());
    heap.freeSegment(own);
    heap.printMemoryUsage();
    expectMessages("Info,NON,MemoryHeap,printMemoryUsage,",
                   {"Memory HEAP:  m_usedMemoryGross=8192  m_usedMemoryNet=5100 ", "child: used=4096",
                    "parent: used=8192", "Memory HEAP:  m_usedMemoryGross=0  m_usedMemoryNet=0 ", "child: used=0",
                    "parent: used=0"});
    own = {.sizeBytes = 1, .buffer = GuardedMemory::createArray<char>({"s8", SourcePlace::here()}, 1), .owner = child};
    heap.freeSegment(own); // takeSegment has not returned this one
    expectMessages("Assert,NON,MemoryHeap,freeSegmentContentLocked, datapath/common/infra/MemoryHeap.cpp ",
                   {"69: m_usedMemoryGross >= getChunkSize() failed. ",
                    "72: mmi->getCurrentlyUsedBytes() >= getChunkSize() failed. ",
                    "75: m_usedMemoryNet >= segment->getSizeBytes() failed. "});
}

void expectNoFaultOfRandomOperations(bool isGuarded)
{
    MemShield::setEnabled(isGuarded);
    for (const unsigned seed : {1U, 2U, 3U, 15U, 38U, 120U}) // with some, growth fails and succeeds later
    {
        std::mt19937 random(seed);
        std::string bytes(2'000, '\0');
        std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
        EXPECT_EQ("", poolFaultOf(bytes)) << seed;
    }
}

TEST_F(MemoryPool, BehavesLikeAPlainModel) { expectNoFaultOfRandomOperations(false); }
TEST_F(MemoryPool, BehavesLikeAPlainModelWhileMemoryIsGuarded) { expectNoFaultOfRandomOperations(true); }

} // namespace
