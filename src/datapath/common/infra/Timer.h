#pragma once

// The process's clock and timers behind one interface; see ITimer for what it promises. Clock takes the readings, and
// WindowsTimer keeps the timers.

#include "datapath/common/infra/ITimer.h"
#include "datapath/common/infra/base/Singleton.h"
#include "platform/Atomic.h"

class Timer final : public Singleton<ITimer, Timer>, public ITimer
{
public:
    void start() override;
    std::uint64_t getTimestampNs() override;
    std::int64_t getTimestampUs() override;
    std::int64_t getTimestampMs() override;
    std::int64_t getUtcTimeMs() override;
    std::int64_t getLastTimestampMs_Inaccurate(bool noRefresh) override;
    TimerHandle addTimer(TimerCallback callback, void* context, std::uint32_t intervalMs, bool oneShot) override;
    std::uint64_t getThreadCycles() override;
    std::uint64_t getProcessCpuTimeUs() override;
    void setRelativeTimeMs(std::int64_t value) override;
    std::int64_t getRelativeTimeMs() override;
    bool parseUtcTime(const char* text, CalendarRecord& record) override;
    virtual ~Timer() = default;

private:
    platform::Atomic<std::uint32_t> m_numProcessors = 0; // all accesses are relaxed
};
