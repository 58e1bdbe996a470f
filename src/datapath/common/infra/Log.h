#pragma once

// The process-wide hub through which every log line passes, and the interface of the clients that take the
// lines. A finished line is offered to each registered client whose mask accepts its level; severe
// lines make the clients flush, and a line of level Assert ends the process.
//
//     Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
//     LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "Invoked." << std::endl;
//     Logger::instance().unregisterClient(&client);       // before it is destroyed
//
// Lines are made with a LogItem. The hub also keeps the names of the program's threads.

#include "datapath/common/infra/LogBasics.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/base/ClientVisits.h"
#include "platform/Atomic.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

/// Takes log lines. Every operation may be called by several threads at once, and none may throw. A client may be
/// called under locks of the code that logs, so it must not read configuration.
class LoggerClient
{
public:
    LoggerClient() = default;
    LoggerClient(const LoggerClient&) = delete;
    LoggerClient& operator=(const LoggerClient&) = delete;
    virtual ~LoggerClient() = default;

    /// Takes a finished line, its "\n" included.
    virtual void log(const std::string& line) = 0;

    /// Returns when every line taken so far has reached its destination.
    virtual void flush() {}

    /// Bit n is set if lines of level n are wanted. registerClient sets the mask.
    std::uint32_t m_levelMask = 0;
};

/// Asked when a line of level Assert is about to end the process.
class LogAssertHook
{
public:
    virtual ~LogAssertHook() = default;

    /// Returns true to let the program go on.
    virtual bool onAssert(const std::string& line) = 0;
};

/// The process-wide hub through which every log line passes on its way to the clients; Log.h shows its use. Any thread
/// may call.
class Logger
{
public:
    using AssertHandler = std::function<void(const std::string& line)>;

    static constexpr std::uint32_t ALL_LEVELS = 255;

    /// Created on first use, by any thread, and never destroyed.
    [[nodiscard]] static Logger& instance();

    /// Adds a client after the others. It stays the caller's and must live until it is unregistered or the process
    /// ends. There is room for four; a fifth ends the process. Other threads may log meanwhile.
    void registerClient(LoggerClient* client, std::uint32_t levelMask) TAVRO_EXCLUDES(m_clientsMutex);

    /// Takes a client away and returns when no other thread is inside it any more: it may be destroyed then. Lines that
    /// other threads log meanwhile go to the remaining clients. Does nothing for a client that is not registered, and
    /// only logs an Error line if it is called from inside the client's own log or flush. The caller must not hold a
    /// lock that the client takes in log or flush, and two clients must not unregister each other from inside those.
    void unregisterClient(LoggerClient* client) TAVRO_EXCLUDES(m_clientsMutex);

    [[nodiscard]] bool hasClients() const { return m_order.load(std::memory_order_relaxed) != 0; }

    /// Hands one finished line to the clients, on the calling thread and without a lock. Returns
    /// from a line of level Assert only if the hook says so.
    void dispatch(const std::string& line, LogLevel level, LoggerId loggerId);

    /// Flushes every client in the order of their registration.
    void flushClients() const;

    /// Called with each line of level Assert of that logger before the process ends. Start-up only.
    void setAssertHandler(LoggerId loggerId, AssertHandler handler);

    /// The hook is asked last before a line of level Assert ends the process; null takes it away. Not owned. Start-up
    /// only.
    void setAssertHook(LogAssertHook* hook) { m_assertHook = hook; }

    /// Names the calling thread. A thread that has a name keeps it.
    void setThreadName(const std::string& name) TAVRO_EXCLUDES(m_mutex);

    /// Takes the calling thread's name away.
    void removeThreadName() TAVRO_EXCLUDES(m_mutex);

    /// The name of a thread, empty if it has none.
    [[nodiscard]] std::string getThreadName(std::int32_t threadId) const TAVRO_EXCLUDES(m_mutex);

    /// Lets the thread column of the calling thread's lines show this name after the thread's id;
    /// an empty name takes it away.
    void setAsyncThreadName(const std::string& name) TAVRO_EXCLUDES(m_mutex);

    /// Whether any thread has such a name.
    [[nodiscard]] bool hasAsyncThreadNames() const
    {
        return m_asyncThreadNamesCnt.load(std::memory_order_relaxed) != 0;
    }

    /// The calling thread's name for the thread column, empty if it has none.
    [[nodiscard]] std::string getAsyncThreadName() const TAVRO_EXCLUDES(m_mutex);

private:
    using ThreadNames = StlMemShiledContainer<std::map<std::int32_t, std::string>>;

    static constexpr std::size_t MAX_CLIENTS = ClientVisits::PLACES;
    static constexpr std::size_t LOGGER_COUNT = 4;

    /// Identifies a registration and is never 0: divided by MAX_CLIENTS, it has the index of the client's place as the
    /// remainder, and as the quotient a number that none of the recent registrations has.
    using Ticket = std::uint16_t;
    static constexpr unsigned TICKET_BITS = 16;

    /// A thread that dispatches uses the client only during a visit, and only if it finds the ticket that it came for.
    struct Place
    {
        LoggerClient* client = nullptr;      // set until the last visitors of an unregistered client have left
        platform::Atomic<Ticket> ticket = 0; // 0: no thread may begin to use the client
    };

    Logger() = default;
    template <class Visitor> void visitClients(const Visitor& visitor) const;
    [[nodiscard]] bool tryRegister(LoggerClient* client) TAVRO_EXCLUDES(m_clientsMutex);
    [[nodiscard]] std::vector<std::size_t> placesOf(const LoggerClient* client) const TAVRO_REQUIRES(m_clientsMutex);
    void closePlaces(const std::vector<std::size_t>& places) TAVRO_REQUIRES(m_clientsMutex);
    [[nodiscard]] static std::vector<Ticket> ticketsOf(std::uint64_t order);
    void setOrder(const std::vector<Ticket>& tickets) TAVRO_REQUIRES(m_clientsMutex);
    void endAfterAssert(const std::string& line, LoggerId loggerId) const;

    ThreadNames m_asyncThreadNames TAVRO_GUARDED_BY(m_mutex){"LoggerAsyncThreadNames"};
    // The size of that table, so that lines take the lock only in programs that use such names.
    platform::Atomic<std::size_t> m_asyncThreadNamesCnt = 0;
    ThreadNames m_threadNames TAVRO_GUARDED_BY(m_mutex){"LoggerThreadNames"};
    mutable Mutex m_mutex; // guards the two tables of names; nothing is taken inside it
    Mutex m_clientsMutex;  // guards changes of the places and of their order; nothing is taken inside it
    std::array<Place, MAX_CLIENTS> m_places{};
    // The tickets of the registered clients in the order of their registration, 16 bits each:
    //     | 0 | third | second | first |        first in bits 0 to 15; 0 after the last one
    platform::Atomic<std::uint64_t> m_order = 0;
    std::uint32_t m_registrations TAVRO_GUARDED_BY(m_clientsMutex) = 0;
    LogAssertHook* m_assertHook = nullptr;
    std::array<AssertHandler, LOGGER_COUNT> m_assertHandlers;
};
