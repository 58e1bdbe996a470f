#include "datapath/common/infra/LogItem.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <array>
#include <atomic>
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
    const std::vector<std::string> names = {"", "Fatal", "Error", "Warn", "Info", "Debug", "Control", "Info"};
    for (std::uint32_t level = 1; level <= 7; ++level)
    {
        logAt(static_cast<LogLevel>(level));
        EXPECT_EQ(names[level] + ",NON,Sample,log,text", all.messages().back());
        for (const CapturingClient* const client : {&all, &infoOnly})
        {
            EXPECT_EQ(level == 1 ? 1 : 2, client->flushes()); // after Fatal and Error
        }
    }
    EXPECT_EQ(7U, all.lines().size());
    EXPECT_EQ(std::vector<std::string>{"Info,NON,Sample,log,text"}, infoOnly.messages());
    Logger::instance().flushClients();
    EXPECT_EQ(3, infoOnly.flushes());
}

TEST(Logger, AHookThatAgreesLetsTheProgramGoOnAfterAnAssert)
{
    static const CapturingClient client;
    struct Hook : LogAssertHook
    {
        bool onAssert(const std::string& line) override
        {
            seen = line;
            flushesBefore = client.flushes();
            return true;
        }
        std::string seen;
        int flushesBefore = 0;
    } hook;
    std::string handled;
    Logger::instance().setAssertHook(&hook);
    Logger::instance().setAssertHandler(LoggerId::OLM, [&](const std::string& line) { handled = line; });
    LogItem(LoggerId::NON, LogLevel::Assert, "f") << "other logger" << std::endl;
    EXPECT_EQ("", handled);
    EXPECT_EQ(2, hook.flushesBefore); // as a severe line, and once more for all
    LogItem(LoggerId::OLM, LogLevel::Assert, "f") << "own logger" << std::endl;
    EXPECT_EQ(client.lines().back(), handled);
    EXPECT_EQ(client.lines().back(), hook.seen);
    EXPECT_EQ(5, hook.flushesBefore); // and again after the handler
    Logger::instance().setAssertHook(nullptr);
    Logger::instance().setAssertHandler(LoggerId::OLM, nullptr);
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
    const std::string id = std::to_string(platform::currentThreadId());
    Logger::instance().setAsyncThreadName("request 7");
    logAt(LogLevel::Info);
    Logger::instance().setAsyncThreadName("");
    logAt(LogLevel::Info);
    EXPECT_NE(std::string::npos, client.lines()[0].find(",Info," + id + "/request 7,NON,"));
    EXPECT_NE(std::string::npos, client.lines()[1].find(",Info," + id + ",NON,"));
}

TEST(Logger, LinesOfManyThreadsArriveWholeAndInTheirThreadsOrder)
{
    constexpr int THREADS = 8;
    constexpr int LINES = 500;
    // The first use of the Logger is a race of its own; the client comes when it has been won.
    runInThreads(THREADS, [](int) { Logger::instance().setThreadName("racer"); });
    const CapturingClient client;
    runInThreads(THREADS, [](int thread) {
        Logger::instance().setAsyncThreadName("racer");
        for (int line = 0; line < LINES; ++line)
        {
            LogItem(LoggerId::NON, LogLevel::Info, "race") << thread << ":" << line << std::endl;
        }
        Logger::instance().setAsyncThreadName("");
    });
    std::vector<int> next(THREADS, 0);
    for (const std::string& message : client.messages())
    {
        int thread = -1;
        int line = -1;
        ASSERT_EQ(2, std::sscanf(message.c_str(), "Info,NON,,race,%d:%d", &thread, &line)) << message;
        EXPECT_EQ(next.at(static_cast<std::size_t>(thread))++, line);
    }
    EXPECT_EQ(std::vector<int>(THREADS, LINES), next);
}

TEST(Logger, AnUnregisteredClientIsLeftAloneAndTheOthersMissNothing)
{
    const CapturingClient staying;
    std::atomic<bool> isDone = false;
    std::thread passing([&] {
        for (int i = 0; i < 300; ++i)
        {
            const CapturingClient client; // gone while others log
        }
        isDone = true;
    });
    runInThreads(2, [&](int thread) {
        for (int line = 0; !isDone; ++line)
        {
            LogItem(LoggerId::NON, LogLevel::Error, "race") << thread << ":" << line << std::endl;
        }
    });
    passing.join();
    std::array<int, 2> next{};
    for (const std::string& message : staying.messages())
    {
        std::size_t thread = 0;
        int line = -1;
        ASSERT_EQ(2, std::sscanf(message.c_str(), "Error,NON,,race,%zu:%d", &thread, &line)) << message;
        ASSERT_EQ(next.at(thread)++, line);
    }
}

TEST(Logger, ClientsKeepTheirOrderWhenOneLeavesAndItsPlaceIsTakenAgain)
{
    std::string order;
    const auto adding = [&](char name) { return [&order, name](const std::string&) { order += name; }; };
    const HookedClient first(adding('a'));
    auto second = std::make_unique<HookedClient>(adding('b'));
    const HookedClient third(adding('c'));
    second.reset();
    const HookedClient fourth(adding('d'));
    std::string complaint;
    HookedClient* own = nullptr;
    HookedClient fifth([&](const std::string& line) {
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
