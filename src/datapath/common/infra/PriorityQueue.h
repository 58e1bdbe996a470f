#pragma once

// A watched queue with one first-in first-out list for each priority; a higher number is taken earlier.
//
//     PriorityQueue<Thing*> queue(2, "Things", false);
//     queue.enqueue(thing, 1);
//     while (queue.dequeue(thing, priority)) ...
//
// The owner locks every call but itemCount, which any thread may make. What pointers in the queue point to stays the
// owner's. A list that goes up and down takes memory in blocks of many items and none for a single one.

#include "datapath/common/infra/Clock.h"
#include "datapath/common/infra/DynamicTweaks.h"
#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Tweaks.h"
#include "platform/Atomic.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

template <class T> class PriorityQueue final : public MemWatchedContainer
{
public:
    /// Priorities go from 0 to numPriorities - 1. With printStats, a line of watermarks is logged from time to time.
    /// Reports also show what the owner has not enqueued yet, if it counts all that has ever come where numArrived
    /// points: an item before it is enqueued.
    PriorityQueue(std::uint32_t numPriorities, std::string name, bool printStats,
                  const platform::Atomic<std::uint64_t>* numArrived = nullptr)
        : MemWatchedContainer(std::move(name), ITEM_SIZE, 0),
          m_numArrived(numArrived == nullptr ? m_numEnqueued : *numArrived), m_queues(numPriorities),
          m_printStats(printStats), m_printIntervalMs(printIntervalMs()), m_name(MemWatchedContainer::name())
    {
        MemWatchedContainerDatabase::instance().registerContainer(this);
    }
    PriorityQueue(const PriorityQueue&) = delete;
    PriorityQueue& operator=(const PriorityQueue&) = delete;
    ~PriorityQueue() override { MemWatchedContainerDatabase::instance().unregisterContainer(this); }

    /// A priority out of range ends the process; should the Logger's hook prevent that, the item is not queued.
    void enqueue(T item, std::uint32_t priority)
    {
        if (priority >= m_queues.size()) [[unlikely]]
        {
            static constexpr MethodText METHOD = MethodText::of("PriorityQueue<class ActiveObject::Action *>::enqueue");
            CheckFailure(LoggerId::NON, METHOD, SourcePlace::here(), "priority < m_queues.size()")
                << "priority too high"
                << " priority=" << priority << " "
                << " m_queues.size()=" << m_queues.size() << " " << std::endl;
            return;
        }
        printStatsIfNeeded();
        Queue& queue = m_queues[priority];
        queue.items.push_back(std::move(item));
        add1(m_numEnqueued);
        m_highestPriority = std::max(m_highestPriority, priority);
        queue.highWatermark = std::max<std::uint64_t>(queue.highWatermark, queue.items.size());
    }

    /// The oldest item of the highest priority that has any, and that priority. False, with both left as they were,
    /// if the queue is empty.
    [[nodiscard]] bool dequeue(T& item, std::uint32_t& priority)
    {
        if (empty())
        {
            m_highestPriority = 0;
            return false;
        }
        while (m_queues[m_highestPriority].items.empty())
        {
            --m_highestPriority;
        }
        Queue& queue = m_queues[m_highestPriority];
        item = std::move(queue.items.front());
        queue.items.pop_front();
        add1(m_numTaken);
        priority = m_highestPriority;
        queue.lowWatermark = std::min<std::uint64_t>(queue.lowWatermark, queue.items.size());
        printStatsIfNeeded();
        return true;
    }

    [[nodiscard]] std::uint64_t size() const
    {
        return m_numEnqueued.load(std::memory_order_relaxed) - m_numTaken.load(std::memory_order_relaxed);
    }
    [[nodiscard]] bool empty() const { return size() == 0; }

    /// Items of one priority. One out of range ends the process.
    [[nodiscard]] std::uint64_t size(std::uint32_t priority) const
    {
        if (priority >= m_queues.size()) [[unlikely]]
        {
            static constexpr MethodText METHOD = MethodText::of("PriorityQueue<class ActiveObject::Action *>::size");
            CheckFailure(LoggerId::NON, METHOD, SourcePlace::here(), "priority < m_queues.size()")
                << "invalid priority" << std::endl;
            return 0;
        }
        return m_queues[priority].items.size();
    }

    /// Bytes of the items of one priority; what pointers point to is not known, so theirs is 0. A priority out of
    /// range ends the process.
    [[nodiscard]] std::uint64_t sizeBytes(std::uint32_t priority) const
    {
        if (priority >= m_queues.size()) [[unlikely]]
        {
            static constexpr MethodText METHOD =
                MethodText::of("PriorityQueue<class ActiveObject::Action *>::sizeBytes");
            CheckFailure(LoggerId::NON, METHOD, SourcePlace::here(), "priority < m_queueStats.size()")
                << "invalid priority" << std::endl;
            return 0;
        }
        if constexpr (std::is_pointer_v<T>)
        {
            return 0;
        }
        else
        {
            return m_queues[priority].items.size() * sizeof(T);
        }
    }

    /// The highest priority that may have items, as of the last call.
    [[nodiscard]] std::uint32_t highestPriority() const { return m_highestPriority; }

    /// The name in the line of watermarks. The one that the queue is watched under stays.
    void setName(std::string name) { m_name = std::move(name); }

    /// What reports show: a number that was true at a moment during the call.
    [[nodiscard]] std::uint64_t itemCount() const override
    {
        std::uint64_t numTaken = m_numTaken.load(std::memory_order_acquire);
        while (true)
        {
            const std::uint64_t numArrived = m_numArrived.load(std::memory_order_acquire);
            const std::uint64_t numTakenBefore = std::exchange(numTaken, m_numTaken.load(std::memory_order_acquire));
            if (numTaken == numTakenBefore) // as it also was when the other was read
            {
                return numArrived - numTaken;
            }
        }
    }

    /// For tests: whether the counts, the mark and the watermarks fit the lists.
    [[nodiscard]] bool checkInvariants() const
    {
        std::uint64_t total = 0;
        bool isSound = m_queues.empty() || m_highestPriority < m_queues.size();
        for (std::size_t priority = 0; priority < m_queues.size(); ++priority)
        {
            const Queue& queue = m_queues[priority];
            const std::uint64_t count = queue.items.size();
            total += count;
            isSound = isSound && (count == 0 || priority <= m_highestPriority) && queue.lowWatermark <= count &&
                      count <= queue.highWatermark;
        }
        return isSound && total == size();
    }

private:
    /// What is queued with one priority.
    struct Queue
    {
        std::deque<T> items;
        std::uint64_t highWatermark = 0; // the most items since the last line
        std::uint64_t lowWatermark = 0;  // the fewest
    };

    static constexpr std::uint32_t ITEM_SIZE = sizeof(void*); // what reports count for each item

    static std::uint32_t printIntervalMs()
    {
        constexpr std::uint32_t VERBOSE_INTERVAL_MS = 500;
        const std::int32_t intervalMs = Tweaks::instance().value(OLM_PRIORITY_QUEUE_PRINT_INTERVAL_MS);
        return DynamicTweaks::instance().t_IOVerboseLogs ? VERBOSE_INTERVAL_MS : static_cast<std::uint32_t>(intervalMs);
    }

    /// The owner's lock makes this thread the only one that writes.
    static void add1(platform::Atomic<std::uint64_t>& count)
    {
        count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

    void printStatsIfNeeded()
    {
        if (m_printStats)
        {
            const std::int64_t nowMs = Clock::refreshedTimestampMs();
            if (nowMs - m_lastPrintMs >= m_printIntervalMs)
            {
                m_lastPrintMs = nowMs;
                printStats();
            }
        }
    }

    void printStats()
    {
        LogItem line(LoggerId::NON, LogLevel::Info, "PriorityQueue::printStatsIfNeeded");
        line << "(" << m_name << ")";
        for (auto priority = static_cast<std::uint32_t>(m_queues.size()); priority-- > 0;)
        {
            Queue& queue = m_queues[priority];
            const std::uint64_t count = queue.items.size();
            line << "Q" << priority << ":" << count << " (" << sizeBytes(priority) << " B WM-H" << queue.highWatermark
                 << " L" << queue.lowWatermark << ") ";
            queue.highWatermark = queue.lowWatermark = count;
        }
        line << std::endl;
    }

    platform::Atomic<std::uint64_t> m_numEnqueued = 0; // ever
    platform::Atomic<std::uint64_t> m_numTaken = 0;    // ever
    const platform::Atomic<std::uint64_t>& m_numArrived;
    std::vector<Queue> m_queues;         // by priority
    std::uint32_t m_highestPriority = 0; // above it every list is empty
    const bool m_printStats;
    const std::uint32_t m_printIntervalMs;
    std::int64_t m_lastPrintMs = 0;
    std::string m_name;
};
