#pragma once

// The timers: functions that are called once or periodically, in passes. Programs reach them through Timer. Any thread
// may call.
//
//     const TimerHandle handle = timer.addTimer(callback, context, 250, false, 0);   // calls in about 300 ms
//     timer.activateTimers();                                                        // the timer thread, every 100 ms
//
// A pass reads the clock once. It takes the timers that are due before that moment and those that were
// cancelled before it began, and goes through them in ascending order of their handles: it calls the due ones,
// sets the completion of those that are cancelled by then, and erases them and the one-shot ones. So a timer that a
// callback adds waits for the next pass, and one that is due and replaced in the same pass may still be called once.
// A pass costs what it takes, whatever else is registered.

#include "datapath/common/infra/DueOrder.h"
#include "datapath/common/infra/Future.h"
#include "datapath/common/infra/HandleMap.h"
#include "datapath/common/infra/ITimer.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/RcStatus.h"
#include "datapath/common/infra/Singleton.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

class WindowsTimer : public Singleton<WindowsTimer, WindowsTimer>
{
public:
    using Completion = FutureInternal::Future<RcStatus>;

    struct WindowsTimerInfo
    {
        std::uint64_t dueMs; ///< the timestamp after which the callback is due
        TimerCallback callback;
        void* context;                          ///< not owned
        std::unique_ptr<Completion> completion; ///< made for the first who asks
        std::uint32_t periodMs;                 ///< 0: one-shot
        bool cancelled;                         ///< was replaced
    };

    /// Tests choose the first handle.
    explicit WindowsTimer(TimerHandle firstHandle = 1);
    WindowsTimer(const WindowsTimer&) = delete;
    WindowsTimer& operator=(const WindowsTimer&) = delete;
    virtual ~WindowsTimer() = default;

    /// See ITimer. The timer that the new one replaces, unless it is 0 or gone, is cancelled: it is not called in
    /// any pass that starts afterwards. Handles ascend; after 2^32 - 1 comes 0, and a timer whose handle is still
    /// taken then is not added. Lines are logged under the lock of the timers, so log clients must not call this.
    TimerHandle addTimer(TimerCallback callback, void* context, std::uint32_t intervalMs, bool oneShot,
                         TimerHandle handleToReplace) EXCLUDES(m_timersMutex);

    /// The future of a timer that was not erased yet. It is set, to RC_OK, when a timer that was replaced is erased,
    /// and never otherwise. Observers are called in the pass, with the lock of the timers free: they may do what
    /// callbacks may.
    [[nodiscard]] std::optional<Completion> completionOf(TimerHandle handle) EXCLUDES(m_timersMutex);

    /// One pass. Waits while another one is under way, so a callback must not call this. Callbacks may add timers;
    /// one that takes more than 2,000 ms is reported. What a callback throws passes through: its timer and those
    /// that the pass has not come to stay due.
    void activateTimers() EXCLUDES(m_activationMutex, m_timersMutex);

    /// The timer thread, of the given WindowsTimer: a pass every 100 ms, for ever.
    static void timerThread(void* windowsTimer);

    /// Whether the order of the due times fits the table. For tests.
    [[nodiscard]] bool checkInvariants() EXCLUDES(m_activationMutex, m_timersMutex);

protected:
    /// For tests of what happens after 2^32 timers.
    void setNextHandle(TimerHandle handle) EXCLUDES(m_timersMutex);

private:
    using Timers = StlMemShiledContainer<HandleMap<WindowsTimerInfo>>;
    using Timer = Timers::Entry;
    using Order = DueOrder<Timer*>;

    /// A timer that a pass has taken and not come to yet.
    struct TakenTimer
    {
        explicit TakenTimer(Timer* taken) : handle(taken->first), wasCancelled(taken->second.cancelled), timer(taken) {}

        TimerHandle handle;
        bool wasCancelled; // when the pass began
        Timer* timer;
    };

    [[nodiscard]] static Order::Entry orderOf(Timer& timer);
    void insert(TimerHandle handle, WindowsTimerInfo&& info) REQUIRES(m_timersMutex);
    void cancel(Timer& timer) REQUIRES(m_timersMutex);
    void sortTaken() REQUIRES(m_activationMutex);
    void takeTimers(std::uint64_t nowMs) REQUIRES(m_activationMutex) EXCLUDES(m_timersMutex);
    void endOrReschedule(std::uint64_t nowMs) REQUIRES(m_activationMutex) EXCLUDES(m_timersMutex);

    // Guards the table, its order and the last handle. The clock's lock, and what log clients take, is taken inside it.
    Mutex m_timersMutex;
    Mutex m_activationMutex; // held during a pass; m_timersMutex, and what callbacks take, is taken inside it
    Timers m_timers GUARDED_BY(m_timersMutex){"Timers"};
    Order m_order GUARDED_BY(m_timersMutex); // of every timer that is not among m_taken; see orderOf
    TimerHandle m_lastHandle GUARDED_BY(m_timersMutex);
    // In descending order of the handles: the last one is next. Empty between passes, unless a callback has thrown.
    std::vector<TakenTimer> m_taken GUARDED_BY(m_activationMutex);
    std::vector<TakenTimer> m_sorted GUARDED_BY(m_activationMutex); // room for sorting them
};
