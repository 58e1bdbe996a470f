#include "datapath/common/infra/base/ClientVisits.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace
{

void pause(int turns)
{
    for (int i = 0; i < turns; ++i)
    {
        std::atomic_signal_fence(std::memory_order_seq_cst); // keeps the loop
    }
}

/// In each round one thread visits a client while another one removes it. Without a memory fence between the steps of
/// one of them, about one in a hundred rounds fails where a processor reorders a store and a later load.
TEST(ClientVisits, NobodyIsInsideAClientThatHasBeenRemoved)
{
    constexpr int ROUNDS = 20'000;
    constexpr int DELAYS = 512;
    constexpr std::size_t CACHE_LINE = 64;
    const ScopedReplacement lookingAgainAtOnce(
        platform::threadCalls.sleepMs, +[](std::uint32_t) {});
    alignas(CACHE_LINE) platform::Atomic<bool> isThere = false;
    alignas(CACHE_LINE) platform::Atomic<bool> isDestroyed = false;
    alignas(CACHE_LINE) platform::Atomic<int> arrived = 0;
    const auto meet = [&](int meeting) {
        ++arrived;
        while (arrived < 2 * meeting)
        {
        }
    };
    int faults = 0;
    std::thread visitor([&] {
        for (int round = 0; round < ROUNDS; ++round)
        {
            meet(2 * round + 1);
            if (const ClientVisits::Visit visit(0); isThere)
            {
                pause(DELAYS);
                faults += isDestroyed ? 1 : 0;
            }
            meet(2 * round + 2);
        }
    });
    for (int round = 0; round < ROUNDS; ++round)
    {
        isDestroyed = false;
        isThere = true;
        meet(2 * round + 1);
        pause(round % DELAYS);
        isThere.exchange(false);
        ClientVisits::waitUntilLeft(0);
        isDestroyed = true;
        meet(2 * round + 2);
    }
    visitor.join();
    EXPECT_EQ(0, faults);
}

} // namespace
