#pragma once

// Runs a scenario under many schedules, finds one that goes wrong, and repeats it.
//
//     const Exploration found = explore([] {
//         Account account;                                     // made afresh in every schedule
//         runTogether({{"payer", [&] { account.pay(); }}, {"taker", [&] { account.take(); }}});
//         check(account.isBalanced(), "the account is balanced");
//     });
//     EXPECT_EQ("", found.failure) << found.schedule;          // replay(found.schedule, scenario) does it again
//
// A schedule is over when all threads that the scenario has started have ended. It goes wrong when
//   - it is deadlocked: each of its threads waits without a limit. So do all other threads, or they have not freed one
//     within 1,000 moves of the time. The report says what each thread waits for;
//   - it has more switch points than maxSteps;
//   - check fails, the scenario throws, or something ends the process. If that is a signal, the schedule is printed to
//     standard error before.
//
// Threads that exist before the first schedule are services: they may run for ever, and a schedule begins when all of
// them rest. So make process-wide services first, and everything else in the scenario. Then every schedule begins with
// the same state, on a whole second of virtual time and at the same moment of UTC. Waits of services that have a limit
// begin afresh.
//
// The schedules are sequentially consistent: all threads see the effect of an operation at once. The thread sanitizer
// has to find what goes wrong only under weaker memory orders. A wait with a limit ends late only when no thread can
// run, or when the scenario moves the time (advance).
//
// Only one thread may call explore or replay at a time. After a failure the threads of that schedule stand still for
// ever and keep what they hold: the process should report and end.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform::simulated
{

/// Which schedules are run.
struct ExploreOptions
{
    /// The maximum number of preemptions in a schedule: choices that pass over a thread which could go on. The usual
    /// course has none; schedules that depart from it at fewer places are run first.
    std::uint32_t preemptions = 2;
    /// If there are more, those with the most departures are a uniform random sample. Each takes about 100 bytes.
    std::uint64_t maxSchedules = 1'000'000;
    std::uint64_t maxSteps = 100'000; ///< switch points of one schedule
    /// Runs maxSchedules random schedules instead: each thread has a priority, and of those that can run the one with
    /// the highest does. The same seed gives the same schedules. Source: Burckhardt et al., "A Randomized Scheduler
    /// with Probabilistic Guarantees of Finding Bugs".
    std::optional<std::uint64_t> seed{};
    std::uint32_t priorityChanges = 3; ///< how many priorities change in a random schedule
    /// Random schedules, always the same ones, that run before those that are counted. They bring what the library
    /// keeps from one schedule to the next, such as a place for each thread, to its full size.
    std::uint32_t warmUps = 0;
};

/// What explore and replay have found.
struct Exploration
{
    std::uint64_t schedules = 0; ///< how many were run; only random ones may have been the same
    std::string way{};           ///< "in order", "at random from seed 7", "of the warm-up" or "of a replay"
    bool isComplete = false;     ///< there are no others within the bound on preemptions
    std::string failure{};       ///< what went wrong; empty if nothing did
    std::string schedule{}; ///< the schedule that failed: "17:2 40:1" means that at choice 17 thread 2 went on, ...
};

using Scenario = std::function<void()>;

/// Runs schedules until one goes wrong, and then prints to standard error what went wrong, in which schedule, and after
/// how many.
Exploration explore(const Scenario& scenario, const ExploreOptions& options = {});

/// Runs the warm-ups and then one schedule; the options must be those that explore had. A text that does not fit the
/// scenario is a failure, too.
Exploration replay(std::string_view schedule, const Scenario& scenario, const ExploreOptions& options = {});

// For scenarios.

/// Unless the statement `what` holds, fails the schedule and does not return; outside of schedules ends the process.
void check(bool holds, const std::string& what);

/// What one thread of a scenario does.
struct NamedWork
{
    std::string name; ///< what reports call its thread
    std::function<void()> work;
};

/// Runs each work in a thread of its own, and returns when all are done.
void runTogether(const std::vector<NamedWork>& works);

/// Sets what reports call the calling thread. A thread without a name is called "thread" with its number.
void nameThread(std::string name);

/// Virtual time in ns; does not move it.
[[nodiscard]] std::int64_t now();
/// Moves the virtual time on. Threads whose deadlines have passed then can run.
void advance(std::int64_t durationNs);

} // namespace platform::simulated
