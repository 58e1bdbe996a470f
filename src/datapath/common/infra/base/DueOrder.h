#pragma once

// Items ordered by their times, so that the items that are due can be taken from the front. Taking moves each item that
// is taken, and the header of each run that stays; finding that nothing is due takes constant time.
//
//     DueOrder<Timers::iterator> order;
//     order.insert({.timeMs = 1'500, .item = timer});
//     order.takeUntil(nowMs, taken);
//
// An item is a pointer or an iterator that stays valid while it is in the order. The owner locks.
//
//     runs:  [ 3 3 7 9 ]  [ 12 12 15 ]  [ 20 31 ]      sorted, each of 1 to RUN_LENGTH entries
//
// Two binary searches find an entry: one for the run, one in it. For thousands of timers this is faster than a tree:
// moving a piece of a run costs less than nodes that lie scattered in memory.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <vector>

template <class Item> class DueOrder
{
public:
    /// An item and the time at which it is due.
    struct Entry
    {
        std::uint64_t timeMs;
        Item item;

        /// Items with the same time are ordered by their addresses, so that a binary search finds each.
        friend bool operator<(const Entry& left, const Entry& right)
        {
            return left.timeMs != right.timeMs ? left.timeMs < right.timeMs : std::less<>()(&*left.item, &*right.item);
        }
    };

    [[nodiscard]] std::size_t size() const { return m_size; }

    /// The entry must not be in the order already. Throws std::bad_alloc, with nothing changed, if memory is lacking.
    void insert(const Entry& entry)
    {
        auto run = runOf(entry);
        if (run == m_runs.end())
        {
            run = m_runs.insert(run, emptyRun());
        }
        else if (run->size() == RUN_LENGTH)
        {
            run = split(run);
            run -= entry < run->front() ? 1 : 0;
        }
        run->insert(std::lower_bound(run->begin(), run->end(), entry), entry);
        ++m_size;
    }

    /// Returns false if the entry is not in the order.
    bool erase(const Entry& entry) noexcept
    {
        if (!contains(entry))
        {
            return false;
        }
        const auto run = runOf(entry);
        run->erase(std::lower_bound(run->begin(), run->end(), entry));
        --m_size;
        const auto next = std::next(run);
        if (run->empty())
        {
            m_runs.erase(run);
        }
        else if (next != m_runs.end() && run->size() + next->size() <= RUN_LENGTH / 2)
        {
            run->insert(run->end(), next->begin(), next->end()); // so that few entries do not keep many runs
            m_runs.erase(next);
        }
        return true;
    }

    [[nodiscard]] bool contains(const Entry& entry)
    {
        const auto run = runOf(entry);
        return run != m_runs.end() && std::binary_search(run->begin(), run->end(), entry);
    }

    /// Removes the items whose time is at most timeMs, and for each appends a Taken, made from the item, to taken.
    /// Throws std::bad_alloc, with nothing changed, if memory is lacking.
    template <class Taken> void takeUntil(std::uint64_t timeMs, std::vector<Taken>& taken)
    {
        std::size_t maxTaken = 0;
        auto end = m_runs.begin();
        for (; end != m_runs.end() && end->front().timeMs <= timeMs; ++end)
        {
            maxTaken += end->size();
        }
        if (maxTaken == 0)
        {
            return;
        }
        taken.reserve(taken.size() + maxTaken); // nothing below allocates
        const auto last = std::prev(end);
        const auto rest = std::partition_point(last->begin(), last->end(),
                                               [=](const Entry& entry) { return entry.timeMs <= timeMs; });
        for (auto run = m_runs.begin(); run != end; ++run)
        {
            for (auto entry = run->begin(); entry != (run == last ? rest : run->end()); ++entry)
            {
                taken.emplace_back(entry->item);
                --m_size;
            }
        }
        const bool isLastTaken = rest == last->end();
        last->erase(last->begin(), rest);
        m_runs.erase(m_runs.begin(), isLastTaken ? end : last);
    }

    /// Whether the runs are as the picture at the top shows them. For tests.
    [[nodiscard]] bool checkInvariants() const
    {
        std::vector<Entry> all;
        for (const Run& run : m_runs)
        {
            if (run.empty() || run.size() > RUN_LENGTH)
            {
                return false;
            }
            all.insert(all.end(), run.begin(), run.end());
        }
        const auto isUnordered = [](const Entry& left, const Entry& right) { return !(left < right); };
        return all.size() == m_size && std::adjacent_find(all.begin(), all.end(), isUnordered) == all.end();
    }

private:
    static constexpr std::size_t RUN_LENGTH = 128;

    using Run = std::vector<Entry>;

    [[nodiscard]] static Run emptyRun()
    {
        Run run;
        run.reserve(RUN_LENGTH);
        return run;
    }

    /// The run in which the entry is or to which it belongs: the last run that does not begin after it, else the first.
    [[nodiscard]] auto runOf(const Entry& entry)
    {
        const auto next = std::upper_bound(m_runs.begin(), m_runs.end(), entry,
                                           [](const Entry& left, const Run& right) { return left < right.front(); });
        return next == m_runs.begin() ? next : std::prev(next);
    }

    /// Moves the upper half of a full run into a new run and returns that.
    [[nodiscard]] auto split(typename std::vector<Run>::iterator run)
    {
        Run upper = emptyRun();
        upper.assign(run->begin() + RUN_LENGTH / 2, run->end());
        const auto added = m_runs.insert(std::next(run), std::move(upper));
        std::prev(added)->erase(std::prev(added)->begin() + RUN_LENGTH / 2, std::prev(added)->end());
        return added;
    }

    std::vector<Run> m_runs;
    std::size_t m_size = 0;
};
