#include "datapath/common/infra/LogItem.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

namespace
{

void logAt(LogLevel level) { LogItem(LoggerId::NON, level, "Sample::log") << "text" << std::endl; }

TEST(Logger, OffersEachLineByMaskAndFlushesEveryClientAfterSevereOnes)
{
    const CapturingClient all;
    const CapturingClient infoOnly(1U << 4U);
    const Texts names = {"", "Fatal", "Error", "Warn", "Info", "Debug", "Control", "Info"};
    for (std::uint32_t level = 1; level <= 7; ++level)
    {
        logAt(static_cast<LogLevel>(level));
        EXPECT_EQ(names[level] + ",NON,Sample,log,text", all.last());
        for (const CapturingClient* const client : {&all, &infoOnly})
        {
            EXPECT_EQ(level == 1 ? 1 : 2, client->flushes()); // after Fatal and Error
        }
    }
    EXPECT_EQ(7U, all.lines().size());
    EXPECT_EQ(Texts{"Info,NON,Sample,log,text"}, infoOnly.messages());
    Logger::instance().flushClients();
    EXPECT_EQ(3, infoOnly.flushes());
}

TEST(Logger, AHookThatAgreesLetsTheProgramGoOnAfterAnAssert)
{
    static const CapturingClient client;
    static std::string seen;
    static int flushesBefore = 0;
    struct Hook : LettingGo
    {
        bool onAssert(const std::string& line) override
        {
            flushesBefore = client.flushes();
            return LettingGo::onAssert(seen = line);
        }
    } const hook;
    static std::string handled;
    Logger::instance().setAssertHandler(LoggerId::OLM, [](const std::string& line) { handled = line; });
    LogItem(LoggerId::NON, LogLevel::Assert, "f") << "other logger" << std::endl;
    EXPECT_EQ("", handled);
    EXPECT_EQ(2, flushesBefore); // as a severe line, and once more for all
    LogItem(LoggerId::OLM, LogLevel::Assert, "f") << "own logger" << std::endl;
    EXPECT_EQ((Texts{seen, seen}), (Texts{client.lines().back(), handled}));
    EXPECT_EQ(5, flushesBefore); // and again after the handler
}

TEST(Logger, AThreadKeepsItsFirstNameUntilItIsRemoved)
{
    Logger& logger = Logger::instance();
    const auto id = static_cast<std::int32_t>(platform::currentThreadId());
    EXPECT_EQ("", logger.getThreadName(id));
    logger.setThreadName("first");
    logger.setThreadName("second");
    EXPECT_EQ("first", logger.getThreadName(id));
    std::thread([&] {
        logger.setThreadName("other");
        EXPECT_EQ("first", logger.getThreadName(id));
        logger.removeThreadName();
    }).join();
    EXPECT_EQ("first", logger.getThreadName(id));
    logger.removeThreadName();
    EXPECT_EQ("", logger.getThreadName(id));
}

TEST(Logger, TheThreadColumnShowsAnAsynchronousName)
{
    const CapturingClient client;
    for (const std::string name : {"request 7", ""})
    {
        Logger::instance().setAsyncThreadName(name);
        logAt(LogLevel::Info);
        const std::string thread = std::to_string(platform::currentThreadId()) + (name.empty() ? "" : "/" + name);
        EXPECT_PRED2(matches, client.lines().back(), "~,Info," + thread + ",NON,~");
    }
}

TEST(Logger, LinesOfManyThreadsArriveWholeAndInTheirThreadsOrderWhileClientsComeAndGo)
{
    constexpr int THREADS = 8;
    constexpr int LINES = 2'000;
    // The first use of the Logger is a race of its own; the client comes when it has been won.
    runInThreads(THREADS, [](int) { Logger::instance().setThreadName("racer"); });
    const CapturingClient client;
    std::atomic<int> logging = THREADS;
    runInThreads(THREADS + 1, [&](int thread) {
        if (thread == THREADS)
        {
            while (logging != 0)
            {
                const CapturingClient guest;
            }
            return;
        }
        Logger::instance().setAsyncThreadName("racer");
        repeat(LINES, [&, line = 0]() mutable { logNumbered(LogLevel::Error, thread, line++); });
        Logger::instance().setAsyncThreadName("");
        --logging;
    });
    OrderOfThreads order{"Error,NON,,logNumbered,"};
    std::ranges::for_each(client.messages(), std::ref(order));
    EXPECT_EQ(THREADS, std::ranges::count(order.next, LINES, &std::pair<const int, int>::second));
}

TEST(Logger, ClientsKeepTheirOrderWhenOneLeavesAndItsPlaceIsTakenAgain)
{
    std::string order;
    const auto adding = [&](char name) { return [&order, name](const std::string&) { order += name; }; };
    const HookedClient first("", adding('a'));
    auto second = std::make_unique<HookedClient>("", adding('b'));
    const HookedClient third("", adding('c'));
    second.reset();
    const HookedClient fourth("", adding('d'));
    std::string complaint;
    HookedClient* own = nullptr;
    HookedClient fifth("", [&](const std::string& line) {
        complaint = line;
        Logger::instance().unregisterClient(own); // refused, once for each line from outside
    });
    own = &fifth;
    logAt(LogLevel::Info);
    EXPECT_EQ("acdacd", order);
    EXPECT_PRED2(matches, complaint,
                 "~,Error,#,NON,Logger,unregisterClient,a log client cannot be unregistered from inside its own log or "
                 "flush\n");
}

} // namespace
