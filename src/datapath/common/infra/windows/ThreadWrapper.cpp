#include "datapath/common/infra/windows/ThreadWrapper.h"

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/SystemHeapBytes.h"
#include "datapath/common/infra/windows/MemWatcher.h"
#include "platform/Random.h"
#include "platform/Threads.h"

#include <cstdlib>
#include <cxxabi.h>
#include <memory>
#include <typeinfo>

namespace
{

/// The number of the thread that was started last. The first one of the process has the number 1.
constinit platform::Atomic<std::uint32_t> lastInternalId = 0;

} // namespace

std::string ThreadWrapper::getTypeName() const
{
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(typeid(*this).name(), nullptr, nullptr, &status), std::free);
    return std::string("class ") + (status == 0 ? name.get() : typeid(*this).name());
}

void ThreadWrapper::open()
{
    ++m_numOpened;
    if (platform::startThread(threadCallback, this) != platform::ErrorNumber::Success)
    {
        failAssertion(LoggerId::NON, TAVRO_METHOD, SourcePlace::here(), "h != NULL");
    }
}

void ThreadWrapper::threadCallback(void* wrapper)
{
    ThreadWrapper& self = *static_cast<ThreadWrapper*>(wrapper);
    const std::uint32_t internalId = ++lastInternalId;
    const std::string typeName = self.getTypeName(); // now, because the object may be gone when run has returned
    Logger::instance().setThreadName(typeName);
    platform::nameThread(typeName.substr(typeName.find(' ') + 1));
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
        << "Starting ThreadWrapper of type " << typeName << " internalId=" << internalId << " " << std::endl;
    self.registerThread();
    MemWatcher::instance().AddThread(platform::currentThreadId());
    platform::seedRandom(internalId + static_cast<std::uint32_t>(Clock::utcMs()));

    self.run();

    MemWatcher::instance().removeThread();
    Logger::instance().removeThreadName();
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
        << "Ending ThreadWrapper of type " << typeName << " internalId=" << internalId << " " << std::endl;
    SystemHeapBytes::leaveShare();
}

void ThreadWrapper::registerThread()
{
    const MutexGuard guard(m_threadIdsMutex);
    m_threadIds.push_back(platform::currentThreadId());
    if (m_threadIds.size() == m_numOpened)
    {
        m_trigger.set();
    }
}

bool ThreadWrapper::areAllRegistered()
{
    const MutexGuard guard(m_threadIdsMutex);
    return m_threadIds.size() >= m_numOpened;
}

void ThreadWrapper::waitUntilRunning()
{
    while (!areAllRegistered())
    {
        m_trigger.wait();
    }
}
