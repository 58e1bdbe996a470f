#include "datapath/common/infra/HeapBlocks.h"
#include "datapath/common/infra/GuardedMemory.h"
#include "tests/support/MemShieldSites.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using namespace HeapBlocks;

constexpr std::size_t BLOCKS_OF_MAGAZINE = 64;

/// Addresses that stand for blocks; nothing is read or written there.
void fillWith(Magazine& magazine, std::byte* first)
{
    for (; !magazine.isFull(); ++first)
    {
        magazine.add(first);
    }
}

TEST(HeapBlocksTest, EachSizeFitsIntoItsKind)
{
    for (std::size_t bytes = 1; bytes <= MAX_BYTES; ++bytes)
    {
        ASSERT_LT(kindOf(bytes), NUM_KINDS);
        ASSERT_GE(capacityOf(bytes), bytes);
        ASSERT_EQ(kindOf(bytes), kindOf(capacityOf(bytes)));
    }
    EXPECT_EQ(MAX_BYTES, capacityOf(MAX_BYTES));
    EXPECT_EQ(NUM_KINDS, kindOf(MAX_BYTES + 1));
}

TEST(HeapBlocksTest, ADepotWithoutRoomLeavesTheMagazineAsItWas)
{
    const auto depot = std::make_unique<Depot>();
    std::vector<std::byte> addresses(1'000 * BLOCKS_OF_MAGAZINE);
    Magazine magazine;
    EXPECT_FALSE(depot->fill(magazine));
    std::size_t numGiven = 0;
    for (fillWith(magazine, addresses.data()); depot->give(magazine);
         fillWith(magazine, &addresses[numGiven * BLOCKS_OF_MAGAZINE]))
    {
        ASSERT_TRUE(magazine.isEmpty());
        ++numGiven;
        ASSERT_LT(numGiven, 999U) << "a depot keeps a limited number of blocks";
    }
    EXPECT_TRUE(magazine.isFull());
    EXPECT_EQ(&addresses[(numGiven + 1) * BLOCKS_OF_MAGAZINE - 1], magazine.take());
}

TEST(HeapBlocksTest, EachBlockComesOutOnceThoughSeveralThreadsGiveAndTake)
{
    constexpr std::size_t MAGAZINES = 2'000; // of each giver
    constexpr std::size_t GIVERS = 2;
    const auto depot = std::make_unique<Depot>();
    std::vector<std::byte> addresses(GIVERS * MAGAZINES * BLOCKS_OF_MAGAZINE);
    std::vector<std::atomic<int>> numTaken(addresses.size());
    std::atomic<std::size_t> numMagazines = 0;
    std::vector<std::jthread> threads;
    for (std::size_t giver = 0; giver < GIVERS; ++giver)
    {
        threads.emplace_back([&, giver] {
            for (std::size_t i = 0; i < MAGAZINES; ++i)
            {
                Magazine magazine;
                fillWith(magazine, &addresses[(giver * MAGAZINES + i) * BLOCKS_OF_MAGAZINE]);
                while (!depot->give(magazine))
                {
                    std::this_thread::yield();
                }
            }
        });
        threads.emplace_back([&] {
            for (Magazine magazine; numMagazines < GIVERS * MAGAZINES; std::this_thread::yield())
            {
                if (depot->fill(magazine))
                {
                    ++numMagazines;
                    while (!magazine.isEmpty())
                    {
                        ++numTaken[static_cast<std::size_t>(static_cast<std::byte*>(magazine.take()) -
                                                            addresses.data())];
                    }
                }
            }
        });
    }
    threads.clear();
    EXPECT_TRUE(std::ranges::all_of(numTaken, [](int times) { return times == 1; }));
}

TEST(HeapBlocksTest, WhatOneThreadReleasesAnotherUses)
{
    const ScratchFolder folder;
    MemShield::setEnabled(false);
    waitForOwnThreads();
    constexpr std::size_t OBJECTS = 3 * BLOCKS_OF_MAGAZINE;
    using Bytes = std::array<char, 100>;
    std::vector<Bytes*> objects(OBJECTS);
    const auto make = [] { return GuardedMemory::create<Bytes>({"Bytes", SourcePlace::here()}); };
    const auto destroyAll = [&] {
        std::ranges::for_each(objects, [](Bytes* object) { GuardedMemory::destroy(object, SourcePlace::here()); });
    };
    const std::uint64_t before = MemShield::systemHeapBytes();
    std::jthread([&] { std::ranges::generate(objects, make); }).join();
    const std::vector<Bytes*> released = objects;
    std::jthread([&] {
        destroyAll();
        EXPECT_EQ(before, MemShield::systemHeapBytes()) << "blocks that wait for a user do not count";
        std::jthread([&] { std::ranges::generate(objects, make); }).join();
    }).join();
    const auto isReused = [&](Bytes* object) { return std::ranges::find(released, object) != released.end(); };
    const auto numReused = static_cast<std::size_t>(std::ranges::count_if(objects, isReused));
    EXPECT_TRUE(numReused >= BLOCKS_OF_MAGAZINE || !areRecycled) << numReused;
    for (Bytes* const object : objects)
    {
        std::memset(object, 1, sizeof(Bytes));
    }
    destroyAll();
    EXPECT_EQ(before, MemShield::systemHeapBytes());
}

} // namespace
