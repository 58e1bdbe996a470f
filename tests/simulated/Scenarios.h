#pragma once

#include "datapath/common/infra/SystemHeapBytes.h"
#include "platform/simulated/Schedule.h"

#include <iostream>
#include <string>

#include <gtest/gtest.h>

using namespace platform::simulated;

/// The works of threads that use the guarded allocator.
inline void runWorkers(std::vector<NamedWork> works)
{
    for (NamedWork& named : works)
    {
        named.work = [work = named.work] { work(), SystemHeapBytes::leaveShare(); };
    }
    runTogether(works);
}

/// Expects that no schedule goes wrong, of those with two preemptions at most, as far as these are the number given,
/// and of as many at random.
inline void exploreBothWays(const Scenario& content, std::uint64_t most = 2'000)
{
    const Scenario scenario = [&] { content(), SystemHeapBytes::leaveShare(); };
    const Exploration inOrder = explore(scenario, {.maxSchedules = most, .warmUps = 20});
    ASSERT_EQ("", inOrder.failure);
    const Exploration atRandom = explore(scenario, {.maxSchedules = most, .seed = 1, .warmUps = 20});
    EXPECT_EQ("", atRandom.failure);
    std::cout << inOrder.schedules << (inOrder.isComplete ? " (all)" : "") << " and " << atRandom.schedules
              << " schedules\n";
}
