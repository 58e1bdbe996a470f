#include "datapath/common/infra/MemShield.h"

#include "datapath/common/infra/SystemHeapBytes.h"
#include "datapath/common/infra/Timer.h"
#include "tests/support/Support.h"

#include <array>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include <gtest/gtest.h>

namespace
{

constexpr AllocationSite SITE{"Thing", {"maker.cpp", 11}};
constexpr AllocationSite ARRAY_SITE{"s8", {"maker.cpp", 12}};
constexpr SourcePlace PLACE{"user.cpp", 22};

using Bytes = unsigned char*;

Bytes makeObject(std::uint64_t size = 100) { return static_cast<Bytes>(MemShield::allocateObject(size, SITE)); }

class MemShieldTest : public testing::TestWithParam<bool>
{
protected:
    MemShieldTest()
    {
        folder.enter();
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
    struct OtherBase
    {
        virtual ~OtherBase() = default;
    };
    struct Derived : OtherBase, Base
    {
        explicit Derived(bool& destroyed) : isDestroyed(destroyed) {}
        ~Derived() override { isDestroyed = true; }
        bool& isDestroyed;
    };
    if (!GetParam())
    {
        const auto headerOf = [](const void* block) {
            std::array<std::uint32_t, 2> words{};
            std::memcpy(words.data(), static_cast<const char*>(block) - sizeof(words), sizeof(words));
            return words;
        };
        Bytes const array = MemShield::createArray<unsigned char>(ARRAY_SITE, 7);
        EXPECT_EQ((std::array<std::uint32_t, 2>{15, 7}), headerOf(array));
        MemShield::releaseArray(array, PLACE);
        Bytes const empty = MemShield::createArray<unsigned char>(ARRAY_SITE, 0);
        EXPECT_EQ((std::array<std::uint32_t, 2>{8, 0xFFFF'FFFF}), headerOf(empty));
        MemShield::releaseObject(empty, PLACE);
    }
    struct Throwing
    {
        Throwing() { throw 1; }
    };
    EXPECT_THROW(static_cast<void>(MemShield::create<Throwing>(SITE)), int);
    bool isDestroyed = false;
    Base* const base = MemShield::create<Derived>(SITE, isDestroyed);
    MemShield::destroy(base, dynamic_cast<void*>(base), PLACE);
    EXPECT_TRUE(isDestroyed);
    EXPECT_EQ(before, MemShield::systemHeapBytes());
}

TEST_P(MemShieldTest, CountsInMoreThreadsThanThereAreShares)
{
    const std::uint64_t before = MemShield::systemHeapBytes();
    for (int i = 0; i < 300; ++i)
    {
        std::thread([] { MemShield::releaseObject(makeObject(), PLACE); }).join();
    }
    Bytes object = nullptr;
    std::thread([&] { object = makeObject(); }).join();
    EXPECT_EQ(before + (GetParam() ? 180 : 108), MemShield::systemHeapBytes());
    MemShield::releaseObject(object, PLACE);
    EXPECT_EQ(before, MemShield::systemHeapBytes());
}

TEST_P(MemShieldTest, CountReturnsAfterRandomUseByManyThreads)
{
    const std::uint64_t before = MemShield::systemHeapBytes();
    std::vector<std::atomic<char*>> blocks(1000); // released by whichever thread comes by
    runInThreads(8, [&](int index) {
        std::mt19937 random(static_cast<unsigned>(index));
        for (int i = 0; i < 125'000; ++i)
        {
            const std::uint64_t size = random() % 300 + 1;
            char* const fresh = random() % 4 == 0 ? nullptr : MemShield::createArray<char>(ARRAY_SITE, size);
            if (char* const old = blocks[random() % blocks.size()].exchange(fresh))
            {
                MemShield::destroyArray(old, PLACE);
            }
            ASSERT_TRUE(i % 5000 != 0 || MemShield::instance().checkInvariants());
            ASSERT_GT(1'000'000U, MemShield::systemHeapBytes());
        }
        SystemHeapBytes::leaveShare();
    });
    for (const std::atomic<char*>& block : blocks)
    {
        if (block != nullptr)
        {
            MemShield::destroyArray(block.load(), PLACE);
        }
    }
    EXPECT_EQ(before, MemShield::systemHeapBytes());
}

TEST(MemShieldHistory, ReleasedBlocksStayWithTheirRecords)
{
    const ScratchFolder folder;
    folder.enter();
    Timer::instance().getTimestampMs();
    folder.write("tweaks_extension.txt",
                 "t_allocationHistoryLengthMs=1\nt_memshield_pre_margin_size=17\n"
                 "t_memshield_post_margin_size=0\nt_MemShieldMaxAllocationInCodeLine=20\nt_MemShieldVerbose=off\n");
    waitForOwnThreads();
    const std::uint64_t ownBytes = MemShield::systemHeapBytes();
    const auto& client = *new CapturingClient; // stays registered
    const LettingGo lettingGo;
    Bytes const object = makeObject(2);
    EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(object) % alignof(std::max_align_t));
    EXPECT_EQ(0xFF, object[0]);
    object[0] = 1;
    for (int i = 1; i < 20; ++i)
    {
        EXPECT_TRUE(makeObject(2) != nullptr);
    }
    EXPECT_EQ(ownBytes + 20 * (17 + 2U), MemShield::systemHeapBytes());
    MemShield::instance().memShieldDumpLocked();
    std::vector<std::string> dump = client.messages();
    std::erase_if(dump, [](const std::string& line) { return line.find("m_class=Thing") == std::string::npos; });
    EXPECT_EQ(20U, dump.size());
    EXPECT_TRUE(std::ranges::is_sorted(dump)); // by their addresses
    EXPECT_TRUE(dump.back().ends_with(":  it->second.m_class=Thing  it->second.m_file=maker.cpp  it->second.m_line=11  "
                                      "it->second.m_size=2  it->second.m_arrayLength=0 "));
    MemShield::instance().printAllocations();
    EXPECT_EQ(1,
              std::ranges::count(client.messages(), "Assert,NON,MemShield,printAllocations, "
                                                    "datapath/common/infra/MemShield.cpp 516: false failed. Too many "
                                                    "allocations from as single log line.  "
                                                    "maxAllocationInCodeLine=20  maxAllocationsFound=20 "));
    EXPECT_EQ(0, std::ranges::count_if(client.messages(), [](const std::string& message) {
                  return message.find(",allocation ") != std::string::npos;
              }));
    MemShield::releaseObject(object, PLACE);
    EXPECT_EQ(ownBytes + 20 * (17 + 2U), MemShield::systemHeapBytes());
    EXPECT_EQ(0xFF, object[0]); // still there
    MemShield::instance().printRecentlyFreed();
    const std::string freed = client.messages().back();
    EXPECT_TRUE(matches(freed, "Info,NON,MemShield,printRecentlyFreed,Freed item mem =~ info= info.m_size=2  "
                               "info.m_file=maker.cpp  info.m_line=11  it->second.m_freeTime=#  "
                               "it->second.m_allocTime=#  it->second.m_class=Thing "))
        << freed;
}

} // namespace
