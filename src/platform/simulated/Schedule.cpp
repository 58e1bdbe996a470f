#include "platform/simulated/Schedule.h"

#include "platform/Process.h"
#include "platform/Sync.h"
#include "platform/Threads.h"
#include "platform/simulated/Scheduler.h"
#include "platform/simulated/Strategies.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <utility>

namespace platform::simulated
{

namespace
{

/// The body of a schedule's thread. An exception that it lets go is a failure of the schedule.
void runThread(const std::string& name, const std::function<void()>& work)
{
    nameThread(name);
    std::string failure;
    try
    {
        work();
    }
    catch (const std::exception& exception)
    {
        failure = std::string("exception: ") + exception.what();
    }
    if (!failure.empty())
    {
        Scheduler::instance().fail(failure);
    }
}

void runScenario(void* scenario) { runThread("scenario", *static_cast<const Scenario*>(scenario)); }

/// The end of the process is a failure of the schedule.
class ScopedEnd
{
public:
    ScopedEnd() : m_endProcess(std::exchange(processCalls.endProcess, endSchedule)) { s_endProcess = m_endProcess; }
    ScopedEnd(const ScopedEnd&) = delete;
    ScopedEnd& operator=(const ScopedEnd&) = delete;
    ~ScopedEnd() { processCalls.endProcess = m_endProcess; }

private:
    static void endSchedule()
    {
        const std::string waits = Scheduler::instance().describeWaits();
        Scheduler::instance().fail("the process was to end" + (waits.empty() ? "" : " while " + waits));
        s_endProcess(); // not on a thread of a schedule
    }

    using Entry = void (*)();
    static constinit inline Entry s_endProcess = nullptr;
    const Entry m_endProcess;
};

/// Returns what went wrong; empty if nothing did.
std::string runSchedule(const Scenario& scenario, Recording& strategy, std::uint64_t maxSteps)
{
    const ScopedEnd end;
    Scheduler::instance().beginSchedule(maxSteps);
    const ErrorNumber error = startThread(runScenario, const_cast<Scenario*>(&scenario));
    const std::string failure = Scheduler::instance().waitForEnd(strategy).value_or("");
    if (error != ErrorNumber::Success)
    {
        return "the system starts no more threads";
    }
    return strategy.mismatch().empty() ? failure : strategy.mismatch();
}

void report(const Exploration& exploration)
{
    if (!exploration.failure.empty())
    {
        static_cast<void>(std::fprintf(stderr, "schedule %llu: %s\nto replay: \"%s\"\n",
                                       static_cast<unsigned long long>(exploration.schedules),
                                       exploration.failure.c_str(), exploration.schedule.c_str()));
    }
}

void exploreDepthFirst(const Scenario& scenario, const ExploreOptions& options, Exploration& exploration)
{
    for (std::uint32_t bound = 0; bound <= options.preemptions; ++bound)
    {
        DepthFirst strategy(bound);
        do
        {
            if (exploration.schedules == options.maxSchedules)
            {
                return;
            }
            exploration.failure = runSchedule(scenario, strategy, options.maxSteps);
            const bool isFailure = !exploration.failure.empty();
            exploration.schedules += isFailure || strategy.usesAll() ? 1U : 0U; // the others were seen before
            if (isFailure)
            {
                exploration.schedule = strategy.text();
                return;
            }
        } while (strategy.next());
    }
    exploration.isComplete = true;
}

void exploreAtRandom(const Scenario& scenario, const ExploreOptions& options, std::uint64_t seed, std::uint64_t most,
                     Exploration& exploration)
{
    constexpr std::uint64_t FIRST_GUESS = 100; // of how many steps a schedule has
    std::mt19937_64 seeds(seed);
    std::uint64_t usualSteps = FIRST_GUESS;
    while (exploration.schedules != most && exploration.failure.empty())
    {
        AtRandom strategy(seeds(), usualSteps, options.priorityChanges);
        exploration.failure = runSchedule(scenario, strategy, options.maxSteps);
        exploration.schedule = exploration.failure.empty() ? "" : strategy.text();
        ++exploration.schedules;
        usualSteps = std::max<std::uint64_t>(Scheduler::instance().stepsOfSchedule(), 1);
    }
}

/// Counts only the schedules until a failure.
Exploration warmUp(const Scenario& scenario, const ExploreOptions& options)
{
    constexpr std::uint64_t SEED = 0;
    Exploration exploration;
    exploreAtRandom(scenario, options, SEED, options.warmUps, exploration);
    exploration.schedules = exploration.failure.empty() ? 0 : exploration.schedules;
    return exploration;
}

} // namespace

Exploration explore(const Scenario& scenario, const ExploreOptions& options)
{
    Exploration exploration = warmUp(scenario, options);
    if (exploration.failure.empty())
    {
        options.seed ? exploreAtRandom(scenario, options, *options.seed, options.maxSchedules, exploration)
                     : exploreDepthFirst(scenario, options, exploration);
    }
    report(exploration);
    return exploration;
}

Exploration replay(std::string_view schedule, const Scenario& scenario, const ExploreOptions& options)
{
    Repeating strategy(schedule);
    Exploration exploration{.failure = strategy.mismatch(), .schedule = std::string(schedule)};
    if (exploration.failure.empty())
    {
        exploration = warmUp(scenario, options);
    }
    if (exploration.failure.empty())
    {
        exploration.schedules = 1;
        exploration.schedule = schedule;
        exploration.failure = runSchedule(scenario, strategy, options.maxSteps);
        strategy.expectAllUsed();
        exploration.failure = strategy.mismatch().empty() ? exploration.failure : strategy.mismatch();
    }
    report(exploration);
    return exploration;
}

void check(bool isSo, const std::string& what)
{
    if (!isSo)
    {
        Scheduler::instance().fail("not so: " + what);
        static_cast<void>(std::fprintf(stderr, "outside of schedules, not so: %s\n", what.c_str()));
        std::abort();
    }
}

void runTogether(const std::vector<NamedWork>& works)
{
    struct Start
    {
        const NamedWork& named;
        NativeSemaphore& done;
    };
    NativeSemaphore done(0);
    std::vector<Start> starts;
    starts.reserve(works.size());
    for (const NamedWork& named : works)
    {
        starts.push_back({named, done});
    }
    const auto run = [](void* argument) {
        const Start start = *static_cast<Start*>(argument);
        runThread(start.named.name, start.named.work);
        start.done.post();
    };
    for (Start& start : starts)
    {
        check(startThread(run, &start) == ErrorNumber::Success, "the system starts another thread");
    }
    for (std::size_t numDone = 0; numDone != works.size(); ++numDone)
    {
        done.wait();
    }
}

void nameThread(std::string name) { Scheduler::instance().setOwnName(std::move(name)); }

std::int64_t now() { return Scheduler::instance().now(); }

void advance(std::int64_t durationNs) { Scheduler::instance().advance(durationNs); }

} // namespace platform::simulated
