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

/// The schedule goes wrong here; outside of schedules the process ends.
[[noreturn]] void goWrong(const std::string& failure)
{
    Scheduler::instance().fail(failure);
    static_cast<void>(std::fprintf(stderr, "outside of schedules, %s\n", failure.c_str()));
    std::abort();
}

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
    catch (...)
    {
        failure = "an exception that is no std::exception";
    }
    if (!failure.empty())
    {
        goWrong(failure);
    }
}

void runScenario(void* scenario) { runThread("scenario", *static_cast<const Scenario*>(scenario)); }

/// The end of the process is a failure of the schedule.
class ScopedEnd
{
public:
    ScopedEnd() : m_replaced(std::exchange(processCalls.endProcess.current, endSchedule)) { s_replaced = m_replaced; }
    ScopedEnd(const ScopedEnd&) = delete;
    ScopedEnd& operator=(const ScopedEnd&) = delete;
    ~ScopedEnd() { processCalls.endProcess.current = m_replaced; }

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

void tell(const Exploration& exploration, const std::string& failure, const std::string& schedule)
{
    static_cast<void>(std::fprintf(stderr, "schedule %llu %s: %s\nto replay: \"%s\"\n",
                                   static_cast<unsigned long long>(exploration.schedules), exploration.way.c_str(),
                                   failure.c_str(), schedule.c_str()));
}

/// Tells the schedule when a signal is about to end the process, and of a fault also where it is.
class ScopedCrashReport
{
public:
    ScopedCrashReport(const Recording& strategy, const Exploration& exploration)
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
    ~ScopedCrashReport() { putBack(); }

private:
    static constexpr int MAX_FRAMES = 64;
    static constexpr std::array SIGNALS = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV};

    /// On the thread that has the turn, so that the schedule's text does not change meanwhile.
    static void report(int signal, siginfo_t* info, void* /*context*/)
    {
        putBack(); // the fault comes again when this returns, and abort goes on to end the process
        tell(*s_exploration, "signal " + std::to_string(signal) + " ends the process", s_strategy->text());
        if (signal != SIGABRT)
        {
            static_cast<void>(std::fprintf(stderr, "the fault is at address %p\n", info->si_addr));
            std::array<void*, MAX_FRAMES> frames{};
            backtrace_symbols_fd(frames.data(), backtrace(frames.data(), MAX_FRAMES), STDERR_FILENO);
        }
    }

    static void putBack()
    {
        for (std::size_t index = 0; index < SIGNALS.size(); ++index)
        {
            sigaction(SIGNALS[index], &s_previous[index], nullptr);
        }
    }

    static constinit inline const Recording* s_strategy = nullptr;
    static constinit inline const Exploration* s_exploration = nullptr;
    static inline std::array<struct sigaction, SIGNALS.size()> s_previous{};
};

/// Returns what went wrong; empty if nothing did. The schedule counts among those of the exploration already.
std::string runSchedule(const Scenario& scenario, Recording& strategy, const Exploration& exploration,
                        std::uint64_t maxSteps)
{
    const ScopedEnd end;
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

/// The last step of each exploration.
Exploration reported(Exploration exploration)
{
    if (!exploration.failure.empty())
    {
        tell(exploration, exploration.failure, exploration.schedule);
    }
    return exploration;
}

/// A schedule by where it leaves the usual course.
struct Course
{
    std::vector<Departing::Departure> departures{};
    std::uint32_t preemptions = 0; // of these departures
};

/// The courses with one departure more than those that were run. Of more than there is room for it keeps a part in
/// which each is as likely as another.
class NextCourses
{
public:
    explicit NextCourses(std::uint64_t most) : m_most(most), m_random(most) {}

    /// All that depart later than the course, which was run with these choices.
    void addFrom(const Course& course, const std::vector<Departing::Choice>& choices, std::uint32_t mostPreemptions)
    {
        for (std::uint64_t choice = course.departures.empty() ? 0 : course.departures.back().choice + 1;
             choice < choices.size(); ++choice)
        {
            const auto [numOptions, firstCostly, history] = choices[choice];
            const bool mayPreempt = course.preemptions < mostPreemptions;
            for (std::size_t option = 1; option < (mayPreempt ? numOptions : firstCostly); ++option)
            {
                if (Course* const place = placeForOneMore(); place != nullptr)
                {
                    *place = course;
                    place->departures.push_back({choice, option, history});
                    place->preemptions += option >= firstCostly ? 1 : 0;
                }
            }
        }
    }

    [[nodiscard]] bool areAll() const { return m_seen == m_courses.size(); }
    [[nodiscard]] std::vector<Course> take() { return std::move(m_courses); }

private:
    /// Null: it is left out. Source: Vitter, "Random Sampling with a Reservoir", algorithm R.
    Course* placeForOneMore()
    {
        ++m_seen;
        if (m_courses.size() < m_most)
        {
            return &m_courses.emplace_back();
        }
        const std::uint64_t place = m_random() % m_seen;
        return place < m_most ? &m_courses[place] : nullptr;
    }

    const std::uint64_t m_most;
    std::uint64_t m_seen = 0;
    std::vector<Course> m_courses;
    std::mt19937_64 m_random; // the same for the same number
};

void exploreInOrder(const Scenario& scenario, const ExploreOptions& options, Exploration& exploration)
{
    exploration.isComplete = true;
    for (std::vector<Course> courses(1); !courses.empty();)
    {
        NextCourses next(options.maxSchedules - std::min(options.maxSchedules, exploration.schedules + courses.size()));
        for (const Course& course : courses)
        {
            Departing strategy(course.departures);
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
        exploration.isComplete = exploration.isComplete && next.areAll();
        courses = next.take();
    }
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
        ++exploration.schedules;
        exploration.failure = runSchedule(scenario, strategy, exploration, options.maxSteps);
        exploration.schedule = exploration.failure.empty() ? "" : strategy.text();
        usualSteps = std::max<std::uint64_t>(Scheduler::instance().stepsOfSchedule(), 1);
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
        return reported(std::move(warm));
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
    return reported(std::move(exploration));
}

Exploration replay(std::string_view schedule, const Scenario& scenario, const ExploreOptions& options)
{
    Repeating strategy(schedule);
    if (strategy.mismatch().empty())
    {
        if (Exploration warm = warmUp(scenario, options); !warm.failure.empty())
        {
            return reported(std::move(warm));
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
    return reported(std::move(exploration));
}

void check(bool isSo, const std::string& what)
{
    if (!isSo)
    {
        goWrong("not so: " + what);
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
