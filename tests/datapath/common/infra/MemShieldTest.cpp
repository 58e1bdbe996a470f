#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/MemoryReport.h"

#include "datapath/common/infra/SystemHeapBytes.h"
#include "datapath/common/infra/Timer.h"
#include "tests/support/MemShieldSites.h"
#include "tests/support/Support.h"

#include <array>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include <gtest/gtest.h>

namespace
{

struct MemShieldTest : testing::TestWithParam<bool>
{
    MemShieldTest()
    {
        MemShield::setEnabled(GetParam());
        waitForOwnThreads();
    }

    const ScratchFolder folder;
};

INSTANTIATE_TEST_SUITE_P(Modes, MemShieldTest, testing::Bool(),
                         [](const auto& mode) { return mode.param ? "guarded" : "counted"; });

TEST_P(MemShieldTest, CountsEveryByteThatItTakes)
{
    const std::uint64_t before = MemShield::systemHeapBytes();
    Bytes const object = makeObject();
    EXPECT_EQ(before + (GetParam() ? 180 : 108), MemShield::systemHeapBytes());
    std::thread([&] { MemShield::releaseObject(object, PLACE); }).join();
    EXPECT_EQ(before, MemShield::systemHeapBytes());

    struct Base
    {
        virtual ~Base() = default;
    };
    struct Derived : std::exception, Base
    {
        explicit Derived(bool& destroyed) : isDestroyed(destroyed) {}
        ~Derived() override { isDestroyed = true; }
        bool& isDestroyed;
    };
    for (const std::uint32_t length : GetParam() ? std::vector<std::uint32_t>() : std::vector<std::uint32_t>{7, 0})
    {
        Bytes const array = GuardedMemory::createArray<unsigned char>(ARRAY_SITE, length);
        std::array<std::uint32_t, 2> header{};
        std::memcpy(header.data(), array - sizeof(header), sizeof(header));
        EXPECT_EQ((std::array{8 + length, length - 1 < 7 ? length : 0xFFFF'FFFF}), header);
        length == 0 ? MemShield::releaseObject(array, PLACE) : MemShield::releaseArray(array, PLACE);
    }
    struct Throwing
    {
        Throwing() { throw 1; }
    };
    EXPECT_THROW(static_cast<void>(GuardedMemory::create<Throwing>(SITE)), int);
    bool isDestroyed = false;
    Base* const base = GuardedMemory::create<Derived>(SITE, isDestroyed);
    GuardedMemory::destroy(base, dynamic_cast<void*>(base), PLACE);
    EXPECT_TRUE(isDestroyed);
    EXPECT_EQ(before, MemShield::systemHeapBytes());
}

TEST_P(MemShieldTest, CountsInMoreThreadsThanThereAreShares)
{
    const std::uint64_t before = MemShield::systemHeapBytes();
    repeat(300, [] { std::thread([] { MemShield::releaseObject(makeObject(), PLACE); }).join(); });
    Bytes object = nullptr;
    std::thread([&] { object = makeObject(); }).join();
    EXPECT_EQ(before + (GetParam() ? 180 : 108), MemShield::systemHeapBytes());
    MemShield::releaseObject(object, PLACE);
    EXPECT_EQ(before, MemShield::systemHeapBytes());
}

TEST_P(MemShieldTest, CountReturnsAfterRandomUseByManyThreads)
{
    const std::uint64_t before = MemShield::systemHeapBytes();
    std::atomic<int> rounds = 0;
    exchangeInThreads(
        8, 125'000,
        [&](std::uint32_t random) {
            EXPECT_TRUE(++rounds % 5000 != 0 || MemShield::instance().checkInvariants());
            EXPECT_GT(1'000'000U, MemShield::systemHeapBytes());
            return random % 4 == 0 ? nullptr : GuardedMemory::createArray<char>(ARRAY_SITE, random / 4 % 300 + 1);
        },
        [](const char* old) { GuardedMemory::destroyArray(old, PLACE); });
    EXPECT_EQ(before, MemShield::systemHeapBytes());
}

using MemShieldHistory = LogTest;

TEST_F(MemShieldHistory, ReleasedBlocksStayWithTheirRecords)
{
    Timer::instance().getTimestampMs();
    folder.write("tweaks_extension.txt",
                 "t_allocationHistoryLengthMs=1\nt_memshield_pre_margin_size=17\n"
                 "t_memshield_post_margin_size=0\nt_MemShieldMaxAllocationInCodeLine=20\nt_MemShieldVerbose=off\n");
    waitForOwnThreads();
    const std::uint64_t ownBytes = MemShield::systemHeapBytes();
    Bytes const object = makeObject(2);
    EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(object) % alignof(std::max_align_t));
    EXPECT_EQ(0xFF, object[0]);
    object[0] = 1;
    repeat(19, [] { EXPECT_TRUE(makeObject(2) != nullptr); });
    EXPECT_EQ(ownBytes + 20 * (17 + 2U), MemShield::systemHeapBytes());
    MemoryReport::memShieldDumpLocked();
    EXPECT_TRUE(std::ranges::is_sorted(client.messagesAfter("Info,NON,MemShield,memShieldDumpLocked,"))); // by address
    EXPECT_EQ(20, client.count("~ :  it->second.m_class=Thing  it->second.m_file=maker.cpp  it->second.m_line=11  "
                               "it->second.m_size=2  it->second.m_arrayLength=0 "));
    MemoryReport::printAllocations();
    EXPECT_EQ(1, client.count("Assert,NON,MemShield,printAllocations, datapath/common/infra/MemShield.cpp 516: false "
                              "failed. Too many allocations from as single log line.  maxAllocationInCodeLine=20  "
                              "maxAllocationsFound=20 "));
    EXPECT_EQ(0, client.count("~,allocation ~"));
    MemShield::releaseObject(object, PLACE);
    EXPECT_EQ(ownBytes + 20 * (17 + 2U), MemShield::systemHeapBytes());
    EXPECT_EQ(0xFF, object[0]); // the memory is kept
    MemoryReport::printRecentlyFreed();
    EXPECT_PRED2(matches, client.last(),
                 "Info,NON,MemShield,printRecentlyFreed,Freed item mem =~ info= info.m_size=2  info.m_file=maker.cpp  "
                 "info.m_line=11  it->second.m_freeTime=#  it->second.m_allocTime=#  it->second.m_class=Thing ");
}

} // namespace
