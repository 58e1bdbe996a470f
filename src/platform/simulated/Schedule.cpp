#include "platform/simulated/Schedule.h"

#include "platform/Process.h"
#include "platform/Sync.h"
#include "platform/Threads.h"
#include "platform/simulated/Scheduler.h"
#include "platform/simulated/Strategies.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <utility>

#include <execinfo.h>
#include <unistd.h>

namespace platform::simulated
{

namespace
{

/// Fails the schedule; outside of schedules ends the process.
[[noreturn]] void failSchedule(const std::string& failure)
{
    Scheduler::instance().fail(failure);
    static_cast<void>(std::fprintf(stderr, "outside of schedules, %s\n", failure.c_str()));
    std::abort();
}

/// The body of a schedule's thread. An exception that leaves the work is a failure of the schedule.
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
    catch (...)
    {
        failure = "an exception that is no std::exception";
    }
    if (!failure.empty())
    {
        failSchedule(failure);
    }
}

void runScenario(void* scenario) { runThread("scenario", *static_cast<const Scenario*>(scenario)); }

/// While it lives, endProcess fails the schedule.
class ScopedProcessEnd
{
public:
    ScopedProcessEnd() : m_replaced(std::exchange(processCalls.endProcess.current, endSchedule))
    {
        s_replaced = m_replaced;
    }
    ScopedProcessEnd(const ScopedProcessEnd&) = delete;
    ScopedProcessEnd& operator=(const ScopedProcessEnd&) = delete;
    ~ScopedProcessEnd() { processCalls.endProcess.current = m_replaced; }

private:
    static void endSchedule()
    {
        const std::string waits = Scheduler::instance().describeWaits();
        Scheduler::instance().fail("the process was to end" + (waits.empty() ? "" : " while " + waits));
        s_replaced(); // not on a thread of a schedule
    }

    using End = void (*)();
    static constinit inline End s_replaced = nullptr;
    const End m_replaced;
};

void printFailure(const Exploration& exploration, const std::string& failure, const std::string& schedule)
{
    static_cast<void>(std::fprintf(stderr, "schedule %llu %s: %s\nto replay: \"%s\"\n",
                                   static_cast<unsigned long long>(exploration.schedules), exploration.way.c_str(),
                                   failure.c_str(), schedule.c_str()));
}

/// Prints the schedule when a signal is about to end the process, and for a fault its address and the back trace.
class ScopedCrashReport
{
public:
    ScopedCrashReport(const RecordingStrategy& strategy, const Exploration& exploration)
    {
        s_strategy = &strategy;
        s_exploration = &exploration;
        struct sigaction action = {};
        action.sa_sigaction = report;
        action.sa_flags = SA_SIGINFO;
        for (std::size_t index = 0; index < SIGNALS.size(); ++index)
        {
            sigaction(SIGNALS[index], &action, &s_previous[index]);
        }
    }
    ScopedCrashReport(const ScopedCrashReport&) = delete;
    ScopedCrashReport& operator=(const ScopedCrashReport&) = delete;
    ~ScopedCrashReport() { restoreHandlers(); }

private:
    static constexpr int MAX_FRAMES = 64;
    static constexpr std::array SIGNALS = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV};

    /// Runs on the thread that has the turn, so the text of the schedule does not change meanwhile.
    static void report(int signal, siginfo_t* info, void* /*context*/)
    {
        restoreHandlers(); // after this returns, the fault occurs again, and abort ends the process
        printFailure(*s_exploration, "signal " + std::to_string(signal) + " ends the process", s_strategy->text());
        if (signal != SIGABRT)
        {
            static_cast<void>(std::fprintf(stderr, "the fault is at address %p\n", info->si_addr));
            std::array<void*, MAX_FRAMES> frames{};
            backtrace_symbols_fd(frames.data(), backtrace(frames.data(), MAX_FRAMES), STDERR_FILENO);
        }
    }

    static void restoreHandlers()
    {
        for (std::size_t index = 0; index < SIGNALS.size(); ++index)
        {
            sigaction(SIGNALS[index], &s_previous[index], nullptr);
        }
    }

    static constinit inline const RecordingStrategy* s_strategy = nullptr;
    static constinit inline const Exploration* s_exploration = nullptr;
    static inline std::array<struct sigaction, SIGNALS.size()> s_previous{};
};

/// Returns what went wrong; empty if nothing did. exploration.schedules has already counted this schedule.
std::string runSchedule(const Scenario& scenario, RecordingStrategy& strategy, const Exploration& exploration,
                        std::uint64_t maxSteps)
{
    const ScopedProcessEnd end;
    const ScopedCrashReport crash(strategy, exploration);
    Scheduler::instance().beginSchedule(maxSteps);
    const ErrorNumber error = startThread(runScenario, const_cast<Scenario*>(&scenario));
    const std::string failure = Scheduler::instance().waitForEnd(strategy).value_or("");
    if (error != ErrorNumber::Success)
    {
        return "the system starts no more threads";
    }
    return strategy.mismatch().empty() ? failure : strategy.mismatch();
}

/// Prints the failure, if there is one, and returns the exploration.
Exploration withReport(Exploration exploration)
{
    if (!exploration.failure.empty())
    {
        printFailure(exploration, exploration.failure, exploration.schedule);
    }
    return exploration;
}

/// A schedule that is described by its departures from the usual course.
struct Course
{
    std::vector<DepartingStrategy::Departure> departures{};
    std::uint32_t preemptions = 0; // how many of the departures are preemptions
};

/// Collects the courses that have one departure more than those that were run. If they exceed the capacity, it keeps a
/// uniform random sample of them.
class NextCourses
{
public:
    explicit NextCourses(std::uint64_t capacity) : m_capacity(capacity), m_random(capacity) {}

    /// Adds all courses that follow the given one, which was run with these choices, and then depart once more.
    void addFrom(const Course& course, const std::vector<DepartingStrategy::Choice>& choices,
                 std::uint32_t maxPreemptions)
    {
        for (std::uint64_t choice = course.departures.empty() ? 0 : course.departures.back().choice + 1;
             choice < choices.size(); ++choice)
        {
            const auto [numOptions, firstPreemption, history] = choices[choice];
            const bool mayPreempt = course.preemptions < maxPreemptions;
            for (std::size_t option = 1; option < (mayPreempt ? numOptions : firstPreemption); ++option)
            {
                if (Course* const place = placeForOneMore(); place != nullptr)
                {
                    *place = course;
                    place->departures.push_back({choice, option, history});
                    place->preemptions += option >= firstPreemption ? 1 : 0;
                }
            }
        }
    }

    [[nodiscard]] bool hasAll() const { return m_numSeen == m_courses.size(); }
    [[nodiscard]] std::vector<Course> take() { return std::move(m_courses); }

private:
    /// Returns null if the course is left out. Source: Vitter, "Random Sampling with a Reservoir", algorithm R.
    Course* placeForOneMore()
    {
        ++m_numSeen;
        if (m_courses.size() < m_capacity)
        {
            return &m_courses.emplace_back();
        }
        const std::uint64_t place = m_random() % m_numSeen;
        return place < m_capacity ? &m_courses[place] : nullptr;
    }

    const std::uint64_t m_capacity;
    std::uint64_t m_numSeen = 0;
    std::vector<Course> m_courses;
    std::mt19937_64 m_random; // seeded with the capacity, so that an exploration can be repeated
};

void exploreInOrder(const Scenario& scenario, const ExploreOptions& options, Exploration& exploration)
{
    exploration.isComplete = true;
    for (std::vector<Course> courses(1); !courses.empty();)
    {
        NextCourses next(options.maxSchedules - std::min(options.maxSchedules, exploration.schedules + courses.size()));
        for (const Course& course : courses)
        {
            DepartingStrategy strategy(course.departures);
            ++exploration.schedules;
            exploration.failure = runSchedule(scenario, strategy, exploration, options.maxSteps);
            if (exploration.failure.empty())
            {
                strategy.expectAllDeparted();
                exploration.failure = strategy.mismatch();
            }
            if (!exploration.failure.empty())
            {
                exploration.schedule = strategy.text();
                exploration.isComplete = false;
                return;
            }
            next.addFrom(course, strategy.choices(), options.preemptions);
        }
        exploration.isComplete = exploration.isComplete && next.hasAll();
        courses = next.take();
    }
}

void exploreAtRandom(const Scenario& scenario, const ExploreOptions& options, std::uint64_t seed,
                     std::uint64_t maxSchedules, Exploration& exploration)
{
    constexpr std::uint64_t FIRST_EXPECTED_STEPS = 100; // a guess: no schedule has run yet
    std::mt19937_64 seeds(seed);
    std::uint64_t expectedSteps = FIRST_EXPECTED_STEPS;
    while (exploration.schedules != maxSchedules && exploration.failure.empty())
    {
        RandomStrategy strategy(seeds(), expectedSteps, options.priorityChanges);
        ++exploration.schedules;
        exploration.failure = runSchedule(scenario, strategy, exploration, options.maxSteps);
        exploration.schedule = exploration.failure.empty() ? "" : strategy.text();
        expectedSteps = std::max<std::uint64_t>(Scheduler::instance().stepsOfSchedule(), 1);
    }
}

Exploration warmUp(const Scenario& scenario, const ExploreOptions& options)
{
    constexpr std::uint64_t SEED = 0;
    Exploration exploration{.way = "of the warm-up"};
    exploreAtRandom(scenario, options, SEED, options.warmUps, exploration);
    return exploration;
}

} // namespace

Exploration explore(const Scenario& scenario, const ExploreOptions& options)
{
    if (Exploration warm = warmUp(scenario, options); !warm.failure.empty())
    {
        return withReport(std::move(warm));
    }
    Exploration exploration;
    if (options.seed)
    {
        exploration.way = "at random from seed " + std::to_string(*options.seed);
        exploreAtRandom(scenario, options, *options.seed, options.maxSchedules, exploration);
    }
    else
    {
        exploration.way = "in order";
        exploreInOrder(scenario, options, exploration);
    }
    return withReport(std::move(exploration));
}

Exploration replay(std::string_view schedule, const Scenario& scenario, const ExploreOptions& options)
{
    ReplayStrategy strategy(schedule);
    if (strategy.mismatch().empty())
    {
        if (Exploration warm = warmUp(scenario, options); !warm.failure.empty())
        {
            return withReport(std::move(warm));
        }
    }
    Exploration exploration{.schedules = 1, .way = "of a replay", .schedule = std::string(schedule)};
    if (strategy.mismatch().empty())
    {
        exploration.failure = runSchedule(scenario, strategy, exploration, options.maxSteps);
        strategy.expectAllUsed();
    }
    if (!strategy.mismatch().empty())
    {
        exploration.failure = strategy.mismatch();
    }
    return withReport(std::move(exploration));
}

void check(bool holds, const std::string& what)
{
    if (!holds)
    {
        failSchedule("not so: " + what);
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
