#include "datapath/common/infra/ActiveObject.h"

#include "datapath/common/infra/DynamicTweaks.h"
#include "datapath/common/infra/FatalCheck.h"
#include "platform/Threads.h"

std::uint32_t ActiveObject::Action::getDlcTimeoutSec() const
{
    return m_dlcTimeoutSec != 0 ? m_dlcTimeoutSec : DynamicTweaks::instance().t_defaultDlcTimeoutSec;
}

namespace
{

// Functions whose lines are logged by others.
constexpr MethodText CONSTRUCTOR = MethodText::of("ActiveObject::ActiveObject");
constexpr MethodText WORKER = MethodText::of("ActiveObject::run");
constexpr MethodText TERMINATION = MethodText::of("ActiveObject::terminateAllThreads");

/// Where the object begins that the action, which lives, is a part of: other bases may stand before it.
void* wholeOf(ActiveObject::Action* action) { return dynamic_cast<void*>(action); }

/// A missing name is reported before anything uses it.
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
    : m_forceVerbose(forceVerbose), m_name(checkedName(name)), m_pq(1, m_name, false, &m_numArrived)
{
    const bool isVerbose = DynamicTweaks::instance().t_ActiveObjectVerboseLogs;
    LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
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
    if (m_isMonitored) // still
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
        if (m_isDrained) [[unlikely]]
        {
            return;
        }
        action->m_next = nullptr;
        (m_firstArrival == nullptr ? m_firstArrival : m_lastArrival->m_next) = action;
        m_lastArrival = action;
        m_numArrived.store(m_numArrived.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        isWorkerReserved = reserveWorker();
    }
    if (isWorkerReserved)
    {
        m_wake.post();
    }
}

/// Returns whether there is a sleeping worker and none that will look at the queue anyway. The caller then has to
/// post m_wake once, preferably when the lock is free again.
bool ActiveObject::reserveWorker()
{
    if (m_numLooking != 0 || m_numSleeping == 0)
    {
        return false;
    }
    --m_numSleeping;
    return true;
}

/// Like reserveWorker, if there is more to do than what the calling worker has taken.
bool ActiveObject::reserveHelp()
{
    if (m_numSleeping == 0)
    {
        return false;
    }
    const MutexGuard guard(m_arrivalsMutex);
    return m_pq.itemCount() != 0 && reserveWorker();
}

void ActiveObject::run()
{
    std::uint32_t threadIndex = 0;
    {
        const MutexGuard guard(m_mutex);
        ++m_numStarted;
        ++m_numRunning;
        threadIndex = ++m_threadIndexCounter;
    }
    {
        DlcKeepalive keepalive("");
        keepalive.disarm();
        onThreadStart(threadIndex);
        for (Extracted next = waitForAction(); next.action != nullptr; next = waitForAction())
        {
            void* const memory = wholeOf(next.action);
            execute(*next.action, next.priority, threadIndex, keepalive);
            release(next.action, memory);
        }
    }
    m_left.signal();
}

void ActiveObject::execute(Action& action, std::uint32_t priority, std::uint32_t threadIndex, DlcKeepalive& keepalive)
{
    action.m_priority = priority;
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

/// The next action, or none when the worker is to leave.
ActiveObject::Extracted ActiveObject::waitForAction()
{
    Extracted extracted;
    bool isHelpWanted = false;
    {
        const MutexGuard guard(m_mutex);
        while (waitUntilQueued() && !extract(extracted))
        {
            logFailedExtraction();
        }
        if (extracted.action == nullptr)
        {
            --m_numRunning;
        }
        isHelpWanted = reserveHelp();
    }
    if (isHelpWanted)
    {
        m_wake.post();
    }
    return extracted;
}

/// Returns whether there is an action; if not, the object has been disabled.
bool ActiveObject::waitUntilQueued()
{
    constexpr std::uint64_t MOST = 64; // the queue stays short and in the cache
    while (m_enabled)
    {
        if (m_pq.empty())
        {
            importArrivals(MOST);
        }
        if (!m_pq.empty())
        {
            return true;
        }
        ++m_numLooking;
        m_mutex.unlock();
        look();
        m_mutex.lock();
        if (beginSleeping())
        {
            m_mutex.unlock();
            sleep();
            m_mutex.lock();
        }
    }
    return false;
}

/// Queues the oldest of what has arrived.
void ActiveObject::importArrivals(std::uint64_t most)
{
    while (most != 0 && m_pq.size() != m_pq.itemCount())
    {
        if (m_nextArrival == nullptr)
        {
            const MutexGuard guard(m_arrivalsMutex);
            m_nextArrival = std::exchange(m_firstArrival, nullptr);
        }
        for (; m_nextArrival != nullptr && most != 0; --most)
        {
            m_pq.enqueue(std::exchange(m_nextArrival, m_nextArrival->m_next), 0);
        }
    }
}

/// The next action is often near, and falling asleep is expensive.
void ActiveObject::look() const
{
    constexpr int LOOKS = platform::looks(200);
    for (int look = 0; look < LOOKS && m_enabled.load(std::memory_order_relaxed) && m_pq.itemCount() == 0; ++look)
    {
        platform::relax();
    }
}

/// Returns whether there is nothing that the calling worker, which has looked, could do: it is among those that sleep
/// then.
bool ActiveObject::beginSleeping()
{
    const MutexGuard guard(m_arrivalsMutex);
    --m_numLooking;
    if (!m_enabled || m_pq.itemCount() != 0)
    {
        return false;
    }
    ++m_numSleeping;
    return true;
}

bool ActiveObject::isVerbose() const
{
    return m_forceVerbose->load(std::memory_order_relaxed) || DynamicTweaks::instance().t_ActiveObjectVerboseLogs;
}

/// Returns when the calling worker is to look at the queue again.
void ActiveObject::sleep()
{
    constexpr std::uint32_t TIMEOUT_MS = 5'000;
    if (!isVerbose()) // a wait with a limit costs more to end, and only serves the verbose line
    {
        m_wake.wait();
    }
    else if (!m_wake.waitFor(TIMEOUT_MS))
    {
        logTimedOutWait();
        const MutexGuard guard(m_arrivalsMutex);
        if (m_numSleeping != 0)
        {
            --m_numSleeping;
            return;
        }
        m_wake.wait(); // every sleeper has been reserved meanwhile: at once
    }
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

bool ActiveObject::extract(Extracted& extracted)
{
    if (!m_pq.dequeue(extracted.action, extracted.priority))
    {
        return false;
    }
    if (m_rateMonitor && m_pq.itemCount() == 0)
    {
        monitorEmptyQueue();
    }
    return true;
}

void ActiveObject::terminateAllThreads()
{
    waitUntilRunning();
    std::uint32_t numWoken = 0;
    bool isFirst = false;
    {
        const MutexGuard guard(m_mutex);
        isFirst = m_enabled.exchange(false);
        const MutexGuard arrivalsGuard(m_arrivalsMutex);
        numWoken = m_numSleeping.exchange(0);
    }
    for (; numWoken != 0; --numWoken)
    {
        m_wake.post();
    }
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

std::vector<ActiveObject::Action*> ActiveObject::drain()
{
    std::vector<Action*> actions;
    const MutexGuard guard(m_mutex);
    {
        const MutexGuard arrivalsGuard(m_arrivalsMutex);
        m_isDrained = true;
    }
    m_isMonitored = false;
    importArrivals(m_pq.itemCount());
    if (!m_pq.empty())
    {
        logRemaining();
    }
    while (!m_pq.empty())
    {
        Extracted extracted;
        if (!extract(extracted))
        {
            CheckFailure(LoggerId::NON, TERMINATION, SourcePlace::here(), "bExtracted")
                << "Failed to extract items from ActiveObject queue for cleanup during shutdown." << std::endl;
            break;
        }
        actions.push_back(extracted.action);
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
    m_isMonitored = m_rateMonitor != nullptr && !m_isDrained;
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
