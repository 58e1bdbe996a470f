// Every misuse of memory that the guarded allocator finds. A child process commits it; the test looks at its output and
// status.

#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/MemShield.h"

#include "datapath/common/infra/HeapMemoryAllocationTracker.h"
#include "datapath/common/infra/MemoryHeap.h"
#include "datapath/common/infra/MemoryPool.h"
#include "datapath/common/infra/SystemHeapBytes.h"
#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/windows/MemWatcher.h"
#include "tests/support/MemShieldSites.h"
#include "tests/support/Support.h"

#include <atomic>
#include <cstring>
#include <iostream>
#include <random>
#include <thread>

#include <gtest/gtest.h>

namespace
{

const DynamicTweak<bool> NOT_DISABLED;

HeapMemoryAllocationTracker tracker(1'000'000, 1'000'000, NOT_DISABLED, "client");

/// Registers a log client that, like the log file, copies each line into a block of the allocator, and writes overrun
/// bytes beyond the block.
void logThroughTheAllocator(bool isGuarded, std::size_t overrun)
{
    MemShield::setEnabled(isGuarded);
    waitForOwnThreads();
    Timer::instance().getTimestampMs();
    new HookedClient("", [=](const std::string& line) {
        const std::string message = line.substr(std::min(line.find(",NON,") + 5, line.size()));
        const auto length = static_cast<std::uint32_t>(message.size());
        char* const copy = tracker.allocateIgnoringLimit(length);
        std::memcpy(copy, message.c_str(), length + overrun);
        std::cout.write(copy, length).flush();
        tracker.free(copy, length);
    });
}

struct Shape
{
    virtual ~Shape() = default;
};

void releaseWhatIsNoBlock() { MemShield::releaseObject(&childScenarios(), PLACE); }

template <class Byte> Byte* written(Byte* bytes, std::size_t offset, int value)
{
    bytes[offset] = static_cast<Byte>(value);
    return bytes;
}

/// While a misuse is reported, other threads find misuse, too: under the lock of the tweaks, in a CPU report and in a
/// report of sub-pools.
void misuseUnderLocks()
{
    static std::atomic<int> misuses = 0;
    static thread_local bool isOther = false;
    new HookedClient("", [](const std::string& line) {
        const auto has = [&](const char* text) { return line.find(text) != std::string::npos; };
        isOther && (has("Updating tweak") || has("cpu ticks in") || has("subMemPools")) ? ++misuses,
            releaseWhatIsNoBlock()                                                      : void();
    });
    new HookedClient("un-allocated", [](const std::string&) {
        std::thread([] { isOther = true, Tweaks::instance().update("t_a", "1"); }).detach();
        std::thread([] { isOther = true, MemWatcher::instance().printCpu(); }).detach();
        std::thread([] { isOther = true, MemoryPoolImpl::instance().printMemoryUsage(); }).detach();
        waitUntil([] { return misuses == 3; });
    });
    releaseWhatIsNoBlock();
}

/// While a misuse is reported, a thread that the report needs finds misuse, too.
void misuseOnANeededThread()
{
    static std::atomic<int> misuses = 0;
    new HookedClient("un-allocated", [](const std::string&) {
        if (misuses++ == 0)
        {
            std::thread([] { MemShield::neverWaitForReport(), releaseWhatIsNoBlock(); }).join();
        }
    });
    releaseWhatIsNoBlock();
}

/// A pool whose usage a report of misuse shows, for which it takes the pool's lock.
template <class Pool = MemoryPoolImpl> Pool& reportedPool()
{
    auto& pool = *new Pool({.chunkSize = 65'536, .maxPoolSize = 1});
    MemoryPoolImpl::instance().attachSubPool(pool);
    return pool;
}

void giveBack(MemoryAllocatorInterface& allocator, ModuleMemoryInformation* owner)
{
    MemorySegment segment{.owner = owner};
    allocator.freeSegment(segment);
}

/// Overruns a request that waits. The pool destroys the request when its module's reservation can serve it.
void overrunRequestThatWaited()
{
    auto& pool = reportedPool<>();
    ModuleMemoryInformation& hungry = *pool.registerModule({.name = "hungry"});
    ModuleMemoryInformation& module = *pool.registerModule({.name = "module", .reservedBytes = 2U << 20U});
    std::array<ScatteredBuf, 3> buffers;
    static_cast<void>(pool.requestMemory(module, 2U << 20U, buffers[0], 1));
    static_cast<void>(pool.requestMemory(hungry, 1, buffers[1], 2));
    static_cast<void>(pool.requestMemory(module, 1, buffers[2], 3));
    reinterpret_cast<char*>(module.waiting().queue().front().request)[100] = 65; // in the margin
    pool.freeSegments(buffers[0].getSegments(), 31);
}

/// Releases an overrun block when the request that it observes is served.
struct OverrunReleasingObserver : FutureInternal::FutureObserver<RcStatus>
{
    void update(const RcStatus& /*value*/) override { GuardedMemory::destroyArray(overrun, SourcePlace::here()); }

    char* const overrun = written(GuardedMemory::createArray<char>(ARRAY_SITE, 5), 5, 65);
};

/// A pool whose growth fails after it has overrun the MemoryAllocationHelper that holds memory.
struct OverrunningPool : MemoryPoolImpl
{
    using MemoryPoolImpl::MemoryPoolImpl;
    FutureInternal::Future<RcStatus> allocateSingleAllocation(std::uint32_t /*size*/, char*& memory) override
    {
        (reinterpret_cast<char*>(&memory))[100] = 65; // in the margin
        return FutureInternal::Future<RcStatus>::ready(RC_ABORTED);
    }
};

const std::string END = "MemShield,memshieldError,Assertion (false) failed datapath/common/infra/MemShield.cpp 342\n";

std::string report(const std::string& live, const std::string& dump)
{
    const bool isEmpty = live.empty();
    const std::uint64_t watched = 2 * sizeof(ThreadCpuUsageMonitor); // those of the library's own two threads
    return "MemShield,printAllocations,Allocated from system heap: " +
           std::to_string(watched + 2 * 80 + (isEmpty ? 0 : 180)) +
           "\nMemShield,printAllocations,Total memory allocation: " + std::to_string(watched + (isEmpty ? 0 : 100)) +
           "\n~" + (isEmpty ? "" : "MemShield,printAllocations,allocation " + live + " -> 1 allocations 100 bytes\n") +
           "~MemWatchedContainerDatabase,printWatchedContainers,~MemWatcher,printMem,memory information: PWSS=~"
           "MemWatcher,printCpu,~ cpu(perc)~"
           "printRecentlyFreed, Timer::instance()->getLastTimestampMs_Inaccurate(true)=# \n" +
           dump + END;
}

const std::string UNALLOCATED =
    "MemShield,verifyPtr,trying to access (verifyPtr) un-allocated memory file=user.cpp  line=22  mem=~ \n";

std::string unallocated(const std::string& live) { return UNALLOCATED + report(live, ""); }

std::string overrun(const std::string& type, const std::string& file, const std::string& line, const std::string& bytes,
                    const std::string& arrayLength, const std::string& freedAt)
{
    return "MemShield,freeAndUnregister,memory overrun (during free)!memory corruption (post) : ~ " + file + " " +
           line + "! [" + bytes + ",] it->second.m_allocTime=#  it->second.m_freeTime=0  it->second.m_class=" + type +
           " \nMemShield,freeAndUnregister,freed at file=" + freedAt + " \n" +
           report(file + " " + line, "MemShield,memShieldDumpLocked,dumpalloc: ~ :  it->second.m_class=" + type +
                                         "  it->second.m_file=" + file + "  it->second.m_line=" + line +
                                         "  it->second.m_size=100  it->second.m_arrayLength=" + arrayLength + " \n");
}

/// The report of an overrun in a block that the pool or the heap has released, with the usage of both.
std::string overrunIn(const std::string& unit, const std::string& line, const std::string& pool,
                      const std::string& heap)
{
    const std::string usage = "~,OLM,MemoryPoolImpl,printMemoryUsage,";
    return "~MemShield,freeAndUnregister,memory overrun (during free)!~->65,]~freed at file=datapath/common/infra/" +
           unit + ".cpp  line=" + line + " \n~MemWatchedContainerDatabase,printWatchedContainers," + usage +
           "Memory POOL:  m_usedMemoryGross=0  m_usedMemoryNet=0  free=0\n" + usage + pool +
           "\nMemoryHeap,printMemoryUsage,Memory HEAP:  " + heap + "MemWatcher,printMem,~" + END;
}

const std::string NO_SUB_POOLS = "subMemPools: totalFree=0  totalUsed=0  totalFrag=0  maxFree=0  maxUsed=0 ";
const std::string NO_HEAP = "m_usedMemoryGross=0  m_usedMemoryNet=0 \n";

/// The line of a failed check, as the log client writes it and as the process does when it ends.
std::string failedCheck(const std::string& check)
{
    return "~ datapath/common/infra/" + check + " failed. \n~,Assert,~";
}

const std::string UNIT = "datapath/common/infra/MemShield.cpp ";
const std::string TRACKER = "datapath/common/infra/HeapMemoryAllocationTracker.cpp";
const std::string ALLOCATION = "MemShield,internalAllocAndRegister,";

struct Misuse
{
    const char* name;
    std::function<void()> work;
    std::string expected;
    bool isGuarded = true;
    std::size_t clientOverrun = 0;
};

const std::vector<Misuse> MISUSES = {
    {"objectReleasedTwice", [] { repeat(2, [object = makeObject()] { MemShield::releaseObject(object, PLACE); }); },
     unallocated("")},
    {"shapeDestroyedTwice",
     [] { repeat(2, [shape = GuardedMemory::create<Shape>(SITE)] { GuardedMemory::destroy(shape, PLACE); }); },
     unallocated("")},
    {"shapeInTheMiddleOfABlock", [] { GuardedMemory::destroy(reinterpret_cast<Shape*>(makeObject() + 8), PLACE); },
     unallocated("maker.cpp 11")},
    {"shapeThatNeverWas",
     [] {
         Shape* volatile const nowhere = reinterpret_cast<Shape*>(8);
         GuardedMemory::destroy(nowhere, PLACE);
     },
     unallocated("")},
    {"arrayReleasedTwice",
     [] {
         repeat(2, [array = GuardedMemory::createArray<char>(ARRAY_SITE, 5)] {
             GuardedMemory::destroyArray(array, PLACE);
         });
     },
     "MemShield,freeAndUnregister,trying to free un-allocated memory file=user.cpp  line=22 \n" + report("", "")},
    {"overrunAtOnce", [] { MemShield::releaseObject(written(makeObject(), 100, 65), PLACE); },
     overrun("Thing", "maker.cpp", "11", "0->65", "0", "user.cpp  line=22")},
    {"overrunAtTheEnd",
     [] {
         Bytes const array = GuardedMemory::createArray<unsigned char>(ARRAY_SITE, 100);
         MemShield::releaseArray(written(written(array, 100, 0xFF), 163, 0), PLACE); // 0xFF is not noticed
     },
     overrun("s8", "maker.cpp", "12", "63->0", "100", "user.cpp  line=22")},
    {"overrunOfABuffer", [] { tracker.free(written(tracker.allocateIgnoringLimit(100), 100, 65), 100); },
     overrun("s8", TRACKER, "47", "0->65", "100", TRACKER + "  line=30")},
    {"overrunByTheClientItself", [] { MemShield::releaseArray(makeObject() + 1, PLACE); },
     "~Assertion (false) failed " + UNIT + "342, misuse of memory while one is reported\n", true, 1},
    {"misuseWhileATweakIsLogged",
     [] {
         new HookedClient("Updating tweak", [](const std::string&) { releaseWhatIsNoBlock(); });
         Tweaks::instance().update("t_a", "1");
     },
     "Tweaks,update,Updating tweak:~" + unallocated("")},
    {"misusesUnderLocks", misuseUnderLocks, UNALLOCATED + "~" + report("", "")},
    {"misuseOnANeededThread", misuseOnANeededThread, UNALLOCATED + UNALLOCATED + END},
    {"heapSegmentOverrun",
     [] {
         MemorySegment segment =
             MemoryHeap::instance().takeSegment(*MemoryHeap::instance().registerModule("Index", nullptr), 100);
         segment.buffer[100] = 65;
         MemoryHeap::instance().freeSegment(segment);
     },
     overrunIn("MemoryHeap", "67", NO_SUB_POOLS,
               "m_usedMemoryGross=4096  m_usedMemoryNet=100 \nMemoryHeap,printMemoryUsage,Index: used=4096\n")},
    {"segmentWithoutOwnerOverrun",
     [] {
         std::list<MemorySegment> segments{{.sizeBytes = 5, .buffer = GuardedMemory::createArray<char>(ARRAY_SITE, 5)}};
         segments.front().buffer[5] = 65;
         reportedPool<>().freeSegments(segments, 0);
     },
     overrunIn("MemoryPool", "311", "Memory POOL: ~" + NO_SUB_POOLS + "~" + NO_SUB_POOLS, NO_HEAP)},
    {"requestThatWaitedOverrun", overrunRequestThatWaited,
     overrunIn("WaitingRequestsQueue", "87",
               "Memory POOL:  m_usedMemoryGross=2097152  m_usedMemoryNet=2031617  free=0\n~", NO_HEAP)},
    {"overrunFoundByAnObserver",
     [] {
         waitForOwnThreads(); // otherwise one of their lines may come after the report
         auto& pool = reportedPool<>();
         ModuleMemoryInformation& module = *pool.registerModule({.name = "module"});
         std::array<ScatteredBuf, 2> buffers;
         OverrunReleasingObserver observer;
         static_cast<void>(pool.requestMemory(module, 2U << 20U, buffers[0], 1));
         pool.requestMemory(module, 1, buffers[1], 2).addObserver(&observer);
         pool.freeSegments(buffers[0].getSegments(), 0);
     },
     "~MemoryPoolImpl,printMemoryUsage,Memory POOL:  m_usedMemoryGross=65536~" + END},
    {"growthOverrun",
     [] {
         auto& pool = reportedPool<OverrunningPool>();
         ScatteredBuf buffer;
         static_cast<void>(pool.requestMemory(*pool.registerModule({.name = "module"}), 1, buffer, 1));
     },
     overrunIn("MemoryPool", "208", "Memory POOL: ~module: used=0 pending=1\n~", NO_HEAP)},
    {"segmentOfNoOwner", [] { giveBack(MemoryPoolImpl::instance(), MemorySegment::NoOwner); },
     failedCheck("MemoryPool.cpp 303: mmi != MemorySegment::NoOwner")},
    {"segmentWithoutBuffer", [] { giveBack(MemoryPoolImpl::instance(), nullptr); },
     failedCheck("MemoryPool.cpp #: segment->buffer != 0")},
    {"heapSegmentOfNoOwner", [] { giveBack(MemoryHeap::instance(), MemorySegment::NoOwner); },
     failedCheck("MemoryHeap.cpp 64: mmi != MemorySegment::NoOwner")},
    {"heapSegmentOfNobody", [] { giveBack(MemoryHeap::instance(), nullptr); },
     failedCheck("MemoryHeap.cpp 65: mmi != 0")},
    {"heapSegmentOfAPool", [] { giveBack(MemoryHeap::instance(), reportedPool<>().registerModule({.name = "m"})); },
     failedCheck("MemoryHeap.cpp 66: mmi->isHeapMemory()")},
    {"sizeZero", [] { makeObject(0); }, ALLOCATION + "Assertion (size > 0) failed " + UNIT + "119\n"},
    {"sizeTooLarge",
     [] {
         MemShield::releaseObject(makeObject(314572799 - 80), PLACE);
         std::cout << "released" << std::endl;
         makeObject(314572800 - 80);
     },
     "released\n" + ALLOCATION + "Assertion (allocationLength < MAX_SINGLE_ALLOCATION_LENGTH) failed " + UNIT +
         "125\n"},
    {"sizeBeyondCounting",
     [] { static_cast<void>(GuardedMemory::createArray<std::uint64_t>(ARRAY_SITE, 1ULL << 62U)); },
     ALLOCATION + " " + UNIT + "140: size < (u32)-1 failed.  size=18446744073709551615 \n~,Assert,~"},
    {"guardedArrayTooLong", [] { static_cast<void>(MemShield::allocate(1, 4294967295, ARRAY_SITE)); },
     ALLOCATION + " " + UNIT + "141: arrayLength < (u32)-1 failed.  arrayLength=4294967295 \n~,Assert,~"},
    {"countedArrayTooLong", [] { static_cast<void>(MemShield::allocate(1, 4294967295, ARRAY_SITE)); },
     "MemShield,internalAllocAndCountOnlyArray,Assertion (numItems < std::numeric_limits<u32>::max()) failed " + UNIT +
         "173\n",
     false},
    {"arrayReleasedAsObject", [] { MemShield::releaseObject(GuardedMemory::createArray<char>(ARRAY_SITE, 5), PLACE); },
     "MemShield,freeAndCount,Assertion (*(--sanityPtr) == std::numeric_limits<u32>::max()) failed " + UNIT + "191\n",
     false},
    {"objectReleasedAsArray", [] { MemShield::releaseArray(makeObject(), PLACE); },
     "MemShield,freeAndCountArray,Assertion (*(--sanityPtr) < std::numeric_limits<u32>::max()) failed " + UNIT +
         "204\n",
     false},
};

const auto areRegistered = std::ranges::for_each(MISUSES, [](const Misuse& misuse) {
    childScenarios()[misuse.name] = [&] {
        logThroughTheAllocator(misuse.isGuarded, misuse.clientOverrun);
        misuse.work();
    };
});

TEST(MemShieldMisuse, IsReportedWithItsPlacesAndEndsTheProcess)
{
    const ScratchFolder folder;
    std::ranges::for_each(MISUSES, [](const Misuse& misuse) { expectAbnormalEnd(misuse.name, misuse.expected); });
}

CHILD_SCENARIO(corruptionUnderLoad)
{
    logThroughTheAllocator(true, 0);
    runInThreads(4, [](int index) {
        std::vector<Bytes> blocks(20'000);
        std::minstd_rand random(static_cast<unsigned>(index + 1));
        for (int i = 0;; ++i)
        {
            Bytes& block = blocks[random() % blocks.size()];
            if (block != nullptr)
            {
                block[index < 2 && i > 100'000 ? 100 : 99] = 1;
                MemShield::releaseObject(block, PLACE);
            }
            block = makeObject();
        }
    });
}

TEST(MemShieldMisuse, IsReportedWhileOtherThreadsAllocateAndMisuseMemoryToo)
{
    const ScratchFolder folder;
    repeat(3, [] {
        const std::string output =
            expectAbnormalEnd("corruptionUnderLoad",
                              "~maker.cpp 11! [0->1,]~printRecentlyFreed,~Assertion (false) failed " + UNIT + "342~");
        EXPECT_EQ(output.find("overrun"), output.rfind("overrun")) << output;
    });
}

} // namespace
