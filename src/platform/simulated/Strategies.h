#pragma once

// The ways to choose who goes on in a schedule: with given departures from the usual course, at random, or as a text
// says.

#include "platform/simulated/Scheduler.h"

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace platform::simulated
{

/// Writes down where the schedule leaves the choice that is made without a reason.
class Recording : public Strategy
{
public:
    std::size_t choose(const Options& options) final;

    /// "17:2 40:1": at choice 17, counted from 0, thread 2 goes on, ...
    [[nodiscard]] const std::string& text() const final { return m_text; }
    /// Why the schedule is not what it was to be; empty if it is.
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

/// Leaves the usual course at given choices, and notes what there is to choose.
class Departing final : public Recording
{
public:
    struct Departure
    {
        std::uint64_t choice;  ///< its number
        std::size_t option;    ///< that is chosen, none of the first one
        std::uint64_t history; ///< of that choice in the schedule that the departure is from
    };
    struct Choice
    {
        std::size_t numOptions;
        std::size_t firstCostly;
        std::uint64_t history; ///< a hash of what there was to choose until here
    };

    /// In the order of their choices; they outlive this.
    explicit Departing(const std::vector<Departure>& departures) : m_departures(departures) {}

    [[nodiscard]] const std::vector<Choice>& choices() const { return m_choices; }

    /// For the end of the schedule: a departure that is left is a mismatch.
    void expectAllDeparted();

private:
    std::size_t pick(const Options& options) override;

    const std::vector<Departure>& m_departures;
    std::size_t m_numDeparted = 0;
    std::uint64_t m_history = 0;
    std::vector<Choice> m_choices;
};

/// Each thread has a priority, and the highest goes on. At numChanges steps, and where it rests, a thread's priority
/// becomes the lowest of all.
class AtRandom final : public Recording
{
public:
    /// The steps are among the first usualSteps, at least 1.
    AtRandom(std::uint64_t seed, std::uint64_t usualSteps, std::uint32_t numChanges);

private:
    std::size_t pick(const Options& options) override;
    std::size_t highest(const Options& options);

    std::mt19937_64 m_random;
    std::vector<std::uint64_t> m_changes;       // at which steps, the next one last
    std::map<int, std::int64_t> m_priorities{}; // of the threads
    std::int64_t m_lowest = 0;
};

/// What Recording has written down.
class Repeating final : public Recording
{
public:
    /// A text that is no schedule is a mismatch.
    explicit Repeating(std::string_view text);

    /// For the end of the schedule: what is left of the text is a mismatch.
    void expectAllUsed();

private:
    std::size_t pick(const Options& options) override;

    std::map<std::uint64_t, int> m_threads; // by the number of the choice
};

} // namespace platform::simulated
