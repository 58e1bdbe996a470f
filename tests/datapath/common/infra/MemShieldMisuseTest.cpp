// Every misuse of memory that the guarded allocator finds, seen from outside: lines and status.

#include "datapath/common/infra/MemShield.h"

#include "datapath/common/infra/HeapMemoryAllocationTracker.h"
#include "datapath/common/infra/SystemHeapBytes.h"
#include "datapath/common/infra/Timer.h"
#include "datapath/common/infra/Tweaks.h"
#include "tests/support/Support.h"

#include <atomic>
#include <cstring>
#include <iostream>
#include <random>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

namespace
{

constexpr AllocationSite SITE{"Thing", {"maker.cpp", 11}};
constexpr AllocationSite ARRAY_SITE{"s8", {"maker.cpp", 12}};
constexpr SourcePlace PLACE{"user.cpp", 22};

MemShield& shield() { return MemShield::instance(); }

const DynamicTweak<bool> NOT_DISABLED;

/// As the log file does, it allocates for each line.
class AllocatingClient : public LoggerClient
{
public:
    /// Writes that many bytes behind the end of each copy.
    explicit AllocatingClient(std::size_t overrun) : m_overrun(overrun) {}

    void log(const std::string& line) override
    {
        const std::string message = line.substr(std::min(line.find(",NON,") + 5, line.size()));
        const auto length = static_cast<std::uint32_t>(message.size());
        char* const copy = m_tracker.allocateIgnoringLimit(length);
        std::memcpy(copy, message.c_str(), length + m_overrun);
        std::cout.write(copy, length);
        m_tracker.free(copy, length);
    }
    void flush() override { std::cout.flush(); }

    HeapMemoryAllocationTracker m_tracker{1'000'000, 1'000'000, NOT_DISABLED, "client"};

private:
    std::size_t m_overrun;
};

AllocatingClient& logThroughTheAllocator(bool isEnabled, std::size_t overrun = 0)
{
    MemShield::setEnabled(isEnabled);
    static_cast<void>(shield());
    Timer::instance().getTimestampMs();
    auto* const client = new AllocatingClient(overrun);
    Logger::instance().registerClient(client, Logger::ALL_LEVELS);
    return *client;
}

using Bytes = unsigned char*;

Bytes makeObject(std::uint64_t size = 100) { return static_cast<Bytes>(MemShield::allocateObject(size, SITE)); }

CHILD_SCENARIO(objectReleasedTwice)
{
    logThroughTheAllocator(true);
    Bytes const object = makeObject();
    MemShield::releaseObject(object, PLACE);
    MemShield::releaseObject(object, PLACE);
}

CHILD_SCENARIO(textDestroyedTwice)
{
    logThroughTheAllocator(true);
    auto* const text = MemShield::create<std::string>(SITE, 100U, 'x');
    MemShield::destroy(text, PLACE);
    MemShield::destroy(text, PLACE);
}

CHILD_SCENARIO(arrayReleasedTwice)
{
    logThroughTheAllocator(true);
    char* const array = MemShield::createArray<char>(ARRAY_SITE, 5);
    MemShield::destroyArray(array, PLACE);
    MemShield::destroyArray(array, PLACE);
}

CHILD_SCENARIO(foreignPointer)
{
    logThroughTheAllocator(true);
    MemShield::releaseObject(makeObject() + 1, PLACE);
}

CHILD_SCENARIO(overrunAtOnce)
{
    logThroughTheAllocator(true);
    Bytes const object = makeObject();
    object[100] = 65;
    MemShield::releaseObject(object, PLACE);
}

CHILD_SCENARIO(overrunAtTheEnd)
{
    logThroughTheAllocator(true);
    Bytes const array = static_cast<Bytes>(MemShield::internalAllocAndCountOnlyArray(100, 100, ARRAY_SITE));
    array[100] = 0xFF; // not noticed
    array[163] = 0;
    MemShield::releaseArray(array, PLACE);
}

CHILD_SCENARIO(overrunOfABuffer)
{
    AllocatingClient& client = logThroughTheAllocator(true);
    char* const buffer = client.m_tracker.allocateIgnoringLimit(100);
    buffer[100] = 65;
    client.m_tracker.free(buffer, 100);
}

CHILD_SCENARIO(overrunByTheClientItself)
{
    logThroughTheAllocator(true, 1);
    MemShield::destroyArray(MemShield::createArray<char>(ARRAY_SITE, 1) + 1, PLACE);
}

CHILD_SCENARIO(misuseWhileATweakIsLogged)
{
    struct MisusingClient : LoggerClient
    {
        void log(const std::string& line) override
        {
            if (line.find("Updating tweak") != std::string::npos)
            {
                MemShield::releaseObject(this, PLACE);
            }
        }
    };
    logThroughTheAllocator(true);
    Logger::instance().registerClient(new MisusingClient, Logger::ALL_LEVELS);
    Tweaks::instance().update("t_a", "1");
}

CHILD_SCENARIO(sizeZero)
{
    logThroughTheAllocator(true);
    makeObject(0);
}

CHILD_SCENARIO(sizeTooLarge)
{
    logThroughTheAllocator(true);
    MemShield::releaseObject(makeObject(314572799 - 80), PLACE);
    std::cout << "released" << std::endl;
    makeObject(314572800 - 80);
}

CHILD_SCENARIO(sizeBeyondCounting)
{
    logThroughTheAllocator(true);
    static_cast<void>(MemShield::createArray<std::uint64_t>(ARRAY_SITE, 1ULL << 62U));
}

CHILD_SCENARIO(guardedArrayTooLong)
{
    logThroughTheAllocator(true);
    static_cast<void>(MemShield::internalAllocAndCountOnlyArray(1, 4294967295, ARRAY_SITE));
}

CHILD_SCENARIO(countedArrayTooLong)
{
    logThroughTheAllocator(false);
    static_cast<void>(MemShield::internalAllocAndCountOnlyArray(1, 4294967295, ARRAY_SITE));
}

CHILD_SCENARIO(arrayReleasedAsObject)
{
    logThroughTheAllocator(false);
    MemShield::releaseObject(MemShield::createArray<char>(ARRAY_SITE, 5), PLACE);
}

CHILD_SCENARIO(objectReleasedAsArray)
{
    logThroughTheAllocator(false);
    MemShield::releaseArray(makeObject(), PLACE);
}

TEST(MemShieldMisuse, IsReportedWithItsPlacesAndEndsTheProcess)
{
    const ScratchFolder folder;
    folder.enter();
    const auto report = [](const std::string& live, const std::string& dump) {
        const bool isEmpty = live.empty();
        return std::string("MemShield,printAllocations,Allocated from system heap: ") + (isEmpty ? "0" : "180") +
               "\nMemShield,printAllocations,Total memory allocation: " + (isEmpty ? "0\n" : "100\n") +
               (isEmpty ? "" : "MemShield,printAllocations,allocation " + live + " -> 1 allocations 100 bytes\n") +
               "MemWatchedContainerDatabase,printWatchedContainers,[^]*"
               "printRecentlyFreed, Timer::instance\\(\\)->getLastTimestampMs_Inaccurate\\(true\\)=[1-9]\\d* \n" +
               dump +
               "MemShield,memshieldError,Assertion \\(false\\) failed datapath/common/infra/MemShield\\.cpp 342\n";
    };
    const auto unallocated = [&](const std::string& live) {
        return "MemShield,verifyPtr,trying to access \\(verifyPtr\\) un-allocated memory file=user\\.cpp  line=22  "
               "mem=[0-9a-f]+ \n" +
               report(live, "");
    };
    const auto overrun = [&](const std::string& type, const std::string& file, const std::string& line,
                             const std::string& bytes, const std::string& arrayLength, const std::string& freedAt) {
        return "MemShield,freeAndUnregister,memory overrun \\(during free\\)!memory corruption \\(post\\) : "
               "[0-9a-f]+ " +
               file + " " + line + "! \\[" + bytes +
               ",\\] it->second\\.m_allocTime=[1-9]\\d*  it->second\\.m_freeTime=0  it->second\\.m_class=" + type +
               " \nMemShield,freeAndUnregister,freed at file=" + freedAt + " \n" +
               report(file + " " + line,
                      "MemShield,memShieldDumpLocked,dumpalloc: [0-9a-f]+ :  it->second\\.m_class=" + type +
                          "  it->second\\.m_file=" + file + "  it->second\\.m_line=" + line +
                          "  it->second\\.m_size=100  it->second\\.m_arrayLength=" + arrayLength + " \n");
    };
    const std::string unit = "datapath/common/infra/MemShield\\.cpp ";
    const std::string tracker = "datapath/common/infra/HeapMemoryAllocationTracker\\.cpp";
    const std::string allocation = "MemShield,internalAllocAndRegister,";
    const std::string assertLine = "[^]*,Assert,[^]*"; // once more on standard output
    const std::vector<std::pair<const char*, std::string>> expectations = {
        {"objectReleasedTwice", unallocated("")},
        {"textDestroyedTwice", unallocated("")},
        {"foreignPointer", unallocated("maker\\.cpp 11")},
        {"arrayReleasedTwice", "MemShield,freeAndUnregister,trying to free un-allocated memory file=user\\.cpp  "
                               "line=22 \n" +
                                   report("", "")},
        {"overrunAtOnce", overrun("Thing", "maker\\.cpp", "11", "0->65", "0", "user\\.cpp  line=22")},
        {"overrunAtTheEnd", overrun("s8", "maker\\.cpp", "12", "63->0", "100", "user\\.cpp  line=22")},
        {"overrunOfABuffer", overrun("s8", tracker, "47", "0->65", "100", tracker + "  line=30")},
        {"overrunByTheClientItself", "[^]*Assertion \\(false\\) failed " + unit +
                                         "342, misuse of memory while one "
                                         "is reported\n"},
        {"misuseWhileATweakIsLogged", "Tweaks,update,Updating tweak:[^]*" + unallocated("")},
        {"sizeZero", allocation + "Assertion \\(size > 0\\) failed " + unit + "119\n"},
        {"sizeTooLarge", "released\n" + allocation +
                             "Assertion \\(allocationLength < MAX_SINGLE_ALLOCATION_LENGTH\\) "
                             "failed " +
                             unit + "125\n"},
        {"sizeBeyondCounting", allocation + " " + unit +
                                   "140: size < \\(u32\\)-1 failed\\.  "
                                   "size=18446744073709551615 \n" +
                                   assertLine},
        {"guardedArrayTooLong", allocation + " " + unit +
                                    "141: arrayLength < \\(u32\\)-1 failed\\.  "
                                    "arrayLength=4294967295 \n" +
                                    assertLine},
        {"countedArrayTooLong", "MemShield,internalAllocAndCountOnlyArray,Assertion \\(numItems < "
                                "std::numeric_limits<u32>::max\\(\\)\\) failed " +
                                    unit + "173\n"},
        {"arrayReleasedAsObject", "MemShield,freeAndCount,Assertion \\(\\*\\(--sanityPtr\\) == "
                                  "std::numeric_limits<u32>::max\\(\\)\\) failed " +
                                      unit + "191\n"},
        {"objectReleasedAsArray", "MemShield,freeAndCountArray,Assertion \\(\\*\\(--sanityPtr\\) < "
                                  "std::numeric_limits<u32>::max\\(\\)\\) failed " +
                                      unit + "204\n"},
    };
    for (const auto& [scenario, expected] : expectations)
    {
        const ChildResult child = runChild(scenario);
        EXPECT_TRUE(child.status == ABNORMAL_END_WINDOWS || child.status == ABNORMAL_END_POSIX) << child.status;
        EXPECT_TRUE(std::regex_match(child.output, std::regex(expected))) << scenario << "\n" << child.output;
    }
}

CHILD_SCENARIO(corruptionUnderLoad)
{
    logThroughTheAllocator(true);
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
    folder.enter();
    for (int i = 0; i < 3; ++i)
    {
        const ChildResult child = runChild("corruptionUnderLoad");
        EXPECT_TRUE(child.status == ABNORMAL_END_WINDOWS || child.status == ABNORMAL_END_POSIX) << child.status;
        EXPECT_NE(std::string::npos, child.output.find("maker.cpp 11! [0->1,]")) << child.output;
        EXPECT_NE(std::string::npos, child.output.find("printRecentlyFreed")) << child.output;
        EXPECT_NE(std::string::npos,
                  child.output.find("Assertion (false) failed datapath/common/infra/MemShield.cpp 342"))
            << child.output;
    }
}

} // namespace
