// Shows how to run code on the library in every order of its threads. The CMake preset linux-simulated builds it.
//
// A report is made once, by a thread of its own, when somebody asks for it for the first time. Two threads ask at the
// same time. The hasty version reads the flag and sets it in two steps: in some orders both threads find it unset, and
// the report is made twice.

#include "datapath/common/infra/ActiveObject.h"
#include "datapath/common/infra/Future.h"
#include "platform/simulated/Schedule.h"

#include <cstdio>

namespace
{

using namespace platform::simulated;

const platform::Atomic<bool> isVerbose = false;

class Report
{
public:
    explicit Report(bool isHasty) : m_isHasty(isHasty) { m_printer.open(); }

    /// Returns when the report is made; RC_OK if that went well. Any thread may call.
    RcStatus get()
    {
        if (isFirst())
        {
            m_printer.enqueue(GuardedMemory::create<Making>({"Making", SourcePlace::here()}, *this));
        }
        return m_result.get();
    }

private:
    struct Making : ActiveObject::Action
    {
        explicit Making(Report& made) : report(made) {}
        void execute() override
        {
            check(!report.m_isMade, "the report is made once");
            report.m_isMade = true;
            report.m_result.set(RC_OK);
        }

        Report& report;
    };

    bool isFirst()
    {
        if (m_isHasty)
        {
            return !m_isAsked && (m_isAsked = true);
        }
        return !m_isAsked.exchange(true);
    }

    const bool m_isHasty;
    bool m_isMade = false; // only the printer's thread uses it
    platform::Atomic<bool> m_isAsked = false;
    FutureInternal::Future<RcStatus> m_result;
    ActiveObject m_printer{"Printer", &isVerbose}; // destroyed first: its thread uses the rest
};

Scenario askTwice(bool isHasty)
{
    return [isHasty] {
        Report report(isHasty);
        const auto ask = [&] { check(report.get() == RC_OK, "it was made"); };
        runTogether({{"administrator", ask}, {"monitor", ask}});
    };
}

} // namespace

int main()
{
    askTwice(false)(); // starts the services of the process, which run for ever
    // The library keeps some memory for each thread that ran at one time: after some schedules it has all of that.
    const ExploreOptions options{.maxSchedules = 5'000, .warmUps = 20};
    const Exploration careful = explore(askTwice(false), options); // first: a failure leaves threads that stand still
    const Exploration hasty = explore(askTwice(true), options);
    const bool isSame = replay(hasty.schedule, askTwice(true), options).failure == hasty.failure;
    std::printf("hasty: %s; %s\n", hasty.failure.c_str(), isSame ? "the same when repeated" : "not repeated");
    std::printf("careful: %s\n", careful.failure.empty() ? "nothing goes wrong" : careful.failure.c_str());
    return !hasty.failure.empty() && isSame && careful.failure.empty() ? 0 : 1;
}
