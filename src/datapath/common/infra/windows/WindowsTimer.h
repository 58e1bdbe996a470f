#pragma once

// The timers: functions that are called once or periodically, in passes of a timer thread. Programs use them through
// Timer. Any thread may call.
//
//     const TimerHandle handle = timer.addTimer(callback, context, 250, false, 0);   // calls in about 300 ms
//     timer.activateTimers();                                                        // the timer thread, every 100 ms
//
// A pass reads the clock once and takes the timers that were due before that moment or have been cancelled. In
// ascending order of their handles, it calls those that were not cancelled when the pass began:
//
//     added --> m_order --(a pass takes it)--> m_taken --(it is called)--> erased if it is one-shot or cancelled;
//                  ^                                             |         if cancelled, its completion is set
//                  +------- if it is periodic, due again --------+
//
// So a timer that a callback adds waits for the next pass, and one that is replaced during the pass that has taken it
// may still be called once.

#include "datapath/common/infra/Future.h"
#include "datapath/common/infra/ITimer.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/base/DueOrder.h"
#include "datapath/common/infra/base/HandleMap.h"
#include "datapath/common/infra/base/RcStatus.h"
#include "datapath/common/infra/base/Singleton.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

class WindowsTimer : public Singleton<WindowsTimer, WindowsTimer>
{
public:
    using Completion = FutureInternal::Future<RcStatus>;

    /// One timer, as the passes see it.
    struct WindowsTimerInfo
    {
        std::uint64_t dueMs; ///< the timestamp after which the callback is due
        TimerCallback callback;
        void* context;                          ///< not owned
        std::unique_ptr<Completion> completion; ///< made by the first completionOf
        std::uint32_t periodMs;                 ///< 0 for a one-shot timer
        bool cancelled;                         ///< another timer has replaced it
    };

    /// For tests: any first handle.
    explicit WindowsTimer(TimerHandle firstHandle = 1);
    WindowsTimer(const WindowsTimer&) = delete;
    WindowsTimer& operator=(const WindowsTimer&) = delete;
    virtual ~WindowsTimer() = default;

    /// See ITimer. The new timer replaces the one with handleToReplace, if there is one: that timer is cancelled, and
    /// no pass that starts afterwards calls it. 0 replaces none. Handles ascend; 0 follows 2^32 - 1. A timer whose
    /// handle is still in use after such a wrap-around is not added. Lines are logged under the lock of the timers, so
    /// log clients must not call this.
    TimerHandle addTimer(TimerCallback callback, void* context, std::uint32_t intervalMs, bool oneShot,
                         TimerHandle handleToReplace) TAVRO_EXCLUDES(m_timersMutex);

    /// The future of a timer that has not been erased yet; nothing if there is no such timer. The future is set to
    /// RC_OK when the timer is erased after it was cancelled, and never otherwise. Its observers are called during a
    /// pass, without the lock of the timers, and may do what callbacks may do.
    [[nodiscard]] std::optional<Completion> completionOf(TimerHandle handle) TAVRO_EXCLUDES(m_timersMutex);

    /// Makes one pass. Waits while another pass runs, so a callback must not call this. Callbacks may add timers. A
    /// callback that takes more than 2,000 ms is logged as an error. An exception from a callback passes through; that
    /// timer and those after it in the pass stay due.
    void activateTimers() TAVRO_EXCLUDES(m_activationMutex, m_timersMutex);

    /// The body of the timer thread: makes a pass over the timers of the given WindowsTimer every 100 ms, forever.
    static void timerThread(void* windowsTimer);

    /// Whether the order of the due times matches the table. For tests.
    [[nodiscard]] bool checkInvariants() TAVRO_EXCLUDES(m_activationMutex, m_timersMutex);

protected:
    /// For tests of the wrap-around of the handles.
    void setNextHandle(TimerHandle handle) TAVRO_EXCLUDES(m_timersMutex);

private:
    using Timers = StlMemShiledContainer<HandleMap<WindowsTimerInfo>>;
    using Timer = HandleMap<WindowsTimerInfo>::Entry;
    using Order = DueOrder<Timer*>;

    /// A timer that a pass has taken and not called or erased yet.
    struct TakenTimer
    {
        explicit TakenTimer(Timer* taken) : handle(taken->first), wasCancelled(taken->second.cancelled), timer(taken) {}

        TimerHandle handle;
        bool wasCancelled; // when the pass began
        Timer* timer;
    };

    [[nodiscard]] static Order::Entry orderOf(Timer& timer);
    [[nodiscard]] Timer* findTimer(TimerHandle handle) TAVRO_REQUIRES(m_timersMutex);
    void insert(TimerHandle handle, WindowsTimerInfo&& info) TAVRO_REQUIRES(m_timersMutex);
    void cancel(Timer& timer) TAVRO_REQUIRES(m_timersMutex);
    void sortTaken() TAVRO_REQUIRES(m_activationMutex);
    void takeTimers(std::uint64_t nowMs) TAVRO_REQUIRES(m_activationMutex) TAVRO_EXCLUDES(m_timersMutex);
    void endOrReschedule(std::uint64_t nowMs) TAVRO_REQUIRES(m_activationMutex) TAVRO_EXCLUDES(m_timersMutex);

    // Guards the table, its order and the last handle. The locks of the clock and of log clients are taken inside it.
    Mutex m_timersMutex;
    Mutex m_activationMutex; // held during a pass; m_timersMutex and the locks of callbacks are taken inside it
    Timers m_timers TAVRO_GUARDED_BY(m_timersMutex){"Timers"};
    Order m_order TAVRO_GUARDED_BY(m_timersMutex); // every timer that is not among m_taken; see orderOf
    TimerHandle m_lastHandle TAVRO_GUARDED_BY(m_timersMutex);
    // In descending order of the handles: the next timer is at the back. Empty between passes, unless a callback has
    // thrown.
    std::vector<TakenTimer> m_taken TAVRO_GUARDED_BY(m_activationMutex);
    std::vector<TakenTimer> m_sorted TAVRO_GUARDED_BY(m_activationMutex); // scratch space of sortTaken
};
