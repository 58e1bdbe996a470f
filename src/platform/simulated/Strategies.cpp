#include "platform/simulated/Strategies.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <utility>

namespace platform::simulated
{

namespace
{

constexpr const char* NOT_THE_SAME = "the scenario is not the same in every schedule";

} // namespace

std::size_t RecordingStrategy::choose(const Options& options)
{
    const std::size_t chosen = pick(options);
    if (chosen != 0)
    {
        m_text +=
            (m_text.empty() ? "" : " ") + std::to_string(m_numChoices) + ":" + std::to_string(options.threads[chosen]);
    }
    ++m_numChoices;
    return chosen;
}

void RecordingStrategy::setMismatch(std::string text) { m_mismatch = std::move(text); }

std::size_t DepartingStrategy::pick(const Options& options)
{
    constexpr std::uint64_t FACTOR = 0x9E37'79B9'7F4A'7C15; // 2^64 / golden ratio: Knuth's multiplicative hashing
    for (const int thread : options.threads)
    {
        m_history = (m_history + static_cast<std::uint64_t>(thread) + 1) * FACTOR;
    }
    m_history = (m_history + options.firstPreemption) * FACTOR;
    m_choices.push_back(
        {.numOptions = options.threads.size(), .firstPreemption = options.firstPreemption, .history = m_history});
    if (m_numDeparted == m_departures.size() || m_departures[m_numDeparted].choice != numChoices())
    {
        return 0;
    }
    const Departure& departure = m_departures[m_numDeparted++];
    if (departure.history != m_history)
    {
        setMismatch(NOT_THE_SAME);
        return 0;
    }
    return departure.option;
}

void DepartingStrategy::expectAllDeparted()
{
    if (m_numDeparted != m_departures.size() && mismatch().empty())
    {
        setMismatch(NOT_THE_SAME);
    }
}

RandomStrategy::RandomStrategy(std::uint64_t seed, std::uint64_t expectedSteps, std::uint32_t numChanges)
    : m_random(seed)
{
    while (numChanges-- != 0)
    {
        m_changes.push_back(1 + m_random() % expectedSteps);
    }
    std::ranges::sort(m_changes, std::greater<>());
}

std::size_t RandomStrategy::pick(const Options& options)
{
    if (options.resting)
    {
        m_priorities[*options.resting] = --m_lowest;
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

std::size_t RandomStrategy::highest(const Options& options)
{
    const auto priority = [this](int thread) {
        return m_priorities.try_emplace(thread, static_cast<std::int64_t>(m_random() >> 1U)).first->second;
    };
    return static_cast<std::size_t>(std::ranges::max_element(options.threads, {}, priority) - options.threads.begin());
}

ReplayStrategy::ReplayStrategy(std::string_view text)
{
    while (!text.empty())
    {
        std::uint64_t choice = 0;
        int thread = 0;
        const char* const end = text.data() + text.size();
        const auto [colon, error] = std::from_chars(text.data(), end, choice);
        const bool hasThread = error == std::errc() && colon != end && *colon == ':';
        const auto [rest, threadError] = std::from_chars(hasThread ? colon + 1 : end, end, thread);
        if (threadError != std::errc() || (rest != end && *rest != ' '))
        {
            setMismatch("not a schedule: " + std::string(text));
            return;
        }
        m_threads[choice] = thread;
        text.remove_prefix(static_cast<std::size_t>(rest - text.data()) + (rest != end ? 1 : 0));
    }
}

void ReplayStrategy::expectAllUsed()
{
    if (!m_threads.empty() && mismatch().empty())
    {
        setMismatch("the schedule does not fit: the scenario makes fewer choices");
    }
}

std::size_t ReplayStrategy::pick(const Options& options)
{
    const auto entry = m_threads.extract(numChoices());
    if (entry.empty())
    {
        return 0;
    }
    const auto chosen = std::ranges::find(options.threads, entry.mapped());
    if (chosen == options.threads.end())
    {
        setMismatch("the schedule does not fit: thread " + std::to_string(entry.mapped()) + " cannot go on at choice " +
                    std::to_string(numChoices()));
        return 0;
    }
    return static_cast<std::size_t>(chosen - options.threads.begin());
}

} // namespace platform::simulated
