#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/base/UtcTimestamp.h"
#include "platform/Threads.h"
#include "platform/Time.h"
#include "tests/support/Support.h"

#include <filesystem>
#include <iomanip>
#include <limits>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace
{

std::int64_t nowMs = 1'709'622'489'987; // 2024-03-05 07:08:09.987

std::string formatted(int fractionDigits)
{
    std::ostringstream stream;
    stream << std::setfill('x');
    formatUtcTimestamp(stream, fractionDigits);
    return stream.str();
}

TEST(UtcTimestamp, CutsTheFractionToTheDigitsAskedForAndYearsAreAtLeastFourWide)
{
    const ScopedReplacement clock(platform::timeCalls.utcNow, [] { return nowMs; });
    EXPECT_EQ("2024-03-05 07:08:09", formatted(0));
    EXPECT_EQ("2024-03-05 07:08:09.9", formatted(1));
    EXPECT_EQ("2024-03-05 07:08:09.98", formatted(2));
    EXPECT_EQ("2024-03-05 07:08:09.987", formatted(3));
    nowMs = -31'014'982'310'996;
    EXPECT_EQ("0987-03-05 07:08:09.004", formatted(3));
    nowMs = 327'408'851'289'004;
    EXPECT_EQ("12345-03-05 07:08:09.00", formatted(2));
}

TEST(LogItem, WritesTheHeadThenTheMessageUnchanged)
{
    const CapturingClient client;
    const ScopedReplacement clock(platform::timeCalls.utcNow, [] { return nowMs; });
    const ScopedReplacement thread(
        platform::threadCalls.currentThreadId, +[] { return 0xFFFFFFFEU; });
    LogItem(LoggerId::NON, LogLevel::Info, "wWinMain") << "Invoked." << std::endl;
    LogItem(LoggerId::OLM, LogLevel::Warn, "Tweaks::Tweak::longVal", 0) << "a,\"b\"\nc" << std::endl;
    EXPECT_EQ((Texts{"2024-03-05 07:08:09.987,Info,-2,NON,,wWinMain,Invoked.\n",
                     "2024-03-05 07:08:09,Warn,-2,OLM,Tweaks::Tweak,longVal,a,\"b\"\nc\n"}),
              client.lines());
}

enum Plain : int
{
};

struct Own
{
    operator int() const { return 1; }
    operator std::string() const { return "wrong"; }
};

std::ostream& operator<<(std::ostream& stream, const Own&) { return stream << "own "; }

TEST(LogItem, StreamsLikeAnyNarrowStream)
{
    const CapturingClient client;
    const auto logged = [&](auto&& stream) {
        LogItem item(LoggerId::NON, LogLevel::Info, "f");
        stream(item);
        item << std::endl;
        return client.last().substr(std::string("Info,NON,,f,").size());
    };
    std::ostringstream reference;
    const auto pieces = [](auto& out) {
        out << "s" << std::string("t") << std::string_view("u") << 'c' << static_cast<unsigned char>('d') << true
            << false;
        out << std::numeric_limits<long long>::min() << " " << std::numeric_limits<unsigned long long>::max();
        out << static_cast<short>(-5) << 1.5 << " " << nullptr << std::hex << -1 << std::dec;
        out << std::setw(5) << 42 << std::setw(4) << std::left << "x" << std::boolalpha << true << std::showpos << 7;
    };
    pieces(reference);
    EXPECT_EQ(reference.str(), logged([&](LogItem& item) { pieces(item); }));

    // Types with an insertion operator of their own, however well they convert to simple ones.
    EXPECT_EQ("own \"p\" 7",
              logged([](LogItem& item) { item << Own() << std::filesystem::path("p") << " " << Plain{7}; }));

    const std::string longText(100'000, 'y');
    EXPECT_EQ(longText + "z", logged([&](std::ostream& stream) { stream << longText << 'z'; }));
    EXPECT_EQ(longText + "z" + longText, logged([&](LogItem& item) { item << longText << 'z' << longText; }));
}

TEST(LogItem, AnItemWithinAnotherOneIsALineOfItsOwn)
{
    CapturingClient client;
    {
        LogItem outer(LoggerId::NON, LogLevel::Warn, "outer");
        outer << "be" << 1.5;
        const auto inner = [] { LogItem(LoggerId::OLM, LogLevel::Info, "inner") << "whole" << std::endl; };
        inner();
        std::thread(inner).join();
        outer << "gun" << std::endl;
    }
    EXPECT_EQ((Texts{"Info,OLM,,inner,whole", "Info,OLM,,inner,whole", "Warn,NON,,outer,be1.5gun"}),
              client.newMessages());
}

TEST(LogItem, ThatNeverEndsItsLineSendsNothingAndDebuggingBuildsTellWhatWasLost)
{
    CapturingClient client;
    testing::internal::CaptureStderr();
    static_cast<void>(LogItem(LoggerId::NON, LogLevel::Info, "f") << "lost\n");
    {
        LogItem kept(LoggerId::NON, LogLevel::Info, "f");
        kept << "sent" << std::endl;
        LogItem lost(LoggerId::NON, LogLevel::Info, "f");
        lost << std::hex << 255;
    }
    const std::string report = testing::internal::GetCapturedStderr();
    EXPECT_EQ(Texts{"Info,NON,,f,sent"}, client.newMessages());
#ifdef TAVRO_REPORT_UNENDED_LINES
    EXPECT_NE(std::string::npos, report.find("A log line was never ended and is lost: "));
    EXPECT_NE(std::string::npos, report.find(",NON,,f,lost\n"));
    EXPECT_NE(std::string::npos, report.find(",NON,,f,ff\n"));
    EXPECT_EQ(std::string::npos, report.find("sent"));
#else
    EXPECT_EQ("", report);
#endif
}

} // namespace
