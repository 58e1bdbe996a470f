#pragma once

// The scheduler's record of a thread; for its own sources only.

#include "platform/Time.h"
#include "platform/simulated/Scheduler.h"

#include <condition_variable>
#include <cstdint>
#include <optional>
#include <string>

namespace platform::simulated
{

/// Guarded by the lock of the scheduler.
struct Scheduler::Thread
{
    const int number;
    std::string name{};
    std::condition_variable turn{}; // notified when the thread gets the turn
    const void* waitsFor = nullptr; // the object that wakeAt is called for; null if the thread does not wait
    WaitReason reason{""};
    std::optional<std::int64_t> deadlineNs{}; // virtual time at which the last wait ends; no value: no limit
    std::int64_t waitNs = 0;                  // the whole time until that deadline, from the start of the wait
    bool isLate = false;                      // the last wait has ended at its deadline
    bool isStopped = false;                   // never runs again, because it has ended or its schedule has failed
    int numReleaseRounds = 0;                 // rounds in which the system has released the thread's values

    [[nodiscard]] bool canRun() const { return waitsFor == nullptr && !isStopped; }
};

} // namespace platform::simulated
