// The priority of threads that a time-critical thread starts.

#include "platform/Threads.h"

#include <future>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

TEST(Threads, WhatATimeCriticalOneStartsIsNormal)
{
    static std::promise<std::pair<int, int>> started;
    const auto start = [](void*) {
        const auto tell = [](void*) {
            started.set_value({sched_getscheduler(0), getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()))});
        };
        EXPECT_EQ(ErrorNumber::Success, startThread(tell, nullptr));
    };
    ASSERT_EQ(ErrorNumber::Success, startThread(start, nullptr, ThreadPriority::TimeCritical));
    const auto [policy, niceness] = started.get_future().get();
    EXPECT_EQ(SCHED_OTHER, policy);
    EXPECT_GE(niceness, 0);
}

} // namespace
