#pragma once

// Reads the performance counter, from which all timestamps come. Timer offers them through ITimer, together with the
// other time bases; the units of the library below Timer read the clock here.
//
//     const std::int64_t nowMs = Clock::instance().timestampMs();
//
// A timestamp never goes back. A reading of the counter below one that was handed out before is a fault of the
// machine: it is logged, and the clock holds still. More than MINIMUM_ACCEPTABLE_TICKS_DIFF below, it ends the
// process. Support knows these lines under the class WindowsTimer, so they name that class.
//
// Made on first use and never destroyed. Any thread may call.

#include "datapath/common/infra/Mutex.h"
#include "platform/Atomic.h"

#include <cstddef>
#include <cstdint>

class Clock
{
public:
    /// The first call makes the process's WindowsTimer too, so that memory reports show its table from then on.
    [[nodiscard]] static Clock& instance();

    /// Public for tests. Ends the process if the counter's frequency cannot be read or has more than 32
    /// bits of ticks a millisecond.
    Clock();

    /// The counter, in its own ticks. Ends the process if it cannot be read.
    [[nodiscard]] std::int64_t ticks() TAVRO_EXCLUDES(m_counterMutex);

    /// The same in whole ms; readMs leaves lastTimestampMs as it is.
    std::int64_t timestampMs();
    [[nodiscard]] std::int64_t readMs() { return ticks() / m_ticksPerMs; }

    /// What timestampMs last returned to any thread, 0 before the first reading: for hot paths, and for code that
    /// may run while the clock is being made.
    [[nodiscard]] static std::int64_t lastTimestampMs() { return s_lastTimestampMs.load(std::memory_order_relaxed); }

    /// The same, brought up to date when the last refresh here is more than a second old.
    [[nodiscard]] static std::int64_t refreshedTimestampMs();

    /// The counter in ns, without the promise that it never goes back.
    [[nodiscard]] static std::uint64_t steadyNs();

    /// ms since 1970-01-01 00:00:00 UTC, as the machine's calendar clock has it.
    [[nodiscard]] static std::int64_t utcMs();

    /// The timestamp less an origin that the caller chooses by setting the present value; the origin is 0 at first.
    [[nodiscard]] std::int64_t relativeMs();
    void setRelativeMs(std::int64_t value);

private:
    static constexpr std::int64_t MINIMUM_ACCEPTABLE_TICKS_DIFF = 100;
    static constexpr std::size_t CACHE_LINE = 64;

    [[nodiscard]] std::int64_t holdStill(std::int64_t reading, std::int64_t last) TAVRO_EXCLUDES(m_counterMutex);

    // Nothing else is published through these two, so all their accesses are relaxed.
    static constinit inline platform::Atomic<std::int64_t> s_lastTimestampMs = 0;
    static constinit inline platform::Atomic<std::uint64_t> s_lastRefreshTick = 0; // the system's tick count, in ms

    // The highest reading that was handed out, in ticks; 0 before the first. Every reading writes it, so the clock has
    // a cache line to itself.
    alignas(CACHE_LINE) platform::Atomic<std::int64_t> m_lastTimestamp = 0;
    platform::Atomic<std::int64_t> m_relativeBaseMs = 0; // all accesses are relaxed
    std::uint32_t m_ticksPerMs = 0;
    Mutex m_counterMutex; // held while a backward step is logged, so that its lines stand together
};

/// Makes the process's WindowsTimer. WindowsTimer.cpp defines it, because the clock knows nothing of the timers.
void makeWindowsTimer();
