#pragma once

#include "platform/simulated/Schedule.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>

#include <gtest/gtest.h>

using namespace platform::simulated;

/// Expects that no schedule goes wrong: of those with at most two preemptions the given number, and as many random
/// ones. The environment variable TAVRO_SCHEDULES can raise the number.
inline void exploreBothWays(const Scenario& scenario, std::uint64_t maxSchedules = 2'000)
{
    if (const char* const wanted = std::getenv("TAVRO_SCHEDULES"); wanted != nullptr)
    {
        maxSchedules = std::max<std::uint64_t>(maxSchedules, std::strtoull(wanted, nullptr, 10));
    }
    const Exploration inOrder = explore(scenario, {.maxSchedules = maxSchedules, .warmUps = 20});
    ASSERT_EQ("", inOrder.failure);
    const Exploration atRandom = explore(scenario, {.maxSchedules = maxSchedules, .seed = 1, .warmUps = 20});
    EXPECT_EQ("", atRandom.failure);
    std::cout << inOrder.schedules << (inOrder.isComplete ? " (all)" : "") << " and " << atRandom.schedules
              << " schedules\n";
}
