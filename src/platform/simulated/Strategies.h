#pragma once

// The strategies that choose which thread goes on in a schedule. In the usual course a thread goes on until it waits or
// rests: the first of the options is taken at each choice. Taking another option is a departure. The text of a schedule
// lists its departures:
//
//     choice     0  1  2  3  4  5
//     usual      1  1  2  1  1  3     the thread that goes on in the usual course
//     taken      1  1  2  1  3  3     the text is "4:3": at choice 4, counted from 0, thread 3 goes on instead

#include "platform/simulated/Scheduler.h"

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace platform::simulated
{

/// Records the departures of the schedule, whichever strategy derives from it.
class RecordingStrategy : public Strategy
{
public:
    std::size_t choose(const Options& options) final;

    [[nodiscard]] const std::string& text() const final { return m_text; }
    /// Why the schedule could not be run as intended; empty if it could.
    [[nodiscard]] const std::string& mismatch() const { return m_mismatch; }

protected:
    virtual std::size_t pick(const Options& options) = 0;

    void setMismatch(std::string text);
    [[nodiscard]] std::uint64_t numChoices() const { return m_numChoices; }

private:
    std::uint64_t m_numChoices = 0;
    std::string m_text;
    std::string m_mismatch;
};

/// Departs from the usual course at given choices, and records the options of every choice.
class DepartingStrategy final : public RecordingStrategy
{
public:
    struct Departure
    {
        std::uint64_t choice;  ///< counted from 0
        std::size_t option;    ///< the place in Options::threads, never 0
        std::uint64_t history; ///< the choice's history in the schedule from which the departure was derived
    };
    struct Choice
    {
        std::size_t numOptions;
        std::size_t firstPreemption;
        std::uint64_t history; ///< a hash of all options up to this choice
    };

    /// The departures are in the order of their choices, and must outlive this object.
    explicit DepartingStrategy(const std::vector<Departure>& departures) : m_departures(departures) {}

    [[nodiscard]] const std::vector<Choice>& choices() const { return m_choices; }

    /// Called at the end of the schedule: a departure that was not reached is a mismatch.
    void expectAllDeparted();

private:
    std::size_t pick(const Options& options) override;

    const std::vector<Departure>& m_departures;
    std::size_t m_numDeparted = 0;
    std::uint64_t m_history = 0;
    std::vector<Choice> m_choices;
};

/// Gives each thread a random priority; the highest one goes on. At numChanges random steps the thread that would go on
/// gets the lowest priority of all, and so does a thread that rests.
class RandomStrategy final : public RecordingStrategy
{
public:
    /// The steps of the changes are among the first expectedSteps, which is at least 1.
    RandomStrategy(std::uint64_t seed, std::uint64_t expectedSteps, std::uint32_t numChanges);

private:
    std::size_t pick(const Options& options) override;
    std::size_t highest(const Options& options);

    std::mt19937_64 m_random;
    std::vector<std::uint64_t> m_changes;       // steps, in descending order
    std::map<int, std::int64_t> m_priorities{}; // by the number of the thread
    std::int64_t m_lowest = 0;
};

/// Repeats the schedule that a text of RecordingStrategy describes.
class ReplayStrategy final : public RecordingStrategy
{
public:
    /// A text that does not describe a schedule is a mismatch.
    explicit ReplayStrategy(std::string_view text);

    /// Called at the end of the schedule: a departure that was not reached is a mismatch.
    void expectAllUsed();

private:
    std::size_t pick(const Options& options) override;

    std::map<std::uint64_t, int> m_threads; // the departures that are left: threads by choices
};

} // namespace platform::simulated
