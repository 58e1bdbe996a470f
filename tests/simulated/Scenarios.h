#pragma once

#include "platform/simulated/Schedule.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>

#include <gtest/gtest.h>

using namespace platform::simulated;

/// Expects that no schedule goes wrong, of those with two preemptions at most, as far as these are the number given,
/// and of as many at random. The environment variable TAVRO_SCHEDULES gives a greater number.
inline void exploreBothWays(const Scenario& scenario, std::uint64_t most = 2'000)
{
    if (const char* const wanted = std::getenv("TAVRO_SCHEDULES"); wanted != nullptr)
    {
        most = std::max<std::uint64_t>(most, std::strtoull(wanted, nullptr, 10));
    }
    const Exploration inOrder = explore(scenario, {.maxSchedules = most, .warmUps = 20});
    ASSERT_EQ("", inOrder.failure);
    const Exploration atRandom = explore(scenario, {.maxSchedules = most, .seed = 1, .warmUps = 20});
    EXPECT_EQ("", atRandom.failure);
    std::cout << inOrder.schedules << (inOrder.isComplete ? " (all)" : "") << " and " << atRandom.schedules
              << " schedules\n";
}
