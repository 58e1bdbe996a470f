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
// A schedule is over when every thread has ended that the scenario has started. It goes wrong when
//   - nothing can free its threads: each waits without a limit, and no other thread has work or, in a thousand moves
//     of time, has freed one (a deadlock: each thread is told with what it waits for);
//   - it makes more switch points than its budget;
//   - check fails, the scenario throws, or something ends the process. What a signal ends cannot be gone on with: its
//     schedule is told on standard error before.
//
// Threads that are there before the first schedule are services: they may run for ever, and the scenario has them as
// they are when they rest. So make process-wide services first, and start everything else in the scenario: every
// schedule then begins with the same state, on a whole second of virtual time and at one moment of UTC. Waits of
// services that have a limit begin afresh.
//
// Sequential consistency is what is explored: each operation is noticed by all threads at once. What goes wrong only
// under weaker orders is the thread sanitizer's to find. A wait with a limit ends late only when no thread can run, or
// when the scenario moves the time (advance).
//
// explore and replay are for one thread at a time. After a failure the threads of that schedule stand still for ever,
// with what they hold: the process should report and end.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform::simulated
{

struct ExploreOptions
{
    /// How often a thread that could go on is left for another, at most. Schedules that leave the usual course, in
    /// which a thread goes on until it waits, at fewer places come first.
    std::uint32_t preemptions = 2;
    /// Where there are more, those with the most departures are a part in which each is as likely as another. About 100
    /// bytes are taken for each.
    std::uint64_t maxSchedules = 1'000'000;
    std::uint64_t maxSteps = 100'000; ///< switch points of one schedule
    /// At random instead, maxSchedules of them: each thread has a priority, and the highest that can run does. The same
    /// seed gives the same schedules. Source: Burckhardt et al., "A Randomized Scheduler with Probabilistic Guarantees
    /// of Finding Bugs".
    std::optional<std::uint64_t> seed{};
    std::uint32_t priorityChanges = 3; ///< at random: in one schedule
    /// Schedules at random before the first one that is counted, always the same ones. For what the library keeps from
    /// one schedule to the next, such as a place for each thread that there ever was at one time: it has grown then.
    std::uint32_t warmUps = 0;
};

struct Exploration
{
    std::uint64_t schedules = 0; ///< that were seen, no two the same unless they were made at random
    std::string way{};           ///< how: "in order", "at random from seed 7", "of the warm-up", "of a replay"
    bool isComplete = false;     ///< these were all within the bound
    std::string failure{};       ///< what went wrong; empty if nothing did
    std::string schedule{};      ///< of the failure: "17:2 40:1", at the 17th choice thread 2 went on, ...
};

using Scenario = std::function<void()>;

/// Ends with the first schedule that goes wrong, and then tells on standard error what went wrong, in which schedule,
/// and after how many.
Exploration explore(const Scenario& scenario, const ExploreOptions& options = {});

/// Runs one schedule, after the warm-ups; give the options that explore had. A text that does not fit the scenario is a
/// failure too.
Exploration replay(std::string_view schedule, const Scenario& scenario, const ExploreOptions& options = {});

// For scenarios.

/// The schedule goes wrong here unless that is so; does not return then. Outside of schedules it ends the process.
void check(bool isSo, const std::string& what);

struct NamedWork
{
    std::string name; ///< of the thread, for reports
    std::function<void()> work;
};

/// Runs each in a thread of its own; returns when all are done.
void runTogether(const std::vector<NamedWork>& works);

/// What reports call the calling thread; otherwise "thread" and its number, in the order in which they were started.
void nameThread(std::string name);

/// Virtual time in ns; does not move it.
[[nodiscard]] std::int64_t now();
/// Moves it on. Whoever waits until a moment that has passed then can run.
void advance(std::int64_t durationNs);

} // namespace platform::simulated
