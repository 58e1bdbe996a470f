#pragma once

// The one clock of the process, reached through Timer::instance(). Any thread may call any operation.
//
// Time bases: a timestamp is a count of ms from an origin that is not on the calendar and never goes
// back; UTC is on the calendar and follows what the machine's clock is set to; the relative clock is
// the timestamp counted from a moment of the caller's choice. "Now" means the timestamp in ms.

#include <cstdint>

/// A moment on the calendar, with the fields and origins of the C library's tm.
struct CalendarRecord
{
    std::int32_t seconds;
    std::int32_t minutes;
    std::int32_t hours;
    std::int32_t dayOfMonth;
    std::int32_t month; ///< 0 to 11
    std::int32_t yearsSince1900;
    std::int32_t dayOfWeek;
    std::int32_t dayOfYear;
    std::int32_t daylightSaving;
};

/// Called with the context that was given to addTimer.
using TimerCallback = void (*)(void* context);

/// Names a timer; 0 means no timer.
using TimerHandle = std::uint32_t;

class ITimer
{
public:
    /// Records the number of processors and starts the timer thread, which never ends. Without that thread no timer is
    /// ever called. A process calls this once. Ends the process if the system refuses the thread.
    virtual void start() = 0;

    /// The steady clock, in ns and µs.
    [[nodiscard]] virtual std::uint64_t getTimestampNs() = 0;
    [[nodiscard]] virtual std::int64_t getTimestampUs() = 0;

    /// Now, in ms. Never less than what any thread was given before.
    virtual std::int64_t getTimestampMs() = 0;

    /// ms since 1970-01-01 00:00:00 UTC.
    [[nodiscard]] virtual std::int64_t getUtcTimeMs() = 0;

    /// What getTimestampMs last returned to any thread, for hot paths that cannot afford to read the clock. Unless
    /// noRefresh, it is brought up to date if the last refresh by this function is more than a second ago. 0 before the
    /// first reading.
    [[nodiscard]] virtual std::int64_t getLastTimestampMs_Inaccurate(bool noRefresh) = 0;

    /// Has the callback called intervalMs from now, and then repeatedly with the same interval unless oneShot; with an
    /// interval of 0 it is called once in any case. The timer thread checks every 100 ms which timers are due. A call
    /// comes with the first check after the due time, and the next interval counts from that check. Calls come one
    /// after another on that thread: a slow callback delays the others, and an exception from it ends the process. It
    /// may add timers. The context, not owned, must live until the last call. Returns the timer's handle.
    virtual TimerHandle addTimer(TimerCallback callback, void* context, std::uint32_t intervalMs, bool oneShot) = 0;

    /// CPU cycles of the calling thread.
    [[nodiscard]] virtual std::uint64_t getThreadCycles() = 0;

    /// Kernel and user time of the process in µs, divided by the number of processors (by 1 before
    /// start). 0 where the system does not report it.
    [[nodiscard]] virtual std::uint64_t getProcessCpuTimeUs() = 0;

    /// Sets the relative clock to value, in ms.
    virtual void setRelativeTimeMs(std::int64_t value) = 0;

    /// The relative clock in ms; the timestamp itself before the first set.
    [[nodiscard]] virtual std::int64_t getRelativeTimeMs() = 0;

    /// Now in units of 10 ms, its low 32 bits.
    [[nodiscard]] virtual std::uint32_t getTimestamp10Ms();

    /// Reads a text like 2023-07-04T05:06:07Z. On failure writes a line to standard output, leaves the record as it was
    /// and returns false.
    virtual bool parseUtcTime(const char* text, CalendarRecord& record) = 0;

protected:
    ~ITimer() = default;
};
