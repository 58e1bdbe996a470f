#include "datapath/common/infra/Log.h"

#include "datapath/common/infra/base/Singleton.h"
#include "platform/Process.h"
#include "platform/Threads.h"

#include <algorithm>
#include <iostream>
#include <utility>

namespace
{

constexpr std::uint32_t NUMBER_TOO_MANY_CLIENTS = 204;

constexpr bool mustFlush(LogLevel level) { return level <= LogLevel::Error; }

std::int32_t currentThreadKey() { return static_cast<std::int32_t>(platform::currentThreadId()); }

constinit platform::Atomic<Logger*> theLogger = nullptr;

} // namespace

Logger& Logger::instance()
{
    return createOnce(theLogger, creationLock<Logger>, [] { return new Logger; });
}

void Logger::registerClient(LoggerClient* client, std::uint32_t levelMask)
{
    client->m_levelMask = levelMask;
    if (!tryRegister(client))
    {
        failCheck(TAVRO_METHOD, SourcePlace::numbered(NUMBER_TOO_MANY_CLIENTS), "m_clientsCnt < 4",
                  " m_clientsCnt=" + std::to_string(MAX_CLIENTS) + " ");
    }
}

bool Logger::tryRegister(LoggerClient* client)
{
    constexpr std::size_t NUMBERS = (1U << TICKET_BITS) / MAX_CLIENTS - 1;
    const MutexGuard guard(m_clientsMutex);
    const std::vector<std::size_t> free = placesOf(nullptr);
    if (free.empty())
    {
        return false;
    }
    const std::size_t index = free.front();
    const auto ticket = static_cast<Ticket>((1 + m_registrations++ % NUMBERS) * MAX_CLIENTS + index);
    m_places[index].client = client;
    m_places[index].ticket = ticket;
    std::vector<Ticket> order = ticketsOf(m_order);
    order.push_back(ticket);
    setOrder(order);
    return true;
}

void Logger::unregisterClient(LoggerClient* client)
{
    std::vector<std::size_t> places;
    bool isInside = false;
    {
        const MutexGuard guard(m_clientsMutex);
        places = placesOf(client);
        isInside = std::ranges::any_of(places, ClientVisits::isInside);
        if (!isInside)
        {
            closePlaces(places);
        }
    }
    if (isInside)
    {
        // This line goes to the client too. If the client tries again because of it, there is no second line.
        static constinit thread_local bool isLogging = false;
        if (!std::exchange(isLogging, true))
        {
            logLine(LogLevel::Error, TAVRO_METHOD,
                    "a log client cannot be unregistered from inside its own log or flush");
            isLogging = false;
        }
        return;
    }
    for (const std::size_t index : places)
    {
        ClientVisits::waitUntilLeft(index);
        const MutexGuard guard(m_clientsMutex);
        if (Place& place = m_places[index]; place.client == client && place.ticket == 0) // no other thread has done it
        {
            place.client = nullptr;
        }
    }
}

std::vector<std::size_t> Logger::placesOf(const LoggerClient* client) const
{
    std::vector<std::size_t> places;
    for (std::size_t index = 0; index < MAX_CLIENTS; ++index)
    {
        if (m_places[index].client == client)
        {
            places.push_back(index);
        }
    }
    return places;
}

void Logger::closePlaces(const std::vector<std::size_t>& places)
{
    std::vector<Ticket> order = ticketsOf(m_order);
    for (const std::size_t index : places)
    {
        std::erase(order, m_places[index].ticket.exchange(0));
    }
    setOrder(order);
}

std::vector<Logger::Ticket> Logger::ticketsOf(std::uint64_t order)
{
    std::vector<Ticket> tickets;
    for (; order != 0; order >>= TICKET_BITS)
    {
        tickets.push_back(static_cast<Ticket>(order));
    }
    return tickets;
}

void Logger::setOrder(const std::vector<Ticket>& tickets)
{
    std::uint64_t order = 0;
    std::for_each(tickets.rbegin(), tickets.rend(), [&](Ticket ticket) { order = order << TICKET_BITS | ticket; });
    m_order = order;
}

/// Calls the visitor for each client in the order of their registration.
template <class Visitor> void Logger::visitClients(const Visitor& visitor) const
{
    for (std::uint64_t order = m_order.load(std::memory_order_relaxed); order != 0; order >>= TICKET_BITS)
    {
        const auto ticket = static_cast<Ticket>(order);
        const std::size_t index = ticket % MAX_CLIENTS;
        const ClientVisits::Visit visit(index);
        if (m_places[index].ticket.load() == ticket) // else the client has been taken away
        {
            visitor(*m_places[index].client);
        }
    }
}

void Logger::dispatch(const std::string& line, LogLevel level, LoggerId loggerId)
{
    const std::uint32_t levelBit = 1U << static_cast<std::uint32_t>(level);
    visitClients([&](LoggerClient& client) {
        if ((client.m_levelMask & levelBit) != 0)
        {
            client.log(line);
        }
        if (mustFlush(level))
        {
            client.flush();
        }
    });
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
    visitClients([](LoggerClient& client) { client.flush(); });
}

void Logger::setAssertHandler(LoggerId loggerId, AssertHandler handler)
{
    m_assertHandlers.at(static_cast<std::size_t>(loggerId)) = std::move(handler);
}

void Logger::setThreadName(const std::string& name)
{
    const MutexGuard guard(m_mutex);
    m_threadNames.change([&](auto& names) { names.try_emplace(currentThreadKey(), name); });
}

void Logger::removeThreadName()
{
    const MutexGuard guard(m_mutex);
    m_threadNames.change([](auto& names) { names.erase(currentThreadKey()); });
}

std::string Logger::getThreadName(std::int32_t threadId) const
{
    const MutexGuard guard(m_mutex);
    const auto found = m_threadNames->find(threadId);
    return found == m_threadNames->end() ? std::string() : found->second;
}

void Logger::setAsyncThreadName(const std::string& name)
{
    const MutexGuard guard(m_mutex);
    if (name.empty())
    {
        m_asyncThreadNames.change([](auto& names) { names.erase(currentThreadKey()); });
    }
    else
    {
        m_asyncThreadNames.change([&](auto& names) { names.insert_or_assign(currentThreadKey(), name); });
    }
    m_asyncThreadNamesCnt.store(m_asyncThreadNames->size(), std::memory_order_relaxed);
}

std::string Logger::getAsyncThreadName() const
{
    if (!hasAsyncThreadNames())
    {
        return {};
    }
    const MutexGuard guard(m_mutex);
    const auto found = m_asyncThreadNames->find(currentThreadKey());
    return found == m_asyncThreadNames->end() ? std::string() : found->second;
}
