#include "datapath/common/infra/Log.h"

#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/Singleton.h"
#include "platform/Process.h"
#include "platform/Threads.h"

#include <iostream>
#include <utility>

namespace
{

constexpr std::uint32_t NUMBER_TOO_MANY_CLIENTS = 204;

constexpr std::array<std::string_view, 8> LEVEL_NAMES = {"Assert", "Fatal", "Error",   "Warn",
                                                         "Info",   "Debug", "Control", "Info"};
constexpr std::array<std::string_view, 4> LOGGER_NAMES = {"Invalid", "OLM", "KRN", "NON"};

constexpr bool mustFlush(LogLevel level) { return level <= LogLevel::Error; }

std::int32_t currentThreadKey() { return static_cast<std::int32_t>(platform::currentThreadId()); }

constinit std::atomic<Logger*> theLogger = nullptr;

} // namespace

std::string_view logLevelName(LogLevel level)
{
    return LEVEL_NAMES[static_cast<std::size_t>(level) % LEVEL_NAMES.size()];
}

std::string_view loggerName(LoggerId loggerId)
{
    const auto index = static_cast<std::size_t>(loggerId);
    return LOGGER_NAMES[index < LOGGER_NAMES.size() ? index : 0];
}

Logger& Logger::instance()
{
    return createOnce(theLogger, creationLock<Logger>(), [] { return new Logger; });
}

void Logger::registerClient(LoggerClient* client, std::uint32_t levelMask)
{
    client->m_levelMask = levelMask;
    const std::uint32_t index = m_clientsCnt;
    if (index == MAX_CLIENTS)
    {
        CheckFailure(LoggerId::NON, THIS_METHOD, SourcePlace::numbered(NUMBER_TOO_MANY_CLIENTS), "m_clientsCnt < 4")
            << " m_clientsCnt=" << index << " " << std::endl;
        return;
    }
    m_clients[index] = client;
    m_clientsCnt.store(index + 1, std::memory_order_release);
}

void Logger::dispatch(const std::string& line, LogLevel level, LoggerId loggerId)
{
    const std::uint32_t levelBit = 1U << static_cast<std::uint32_t>(level);
    for (std::uint32_t i = 0; i < m_clientsCnt; ++i)
    {
        LoggerClient& client = *m_clients[i];
        if ((client.m_levelMask & levelBit) != 0)
        {
            client.log(line);
        }
        if (mustFlush(level))
        {
            client.flush();
        }
    }
    if (level == LogLevel::Assert)
    {
        endAfterAssert(line, loggerId);
    }
}

void Logger::endAfterAssert(const std::string& line, LoggerId loggerId) const
{
    flushClients();
    if (const AssertHandler& handler = m_assertHandlers.at(static_cast<std::size_t>(loggerId)))
    {
        handler(line);
        flushClients();
    }
    if (m_assertHook != nullptr && m_assertHook->onAssert(line))
    {
        return;
    }
    std::cout << line << std::endl;
    platform::endProcess();
}

void Logger::flushClients() const
{
    for (std::uint32_t i = 0; i < m_clientsCnt; ++i)
    {
        m_clients[i]->flush();
    }
}

void Logger::setAssertHandler(LoggerId loggerId, AssertHandler handler)
{
    m_assertHandlers.at(static_cast<std::size_t>(loggerId)) = std::move(handler);
}

void Logger::setThreadName(const std::string& name)
{
    const MutexGuard guard(m_mutex);
    m_threadNames.try_emplace(currentThreadKey(), name);
}

void Logger::removeThreadName()
{
    const MutexGuard guard(m_mutex);
    m_threadNames.erase(currentThreadKey());
}

std::string Logger::getThreadName(std::int32_t threadId) const
{
    const MutexGuard guard(m_mutex);
    const auto found = m_threadNames.find(threadId);
    return found == m_threadNames.end() ? std::string() : found->second;
}

void Logger::setAsyncThreadName(const std::string& name)
{
    const MutexGuard guard(m_mutex);
    if (name.empty())
    {
        m_asyncThreadNames.erase(currentThreadKey());
    }
    else
    {
        m_asyncThreadNames.insert_or_assign(currentThreadKey(), name);
    }
    m_asyncThreadNamesCnt.store(m_asyncThreadNames.size(), std::memory_order_relaxed);
}

std::string Logger::getAsyncThreadName() const
{
    if (m_asyncThreadNamesCnt.load(std::memory_order_relaxed) == 0)
    {
        return {};
    }
    const MutexGuard guard(m_mutex);
    const auto found = m_asyncThreadNames.find(currentThreadKey());
    return found == m_asyncThreadNames.end() ? std::string() : found->second;
}
