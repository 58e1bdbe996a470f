#include "datapath/common/infra/LogItem.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

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
    static Texts seen;
    struct Hook : IgnoredAsserts
    {
        bool onAssert(const std::string& line) override
        {
            seen.push_back("hook " + std::to_string(client.flushes()));
            return IgnoredAsserts::onAssert(line);
        }
    } const hook;
    Logger::instance().setAssertHandler(LoggerId::OLM, [](const std::string& line) { seen.push_back(line); });
    LogItem(LoggerId::NON, LogLevel::Assert, "f") << "other logger" << std::endl;
    LogItem(LoggerId::OLM, LogLevel::Assert, "f") << "own logger" << std::endl;
    // Clients are flushed with each severe line and again before the hook; after a handler, a third time.
    EXPECT_EQ((Texts{"hook 2", client.lines().back(), "hook 5"}), seen);
}

TEST(Logger, AThreadKeepsItsFirstNameUntilItIsRemovedAndLinesShowItsAsynchronousOne)
{
    Logger& logger = Logger::instance();
    const std::uint32_t id = platform::currentThreadId();
    const auto name = [&] { return logger.getThreadName(static_cast<std::int32_t>(id)); };
    logger.setThreadName("first");
    logger.setThreadName("second");
    std::thread([&] { logger.setThreadName("other"), logger.removeThreadName(); }).join();
    EXPECT_EQ("first", name());
    logger.removeThreadName();
    EXPECT_EQ("", name());
    const CapturingClient client;
    for (const std::string asyncName : {"request 7", ""})
    {
        logger.setAsyncThreadName(asyncName);
        logAt(LogLevel::Info);
        const std::string thread = std::to_string(id) + (asyncName.empty() ? "" : "/" + asyncName);
        EXPECT_PRED2(matches, client.lines().back(), "~,Info," + thread + ",NON,~");
    }
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
    logAt(LogLevel::Info);
    EXPECT_EQ("acd", order);
}

TEST(Logger, AClientThatUnregistersItselfFromInsideStaysAndIsToldOnce)
{
    Texts lines;
    HookedClient* own = nullptr;
    HookedClient client("", [&](const std::string& line) {
        lines.push_back(line);
        Logger::instance().unregisterClient(own);
    });
    own = &client;
    logAt(LogLevel::Info);
    expectMatches({"~,text\n",
                   "~,Error,#,NON,Logger,unregisterClient,a log client cannot be unregistered from inside its "
                   "own log or flush\n"},
                  lines);
}

} // namespace
