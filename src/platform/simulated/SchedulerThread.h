#pragma once

// What the scheduler knows of a thread; for its own sources.

#include "platform/simulated/Scheduler.h"

#include <condition_variable>
#include <cstdint>
#include <optional>
#include <string>

namespace platform::simulated
{

constexpr std::int64_t NS_PER_SECOND = 1'000'000'000;

/// Guarded by the lock of the scheduler.
struct Scheduler::Thread
{
    const int number;
    std::string name{};
    std::condition_variable turn{};
    const void* waitsFor = nullptr; // null: it can run
    WaitReason reason{""};
    std::int64_t waitNs = 0;                  // from the start of the wait to its deadline
    std::optional<std::int64_t> deadlineNs{}; // of a wait
    bool isLate = false;                      // the last wait ended at its deadline
    bool isStopped = false;                   // for ever: its schedule failed, or it has ended
    int numReleases = 0;                      // of the system's values of the thread, for its end

    [[nodiscard]] bool canRun() const { return waitsFor == nullptr && !isStopped; }
};

} // namespace platform::simulated
