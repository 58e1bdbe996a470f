#pragma once

// The performance counter as a clock that never goes back. Everything else of the clock stands on it;
// see ITimer. Any thread may call.
//
// A reading below one that was handed out before is a fault of the machine: it is logged, and the
// clock holds still. More than MINIMUM_ACCEPTABLE_TICKS_DIFF below, it ends the process.

#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/Singleton.h"

#include <atomic>
#include <cstdint>

class WindowsTimer : public Singleton<WindowsTimer, WindowsTimer>
{
public:
    /// Ends the process if the counter's frequency cannot be read or has more than 32 bits of ticks a
    /// millisecond.
    WindowsTimer();
    WindowsTimer(const WindowsTimer&) = delete;
    WindowsTimer& operator=(const WindowsTimer&) = delete;
    virtual ~WindowsTimer() = default;

    /// Fills in ticks of the counter. Ends the process if the counter cannot be read.
    void getPerformanceCounter(std::int64_t& ticks) EXCLUDES(m_counterMutex);

    /// The same in ms, cut.
    [[nodiscard]] std::int64_t getTimestampMs();

private:
    static constexpr std::int64_t MINIMUM_ACCEPTABLE_TICKS_DIFF = 100;

    static constexpr std::size_t CACHE_LINE = 64;

    std::uint32_t m_ticksPerMs = 0;
    Mutex m_counterMutex; // held while a backward step is logged, so that its lines stand together
    // Ticks; 0: no reading yet. Written at every reading, so on a line of its own.
    alignas(CACHE_LINE) std::atomic<std::int64_t> m_lastTimestamp = 0;
};
