#pragma once

// A watched queue with one first-in first-out list for each priority. Items of a higher priority are taken first.
//
//     PriorityQueue<Thing*> queue(2, "Things", false);
//     queue.enqueue(thing, 1);
//     while (const auto taken = queue.dequeue()) ...                    // taken->item, taken->priority
//
// The owner locks every call but itemCount, which any thread may make at any time. Items that are pointers do not own
// what they point to.

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
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

template <class T> class PriorityQueue final : public MemWatchedContainer
{
public:
    /// What dequeue returns.
    struct Taken
    {
        T item;
        std::uint32_t priority; ///< the one at which the item was queued
    };

    /// Priorities go from 0 to numPriorities - 1. With printStats, watermarks are logged at most once in
    /// printIntervalMs().
    /// An owner that keeps items elsewhere before it enqueues them passes numArrived, a count of all items that have
    /// ever arrived, so that reports show those items, too. An item is counted there before it is enqueued. numArrived
    /// must outlive the queue.
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

    /// A priority out of range ends the process. If the Logger's hook prevents that, the item is dropped.
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
        increment(m_numEnqueued);
        m_highestPriority = std::max(m_highestPriority, priority);
        queue.highWatermark = std::max<std::uint64_t>(queue.highWatermark, queue.items.size());
    }

    /// Removes and returns the oldest item of the highest priority; nothing if the queue is empty.
    [[nodiscard]] std::optional<Taken> dequeue()
    {
        if (empty())
        {
            m_highestPriority = 0;
            return std::nullopt;
        }
        while (m_queues[m_highestPriority].items.empty())
        {
            --m_highestPriority;
        }
        Queue& queue = m_queues[m_highestPriority];
        std::optional<Taken> taken(Taken{std::move(queue.items.front()), m_highestPriority});
        queue.items.pop_front();
        increment(m_numTaken);
        queue.lowWatermark = std::min<std::uint64_t>(queue.lowWatermark, queue.items.size());
        printStatsIfNeeded();
        return taken;
    }

    [[nodiscard]] std::uint64_t size() const
    {
        return m_numEnqueued.load(std::memory_order_relaxed) - m_numTaken.load(std::memory_order_relaxed);
    }
    [[nodiscard]] bool empty() const { return size() == 0; }

    /// The number of items with that priority. A priority out of range ends the process.
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

    /// The bytes of the items with that priority; 0 for pointers, because what they point to is not known. A priority
    /// out of range ends the process.
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

    /// No item has a higher priority than this. Items with this one may have been taken already.
    [[nodiscard]] std::uint32_t highestPriority() const { return m_highestPriority; }

    /// Changes the name in the lines of watermarks. Reports of watched containers keep the first name.
    void setName(std::string name) { m_name = std::move(name); }

    /// The number of items that reports show: the exact number at some moment during the call.
    [[nodiscard]] std::uint64_t itemCount() const override
    {
        std::uint64_t numTaken = m_numTaken.load(std::memory_order_acquire);
        while (true)
        {
            const std::uint64_t numArrived = m_numArrived.load(std::memory_order_acquire);
            const std::uint64_t numTakenBefore = std::exchange(numTaken, m_numTaken.load(std::memory_order_acquire));
            if (numTaken == numTakenBefore) // it only grows, so it had this value when numArrived was read
            {
                return numArrived - numTaken;
            }
        }
    }

    /// Whether the counts, the highest priority and the watermarks match the lists. For tests.
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
    /// The items of one priority.
    struct Queue
    {
        std::deque<T> items;
        std::uint64_t highWatermark = 0; // the largest number of items since watermarks were logged last
        std::uint64_t lowWatermark = 0;  // the smallest
    };

    static constexpr std::uint32_t ITEM_SIZE = sizeof(void*); // bytes that reports count for each item

    static std::uint32_t printIntervalMs()
    {
        constexpr std::uint32_t VERBOSE_INTERVAL_MS = 500;
        const std::int32_t intervalMs = Tweaks::instance().value(OLM_PRIORITY_QUEUE_PRINT_INTERVAL_MS);
        return DynamicTweaks::instance().t_IOVerboseLogs ? VERBOSE_INTERVAL_MS : static_cast<std::uint32_t>(intervalMs);
    }

    /// Not atomic as a whole: only threads with the owner's lock write.
    static void increment(platform::Atomic<std::uint64_t>& count)
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

    platform::Atomic<std::uint64_t> m_numEnqueued = 0;   // items that were ever enqueued
    platform::Atomic<std::uint64_t> m_numTaken = 0;      // items that were ever taken
    const platform::Atomic<std::uint64_t>& m_numArrived; // the owner's count, or m_numEnqueued
    std::vector<Queue> m_queues;                         // indexed by priority
    std::uint32_t m_highestPriority = 0;                 // every list above it is empty
    const bool m_printStats;
    const std::uint32_t m_printIntervalMs;
    std::int64_t m_lastPrintMs = 0;
    std::string m_name;
};
