#include "datapath/common/infra/ActiveObject.h"

#include "datapath/common/infra/DynamicTweaks.h"
#include "datapath/common/infra/FatalCheck.h"
#include "platform/Spin.h"

#include <algorithm>
#include <optional>
#include <utility>

std::uint32_t ActiveObject::Action::getDlcTimeoutSec() const
{
    return m_dlcTimeoutSec != 0 ? m_dlcTimeoutSec : DynamicTweaks::instance().t_defaultDlcTimeoutSec;
}

namespace
{

// Functions that these methods call log under the methods' names.
constexpr MethodText CONSTRUCTOR = MethodText::of("ActiveObject::ActiveObject");
constexpr MethodText WORKER = MethodText::of("ActiveObject::run");
constexpr MethodText TERMINATION = MethodText::of("ActiveObject::terminateAllThreads");

/// The address of the allocated object, in which Action need not be the first base class. The action must still be
/// alive.
void* wholeOf(ActiveObject::Action* action) { return dynamic_cast<void*>(action); }

/// Reports a null name before anything uses it.
const char* checkedName(const char* name)
{
    if (name == nullptr)
    {
        CheckFailure(LoggerId::NON, CONSTRUCTOR, SourcePlace::here(), "name != 0") << std::endl;
        return "";
    }
    return name;
}

} // namespace

ActiveObject::ActiveObject(const char* name, const platform::Atomic<bool>* forceVerbose)
    : m_forceVerbose(forceVerbose), m_name(checkedName(name)), m_pq(1, m_name, false, &m_arrivals.numEver())
{
    const bool isVerbose = DynamicTweaks::instance().t_ActiveObjectVerboseLogs;
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
        << "AO<" << m_name << ">  m_name=" << m_name << " "
        << " m_forceVerbose=" << m_forceVerbose->load(std::memory_order_relaxed) << " "
        << " DynamicTweaks::instance()->t_ActiveObjectVerboseLogs=" << isVerbose << " " << std::endl;
}

ActiveObject::~ActiveObject() { terminateAllThreads(); }

std::uint32_t ActiveObject::getIdleEstimate()
{
    const MutexGuard guard(m_mutex);
    const std::uint64_t workers = std::uint64_t{m_numStarted} + 1;
    return static_cast<std::uint32_t>(workers - std::min(workers, m_pq.itemCount()));
}

void ActiveObject::enqueue(Action* action)
{
    if (!m_isMonitored.load(std::memory_order_relaxed))
    {
        addArrival(action);
        return;
    }
    const MutexGuard guard(m_mutex);
    if (m_isMonitored) // it may have changed before the lock was taken
    {
        monitorEnqueue();
    }
    addArrival(action);
}

void ActiveObject::addArrival(Action* action)
{
    bool isWorkerReserved = false;
    {
        const MutexGuard guard(m_arrivalsMutex);
        isWorkerReserved = m_arrivals.add(action) && m_idleWorkers.reserve();
    }
    if (isWorkerReserved)
    {
        m_idleWorkers.wake();
    }
}

void ActiveObject::run()
{
    std::uint32_t threadIndex = 0;
    {
        const MutexGuard guard(m_mutex);
        threadIndex = ++m_numStarted;
    }
    {
        DlcKeepalive keepalive("");
        keepalive.disarm();
        onThreadStart(threadIndex);
        for (QueuedAction next = waitForAction(); next.item != nullptr; next = waitForAction())
        {
            void* const memory = wholeOf(next.item);
            execute(next, threadIndex, keepalive);
            release(next.item, memory);
        }
    }
    m_left.signal();
}

void ActiveObject::execute(const QueuedAction& queued, std::uint32_t threadIndex, DlcKeepalive& keepalive)
{
    Action& action = *queued.item;
    action.m_priority = queued.priority;
    action.m_threadIndex = threadIndex;
    action.m_keepalive = &keepalive;
    const std::uint32_t timeoutSec = action.getDlcTimeoutSec();
    keepalive.setTimeoutSec(timeoutSec != 0 ? timeoutSec : DynamicTweaks::instance().t_defaultDlcTimeoutSec);
    keepalive.arm();
    action.execute();
    keepalive.disarm();
}

void ActiveObject::release(Action* action, void* memory)
{
    GuardedMemory::destroy(action, memory, SourcePlace::here());
}

/// Returns the next action, or none when the worker is to leave.
ActiveObject::QueuedAction ActiveObject::waitForAction()
{
    while (m_enabled.load(std::memory_order_relaxed))
    {
        if (const QueuedAction next = takeNext(); next.item != nullptr)
        {
            wakeHelp();
            return next;
        }
        waitUntilNeeded();
    }
    return {};
}

/// Returns the next action, or none if there is none or the object is disabled.
ActiveObject::QueuedAction ActiveObject::takeNext()
{
    constexpr std::uint64_t BATCH = 64; // a short queue stays in the cache
    const MutexGuard guard(m_mutex);
    if (m_pq.empty())
    {
        importArrivals(BATCH);
    }
    if (m_pq.empty() || !m_enabled)
    {
        return {};
    }
    const QueuedAction next = extract();
    if (next.item == nullptr)
    {
        logFailedExtraction();
    }
    return next;
}

/// Moves the oldest arrivals, at most maxActions, into the queue.
void ActiveObject::importArrivals(std::uint64_t maxActions)
{
    while (maxActions != 0 && m_pq.size() != m_pq.itemCount())
    {
        if (m_fetched.empty())
        {
            m_fetched.forgetTaken();
            const MutexGuard guard(m_arrivalsMutex);
            m_fetched.receiveFrom(m_arrivals);
        }
        for (; !m_fetched.empty() && maxActions != 0; --maxActions)
        {
            Action* const action = m_fetched.takeOldest();
            __builtin_prefetch(action); // all of them travel from the producers' caches at the same time
            m_pq.enqueue(action, 0);
        }
    }
}

/// Wakes another worker if there is more to do than the action that the calling one has taken.
void ActiveObject::wakeHelp()
{
    if (!m_idleWorkers.isAnySleeping())
    {
        return;
    }
    bool isWorkerReserved = false;
    {
        const MutexGuard guard(m_arrivalsMutex);
        isWorkerReserved = m_pq.itemCount() != 0 && m_idleWorkers.reserve();
    }
    if (isWorkerReserved)
    {
        m_idleWorkers.wake();
    }
}

bool ActiveObject::isWorkerNeeded() const
{
    return m_pq.itemCount() != 0 || !m_enabled.load(std::memory_order_relaxed);
}

/// Returns when the calling worker is to look at the queue again.
void ActiveObject::waitUntilNeeded()
{
    // Waking a worker takes at least 7 us. A worker looks for about as long before it falls asleep, so that most
    // actions of a stream find a worker awake.
    constexpr platform::SpinBudget SPIN{.looks = 200};
    m_idleWorkers.beginLooking();
    static_cast<void>(platform::spinUntil([this] { return isWorkerNeeded(); }, SPIN));
    if (fallAsleep())
    {
        sleep();
    }
}

/// Ends looking. Returns whether the worker now counts as sleeping, because it is not needed.
bool ActiveObject::fallAsleep()
{
    const MutexGuard guard(m_arrivalsMutex);
    m_idleWorkers.endLooking();
    if (isWorkerNeeded())
    {
        return false;
    }
    m_idleWorkers.fallAsleep();
    return true;
}

void ActiveObject::sleep()
{
    constexpr std::uint32_t TIMEOUT_MS = 5'000;
    if (!isVerbose()) // a wait with a time limit wakes more slowly, and only the verbose line needs the limit
    {
        m_idleWorkers.sleep();
        return;
    }
    if (m_idleWorkers.sleepFor(TIMEOUT_MS))
    {
        return;
    }
    logTimedOutWait();
    if (!leaveSleepers())
    {
        m_idleWorkers.sleep();
    }
}

bool ActiveObject::leaveSleepers()
{
    const MutexGuard guard(m_arrivalsMutex);
    return m_idleWorkers.leave();
}

bool ActiveObject::isVerbose() const
{
    return m_forceVerbose->load(std::memory_order_relaxed) || DynamicTweaks::instance().t_ActiveObjectVerboseLogs;
}

void ActiveObject::logFailedExtraction() const
{
    const std::uint64_t numQueued = m_pq.itemCount();
    LogItem(LoggerId::NON, LogLevel::Error, WORKER)
        << "!bExtracted, m_pq.size " << numQueued << " m_pq.empty " << (numQueued == 0) << "  m_pq Priority "
        << m_pq.highestPriority() << std::endl;
}

void ActiveObject::logTimedOutWait()
{
    const MutexGuard guard(m_mutex);
    const std::uint64_t numQueued = m_pq.itemCount();
    if (isVerbose() && (numQueued != 0 || !m_enabled))
    {
        LogItem(LoggerId::NON, LogLevel::Info, WORKER)
            << "AO<" << m_name << "> " << m_name
            << " !m_pq.empty() || !m_enabled, and wait timed out, unlikely, m_pq.size " << numQueued << " m_pq.empty "
            << (numQueued == 0) << "  m_pq Priority " << m_pq.highestPriority() << std::endl;
    }
}

ActiveObject::QueuedAction ActiveObject::extract()
{
    const std::optional<QueuedAction> extracted = m_pq.dequeue();
    if (!extracted)
    {
        return {};
    }
    if (m_rateMonitor && m_pq.itemCount() == 0)
    {
        monitorEmptyQueue();
    }
    return *extracted;
}

void ActiveObject::terminateAllThreads()
{
    waitUntilRunning();
    const bool isFirst = m_enabled;
    stopWorkers();
    for (; m_numLeft != numOpened(); ++m_numLeft)
    {
        m_left.wait();
    }
    if (isFirst)
    {
        for (Action* const action : drain())
        {
            release(action, wholeOf(action));
        }
    }
}

/// Disables the object and wakes all workers that sleep.
void ActiveObject::stopWorkers()
{
    std::uint32_t numReserved = 0;
    {
        const MutexGuard guard(m_mutex);
        const MutexGuard arrivalsGuard(m_arrivalsMutex);
        m_enabled = false;
        numReserved = m_idleWorkers.reserveAll();
    }
    for (; numReserved != 0; --numReserved)
    {
        m_idleWorkers.wake();
    }
}

/// Closes the arrivals and empties the queue. Returns the actions that were left.
std::vector<ActiveObject::Action*> ActiveObject::drain()
{
    std::vector<Action*> actions;
    const MutexGuard guard(m_mutex);
    {
        const MutexGuard arrivalsGuard(m_arrivalsMutex);
        m_arrivals.close();
    }
    m_isMonitored = false;
    importArrivals(m_pq.itemCount());
    if (!m_pq.empty())
    {
        logRemaining();
    }
    while (!m_pq.empty())
    {
        const QueuedAction extracted = extract();
        if (extracted.item == nullptr)
        {
            CheckFailure(LoggerId::NON, TERMINATION, SourcePlace::here(), "bExtracted")
                << "Failed to extract items from ActiveObject queue for cleanup during shutdown." << std::endl;
            break;
        }
        actions.push_back(extracted.item);
    }
    if (m_rateMonitor)
    {
        monitorEmptyQueue();
    }
    return actions;
}

void ActiveObject::logRemaining() const
{
    LogItem(LoggerId::NON, LogLevel::Warn, TERMINATION)
        << "ActiveObject queue was not empty during shutdown: " << m_pq.size() << " items, details follow."
        << std::endl;
    for (std::uint32_t priority = 0; priority <= m_pq.highestPriority(); ++priority)
    {
        LogItem(LoggerId::NON, LogLevel::Warn, TERMINATION)
            << "priority " << priority << ": " << m_pq.size(priority) << " items, " << m_pq.sizeBytes(priority)
            << " bytes" << std::endl;
    }
}

void ActiveObject::attachRateMonitor(GuardedPtr<RateMonitor> monitor)
{
    const MutexGuard guard(m_mutex);
    m_rateMonitor = std::move(monitor);
    const MutexGuard arrivalsGuard(m_arrivalsMutex);
    m_isMonitored = m_rateMonitor != nullptr && !m_arrivals.isClosed();
}

void ActiveObject::monitorEnqueue()
{
    const MutexGuard guard(m_rateMonitor->m_mutex);
    if (m_pq.itemCount() == 0 && m_rateMonitor->m_aoBusyStartUs == 0)
    {
        m_rateMonitor->m_aoBusyStartUs = m_rateMonitor->nowUs();
        m_rateMonitor->incActiveTasksLocked(1);
    }
    m_rateMonitor->addItemsLocked(1, 0);
}

void ActiveObject::monitorEmptyQueue()
{
    const MutexGuard guard(m_rateMonitor->m_mutex);
    if (m_rateMonitor->m_aoBusyStartUs != 0)
    {
        const std::uint64_t nowUs = m_rateMonitor->nowUs();
        m_rateMonitor->taskCompleted(nowUs, nowUs - m_rateMonitor->m_aoBusyStartUs);
        m_rateMonitor->m_aoBusyStartUs = 0;
    }
}
