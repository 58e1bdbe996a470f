#include "datapath/common/infra/DeadLockChecker.h"

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/DynamicTweaks.h"
#include "datapath/common/infra/ThreadBacktracePrinter.h"
#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/windows/MemWatcher.h"

#include <algorithm>
#include <iomanip>

DlcKeepalive::DlcKeepalive(const std::string& name, DlcTimeoutListener* listener)
    : m_name(name.empty() ? "pid=" + std::to_string(platform::currentThreadId()) : name),
      m_timeoutSec(DynamicTweaks::instance().t_defaultDlcTimeoutSec), m_listener(listener)
{
    DeadLockCheckerManager::instance().registerChecker(this);
}

DlcKeepalive::~DlcKeepalive() { DeadLockCheckerManager::instance().unregisterChecker(this); }

void DlcKeepalive::update(const RcStatus& /*value*/) { GuardedMemory::destroy(this, SourcePlace::here()); }

std::uint32_t DlcKeepalive::checkLease(std::uint64_t nowMs, std::uint32_t intervalSec)
{
    constexpr std::uint64_t MS_PER_SEC = 1'000;
    // The timeout is read before the flags. If the owner has already set it for the next piece of work, the flags then
    // show that the previous piece has ended.
    const std::uint32_t timeoutSec = this->timeoutSec();
    const bool isArmed = m_armed.load(std::memory_order_acquire);
    if (m_alive.exchange(false, std::memory_order_acquire) || !isArmed)
    {
        m_lastAliveMs = nowMs;
        return NOTHING_DUE;
    }
    const auto deltaSec = static_cast<std::uint32_t>((nowMs - m_lastAliveMs) / MS_PER_SEC);
    if (deltaSec <= intervalSec)
    {
        return NOTHING_DUE;
    }
    LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD)
        << m_name << " is stuck for " << deltaSec << " sec" << std::endl;
    if (deltaSec > timeoutSec)
    {
        LogItem(LoggerId::NON, LogLevel::Control, TAVRO_METHOD)
            << m_name << " waited too long "
            << " deltaSec=" << deltaSec << " "
            << " m_timeoutSec=" << timeoutSec << " "
            << " m_listener=" << std::hex << std::uppercase << std::setfill('0') << std::setw(16)
            << reinterpret_cast<std::uintptr_t>(m_listener) << " "
            << " checking custom behavior" << std::endl;
        printThreadsBackTrace();
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "false")
            << m_name << " waited too long" << std::endl;
    }
    return timeoutSec - deltaSec;
}

void DlcKeepalive::printThreadsBackTrace()
{
    if (Tweaks::instance().value(DISABLE_BT_PRINT) != 0)
    {
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "backtrace printing is disabled" << std::endl;
        return;
    }
    MemWatcher::instance().iterateThreads(ThreadBacktracePrinter::print);
}

void DeadLockCheckerManager::registerChecker(DlcKeepalive* checker)
{
    const MutexGuard guard(m_lock);
    if (!m_lockSet.change([=](auto& checkers) { return checkers.insert(checker).second; }))
    {
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "ret")
            << " checker=" << std::hex << reinterpret_cast<std::uintptr_t>(checker) << " checker already registered"
            << std::endl;
    }
}

void DeadLockCheckerManager::unregisterChecker(DlcKeepalive* checker)
{
    const MutexGuard guard(m_lock);
    if (m_lockSet.change([=](auto& checkers) { return checkers.erase(checker); }) == 0)
    {
        CheckFailure(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "ret")
            << " checker=" << std::hex << reinterpret_cast<std::uintptr_t>(checker) << " checker not found"
            << std::endl;
    }
}

void DeadLockCheckerManager::run()
{
    constexpr std::int64_t MS_PER_SEC = 1'000;
    constexpr std::int64_t LONGEST_SLEEP_MS =
        std::numeric_limits<std::uint32_t>::max() - 1; // the maximum is a sleep without end
    for (;;)
    {
        // An interval of 0 would keep a processor busy.
        const std::int32_t intervalSec =
            std::max<std::int32_t>(DynamicTweaks::instance().t_deadlockCheckerIntervalSec, 1);
        platform::sleepMs(static_cast<std::uint32_t>(std::min(intervalSec * MS_PER_SEC, LONGEST_SLEEP_MS)));
        const MutexGuard guard(m_lock);
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
            << " m_lockSet.size()=" << m_lockSet->size() << " " << std::endl;
        const std::int64_t nowMs = Clock::instance().timestampMs();
        for (DlcKeepalive* const checker : *m_lockSet)
        {
            checker->checkLease(static_cast<std::uint64_t>(nowMs), static_cast<std::uint32_t>(intervalSec));
        }
    }
}
