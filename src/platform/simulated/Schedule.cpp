#include "platform/simulated/Schedule.h"

#include "platform/Process.h"
#include "platform/Sync.h"
#include "platform/Threads.h"
#include "platform/simulated/Scheduler.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <utility>

namespace platform::simulated
{

namespace
{

/// Keeps where the schedule leaves the choice that is made without a reason.
class Recording : public Strategy
{
public:
    std::size_t choose(const Options& options) final
    {
        const std::size_t chosen = pick(options);
        if (chosen != 0)
        {
            m_text += (m_text.empty() ? "" : " ") + std::to_string(m_numChoices) + ":" +
                      std::to_string(options.threads[chosen]);
        }
        ++m_numChoices;
        return chosen;
    }

    [[nodiscard]] const std::string& text() const { return m_text; }
    /// Why the schedule is not what it was to be; empty if it is.
    [[nodiscard]] const std::string& mismatch() const { return m_mismatch; }

protected:
    virtual std::size_t pick(const Options& options) = 0;

    void restart()
    {
        m_numChoices = 0;
        m_text.clear();
    }
    [[nodiscard]] std::uint64_t numChoices() const { return m_numChoices; }
    void setMismatch(std::string text) { m_mismatch = std::move(text); }

private:
    std::uint64_t m_numChoices = 0;
    std::string m_text;
    std::string m_mismatch;
};

/// All schedules within a bound, one after the other.
class DepthFirst final : public Recording
{
public:
    explicit DepthFirst(std::uint32_t bound) : m_bound(bound) {}

    /// Turns to the next one. False: there is none.
    bool next()
    {
        restart();
        while (!m_path.empty())
        {
            Node& last = m_path.back();
            m_cost -= last.cost();
            ++last.chosen;
            if (last.chosen < last.numOptions && m_cost + last.cost() <= m_bound)
            {
                m_cost += last.cost();
                return true;
            }
            m_path.pop_back();
        }
        return false;
    }

    /// Whether the schedule is none of a lower bound.
    [[nodiscard]] bool usesAll() const { return m_cost == m_bound; }

private:
    struct Node
    {
        std::size_t numOptions;
        std::size_t firstCostly;
        std::size_t chosen = 0;

        [[nodiscard]] std::uint32_t cost() const { return chosen >= firstCostly ? 1 : 0; }
    };

    std::size_t pick(const Options& options) override
    {
        if (numChoices() == m_path.size())
        {
            m_path.push_back({.numOptions = options.threads.size(), .firstCostly = options.firstCostly});
        }
        const Node& node = m_path[numChoices()];
        if (node.numOptions != options.threads.size() || node.firstCostly != options.firstCostly)
        {
            setMismatch("the scenario is not the same in every schedule");
        }
        return std::min(node.chosen, options.threads.size() - 1);
    }

    const std::uint32_t m_bound;
    std::uint32_t m_cost = 0; // of the path
    std::vector<Node> m_path;
};

class AtRandom final : public Recording
{
public:
    AtRandom(std::uint64_t seed, std::uint64_t usualSteps, std::uint32_t numChanges) : m_random(seed)
    {
        while (numChanges-- != 0)
        {
            m_changes.push_back(1 + m_random() % usualSteps);
        }
        std::ranges::sort(m_changes, std::greater<>());
    }

private:
    std::size_t pick(const Options& options) override
    {
        if (options.rester)
        {
            m_priorities[*options.rester] = --m_lowest;
        }
        std::size_t chosen = highest(options);
        while (!m_changes.empty() && options.step >= m_changes.back())
        {
            m_changes.pop_back();
            m_priorities[options.threads[chosen]] = --m_lowest;
            chosen = highest(options);
        }
        return chosen;
    }

    std::size_t highest(const Options& options)
    {
        const auto priority = [this](int thread) {
            return m_priorities.try_emplace(thread, static_cast<std::int64_t>(m_random() >> 1U)).first->second;
        };
        return static_cast<std::size_t>(std::ranges::max_element(options.threads, {}, priority) -
                                        options.threads.begin());
    }

    std::mt19937_64 m_random;
    std::vector<std::uint64_t> m_changes;       // at which steps, the next one last
    std::map<int, std::int64_t> m_priorities{}; // of the threads
    std::int64_t m_lowest = 0;
};

class Repeating final : public Recording
{
public:
    explicit Repeating(std::string_view text)
    {
        while (!text.empty())
        {
            std::uint64_t choice = 0;
            int thread = 0;
            const char* const end = text.data() + text.size();
            const auto [colon, error] = std::from_chars(text.data(), end, choice);
            if (error != std::errc() || colon == end || *colon != ':')
            {
                setMismatch("not a schedule: " + std::string(text));
                return;
            }
            const auto [rest, threadError] = std::from_chars(colon + 1, end, thread);
            if (threadError != std::errc() || (rest != end && *rest != ' '))
            {
                setMismatch("not a schedule: " + std::string(text));
                return;
            }
            m_threads[choice] = thread;
            text.remove_prefix(static_cast<std::size_t>(rest - text.data()) + (rest != end ? 1 : 0));
        }
    }

    void expectAllUsed()
    {
        if (!m_threads.empty() && mismatch().empty())
        {
            setMismatch("the schedule does not fit: the scenario makes fewer choices");
        }
    }

private:
    std::size_t pick(const Options& options) override
    {
        const auto entry = m_threads.extract(numChoices());
        if (entry.empty())
        {
            return 0;
        }
        const auto chosen = std::ranges::find(options.threads, entry.mapped());
        if (chosen == options.threads.end())
        {
            setMismatch("the schedule does not fit: thread " + std::to_string(entry.mapped()) +
                        " cannot go on at choice " + std::to_string(numChoices()));
            return 0;
        }
        return static_cast<std::size_t>(chosen - options.threads.begin());
    }

    std::map<std::uint64_t, int> m_threads; // by the number of the choice
};

/// The body of a schedule's first thread.
void runScenario(void* argument)
{
    Scheduler::instance().setOwnName("scenario");
    try
    {
        (*static_cast<const Scenario*>(argument))();
    }
    catch (const std::exception& exception)
    {
        Scheduler::instance().fail(std::string("exception: ") + exception.what());
    }
}

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
        Scheduler::instance().fail("the process was to end");
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
    if (startThread(runScenario, const_cast<Scenario*>(&scenario)) != ErrorNumber::Success)
    {
        return "the system starts no more threads";
    }
    const std::string failure = Scheduler::instance().waitForEnd(strategy).value_or("");
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
            exploration.schedules += strategy.usesAll() ? 1U : 0U;
            if (!exploration.failure.empty())
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
        Scheduler::instance().setOwnName(start.named.name);
        start.named.work();
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

std::int64_t now() { return Scheduler::instance().now(); }

void advance(std::int64_t durationNs) { Scheduler::instance().advance(durationNs); }

} // namespace platform::simulated
