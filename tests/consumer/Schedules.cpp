// An outsider's code in every order of its threads.

#include "platform/Atomic.h"
#include "platform/simulated/Schedule.h"

#include <cstdio>

int main()
{
    using namespace platform::simulated;
    const auto count = [] {
        platform::Atomic<int> counted = 0;
        const auto hasty = [&] { counted = counted + 1; };
        runTogether({{"one", hasty}, {"two", hasty}});
        check(counted == 2, "both are counted");
    };
    const Exploration found = explore(count, {.maxSchedules = 100});
    std::printf("found: %s\n", found.failure.c_str());
}
