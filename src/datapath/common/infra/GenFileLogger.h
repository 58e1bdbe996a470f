#pragma once

// Writes finished text into log files. In the synchronous mode, the default, the calling thread writes each text and
// hands it to the system at once. In the asynchronous mode the caller's bytes are copied into a queue, and a thread of
// the logger writes them.
//
//     GenFileLogger logger("C:\\logs\\app.log", 3);     // C:\logs\app.log.txt, at most 3 MiB wait in memory
//     logger.write(line.data(), length);
//
// When the queue has used up its budget, one notice goes to the file, and text is dropped until enough of the queue
// has been written. With guarded memory each queued text is a block of its own.
//
// Any thread may write. The logger never reports its own failures to the Logger: they go to standard output and
// standard error, and logging goes on. The destructor writes what is queued; no other thread may use the logger
// by then.
//
// States of the writer in the asynchronous mode:
//
//                    nothing is urgent                      1 ms later, the queue is empty
//      +---------+ ---------------------> +-----------+ ---------------------> +----------+
//      | Working |                        | Lingering |                        | Sleeping |
//      +---------+ <--------------------- +-----------+                        +----------+
//        ^     urgent text or a flush, or 1 ms later the queue is not empty         |
//        +--------------------------------------------------------------------------+
//                                     any text or flush
//
// While lines come in quick succession, a writer that lingers need not be woken for each of them, and it does not take
// the queue's lock for each. Before it waits, it has handed everything to the system, and the file ends where a text
// ends. A writer that flushes every line goes to sleep without lingering. Invariants, whenever m_queueMutex is free:
// - While the writer is Sleeping the queue is empty, but for a request to flush that had no memory for its waiter;
//   while it is Lingering nothing in the queue is urgent.
// - A thread other than the writer that changes the state to Working sets m_queueEvent once after that.

#include "datapath/common/infra/FlushRequests.h"
#include "datapath/common/infra/GuardedPtr.h"
#include "datapath/common/infra/HeapMemoryAllocationTracker.h"
#include "datapath/common/infra/LogFiles.h"
#include "datapath/common/infra/LogQueue.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Semaphore.h"
#include "datapath/common/infra/windows/ThreadWrapper.h"
#include "platform/Atomic.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

class GenFileLogger final : public ThreadWrapper
{
public:
    /// What setModes changes while the logger works.
    struct Modes
    {
        bool flushEveryLine = true;       ///< the synchronous mode
        bool asyncFlushEveryLine = false; ///< asynchronous mode: the writer flushes after every text
        bool compressOnRotate = false;    ///< see LogFiles::setCompressOnRotate
    };

    /// What a logger is made with.
    struct Settings
    {
        LogFiles::Settings files;
        std::uint32_t maxBytes = 0;         ///< budget of queued text, in bytes
        std::uint32_t resumeBytes = 0;      ///< a pause ends when no more than this is queued
        std::uint32_t flushMaxPeriodMs = 0; ///< longest wait for a flush; 0: no limit
        Modes modes{};
        std::string threadType = "class GenFileLogger"; ///< what the log calls the writer
    };

    /// The bytes of a budget of that many MiB: modulo 4096 MiB; for 4294967295 that number of bytes.
    [[nodiscard]] static std::uint32_t budgetBytes(std::uint32_t maxMemoryMiB);

    /// The settings that the tweaks give, in the synchronous mode.
    [[nodiscard]] static Settings tweakedSettings(const std::string& path, std::uint32_t maxMemoryMiB);

    /// Opens the live file and starts the writer, and returns when both are ready. Without an open file there is no
    /// writer, and nothing is ever written.
    explicit GenFileLogger(Settings settings);

    /// With the tweaked settings.
    GenFileLogger(const std::string& path, std::uint32_t maxMemoryMiB);

    ~GenFileLogger() override;

    /// Replaces the modes of the settings. Only before the first text, by the thread that has made the logger.
    void setModes(const Modes& modes) TAVRO_EXCLUDES(m_fileMutex);

    /// Writes or queues a text. Null data asks for a flush that nobody waits for. A text of 0 bytes is not queued.
    void write(const char* data, std::uint32_t length) TAVRO_EXCLUDES(m_fileMutex, m_queueMutex);

    /// Waits until everything queued so far is with the system, at most flushMaxPeriodMs. Returns false if that was too
    /// short: the flush is still done, and the wait of one later call ends at once in return. Also returns false if
    /// there is no memory for a request to flush. On the writer's own thread it writes the queue instead of waiting.
    [[nodiscard]] bool flush() TAVRO_EXCLUDES(m_fileMutex, m_queueMutex);

    /// Whether the live file could be opened at the start.
    [[nodiscard]] bool isOpen() const { return m_isOpen; }

    /// The path of the live file; empty if it could not be opened, or if there is no such file any more.
    [[nodiscard]] std::string liveFileName() const;

    [[nodiscard]] const Settings& settings() const { return m_settings; }

    [[nodiscard]] std::string getTypeName() const override { return m_settings.threadType; }

private:
    using Answer = HeapMemoryAllocationTracker::Answer;

    enum class WriterState
    {
        Working,
        Lingering,
        Sleeping
    };

    void run() override;

    [[nodiscard]] Answer enqueueText(std::string_view text, bool isLimited);
    [[nodiscard]] Answer enqueueBlock(std::string_view text, bool isLimited);
    void pauseForMemory();
    void enqueue(std::string_view text, Semaphore* waiter = nullptr) TAVRO_EXCLUDES(m_queueMutex);
    [[nodiscard]] bool tryEnqueue(std::string_view text, Semaphore* waiter, LogQueue::Chunk& fresh)
        TAVRO_EXCLUDES(m_queueMutex);
    [[nodiscard]] bool mustWakeWriter() const TAVRO_REQUIRES(m_queueMutex);
    [[nodiscard]] bool isUrgent() const TAVRO_REQUIRES(m_queueMutex);
    [[nodiscard]] bool waitForFlush(Semaphore& flushDone) TAVRO_EXCLUDES(m_queueMutex);

    [[nodiscard]] bool isMoreToWrite() TAVRO_EXCLUDES(m_fileMutex, m_queueMutex);
    [[nodiscard]] bool sleepIfQueueIsEmpty() TAVRO_REQUIRES(m_queueMutex);
    void writeQueue() TAVRO_EXCLUDES(m_fileMutex, m_queueMutex);
    bool writeBatch() TAVRO_EXCLUDES(m_fileMutex, m_queueMutex);
    bool writeBlocks() TAVRO_EXCLUDES(m_fileMutex, m_queueMutex);
    void writePiece(const LogQueue::Piece& piece) TAVRO_REQUIRES(m_fileMutex);
    void flushFiles() TAVRO_EXCLUDES(m_fileMutex);
    [[nodiscard]] LogQueue::Batch nextBatch() TAVRO_EXCLUDES(m_queueMutex);
    [[nodiscard]] LogQueue::Chunk removeBatch() TAVRO_EXCLUDES(m_queueMutex);
    [[nodiscard]] std::optional<std::string_view> takeBlock() TAVRO_EXCLUDES(m_queueMutex);
    void finishFlushes(std::uint64_t count) TAVRO_EXCLUDES(m_queueMutex);

    const Settings m_settings;
    Modes m_modes;                                   // unchanged from the first text on
    const bool m_isGuarded = MemShield::isEnabled(); // each queued text is a block of its own
    Mutex m_fileMutex;                               // guards the files; nothing is taken inside it
    LogFiles m_files TAVRO_GUARDED_BY(m_fileMutex);
    Mutex m_queueMutex; // guards the queue, its flushes and the writer's state; nothing is taken inside it
    StlMemShiledContainer<LogQueue> m_queue TAVRO_GUARDED_BY(m_queueMutex){"FileLogger"};
    FlushRequests m_flushes TAVRO_GUARDED_BY(m_queueMutex); // for what is in the queue and in the batch being written
    WriterState m_writerState TAVRO_GUARDED_BY(m_queueMutex) = WriterState::Sleeping;
    Trigger m_queueEvent;                                    // ends a wait of the writer
    GuardedPtr<HeapMemoryAllocationTracker> m_memoryTracker; // the budget of queued text
    bool m_isInsideText = false;                             // a text is written in part; only the writer uses it
    platform::Atomic<std::uint32_t> m_writerId = 0;          // the writer's thread, 0 while there is none
    platform::Atomic<bool> m_isStopping = false;
    Semaphore m_writerStarted{0};
    Semaphore m_writerEnded{0};
    const bool m_isOpen; // the live file could be opened at the start
};
