#pragma once

// Writes finished text into a log file that is rotated when it has grown past 10 MiB: the live file gets the
// next number, and the oldest numbered files beyond a limit are removed.
//
//     GenFileLogger logger("C:\\logs\\app.log", 3);     // C:\logs\app.log.txt, at most 3 MiB wait in memory
//     logger.write(line.data(), length);
//
// A path is narrow and the system's own: a backslash separates on Windows, a slash on Linux ("/var/log/app.log").
// On Windows it must have no slashes and no ".\" before the name, or the numbered files are not found.
//
// In the asynchronous mode the caller's bytes are copied into a queue and a thread of the logger's own writes
// them; when the queue has used up its budget one notice goes to the file and text is dropped until enough of it has
// been written. With guarded memory each queued text is a block of its own. In the synchronous mode, the default, the
// calling thread writes and hands every piece to the system. The modes are set by the owner before the first write.
//
// Any thread may write. The logger never reports its own failures to the Logger: they go to standard output and
// standard error, and logging goes on. The destructor writes what is queued; no other thread may use the logger
// by then.

#include "datapath/common/infra/GuardedPtr.h"
#include "datapath/common/infra/HeapMemoryAllocationTracker.h"
#include "datapath/common/infra/LogFileStream.h"
#include "datapath/common/infra/LogQueue.h"
#include "datapath/common/infra/MemWatchedContainer.h"
#include "datapath/common/infra/Semaphore.h"
#include "datapath/common/infra/windows/ThreadWrapper.h"
#include "platform/Atomic.h"

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

class GenFileLogger : public ThreadWrapper
{
public:
    /// Opens the live file, which is the path followed by ".txt", and starts the writer. The path's folder is created,
    /// those above it are not. The budget of 4294967295 is 4 GiB; else it is taken modulo 4 GiB.
    GenFileLogger(const std::string& path, std::uint32_t maxMemoryMiB);
    ~GenFileLogger() override;

    /// Null asks for a flush that nobody waits for. Nothing happens while the logger is not enabled, or for 0 bytes.
    void write(const char* data, std::uint32_t length) EXCLUDES(m_fileMutex, m_queueMutex);

    /// The path of the live file; empty while the logger is not enabled, or if there is no such file any more.
    [[nodiscard]] std::string liveFileName() const;

protected:
    /// What the writer is to do: write the bytes, or without any, flush.
    using LogItem = LogQueue::Block;

    /// For derived classes: they call startWriter when their own part exists, since the new thread asks for
    /// the object's class, and stopWriter before it goes.
    enum class Writer
    {
        NotStarted
    };
    GenFileLogger(const std::string& path, std::uint32_t maxMemoryMiB, Writer);

    /// Returns when the writer is ready. Without an open file no thread is started.
    void startWriter();

    /// Returns when everything queued is written and the writer has ended.
    void stopWriter();

    /// Copies the bytes, or with guarded memory takes the buffer, which is the tracker's, over. The waiter of a flush,
    /// if there is one, is signalled when it is done; see flushAndWait. Throws std::bad_alloc.
    void enqueue(const LogItem& item, Semaphore* waiter = nullptr) EXCLUDES(m_queueMutex);

    /// Waits until everything queued so far is with the system, at most m_flushMaxPeriodMs unless that is 0.
    /// Returns false if that was too short. The flush is done later then, and the wait of one later call ends at
    /// once for it. Also false, without a flush, if there is no memory to ask for one.
    [[nodiscard]] bool flushAndWait() EXCLUDES(m_queueMutex);

    /// Writes and flushes everything queued, on the writer's thread.
    void writeQueue() EXCLUDES(m_fileMutex, m_queueMutex);

    [[nodiscard]] bool isWriter() const;

    // The files; all with the file lock held.
    bool openLogFile() REQUIRES(m_fileMutex);
    void rotate() REQUIRES(m_fileMutex);
    [[nodiscard]] std::string rotatedFileName(std::int64_t number, bool isCompressed) const;
    bool listLogDirectory(std::vector<std::string>& files) const;
    [[nodiscard]] static std::int32_t fileNumber(std::string_view path, std::size_t baseLength);
    static void removeLogFile(const std::string& path);
    static void renameLogFile(const std::string& from, const std::string& to);

    void run() override;

    std::uint32_t m_maxFiles = 0;            // numbered files that are kept
    platform::Atomic<bool> m_enabled = true; // false: writes are ignored
    LogFileStream m_stream GUARDED_BY(m_fileMutex);
    const std::string m_basePath;       // of all files, without ".txt"
    const std::string m_directory;      // of all files
    Mutex m_fileMutex;                  // guards the files; nothing is taken inside it
    bool m_compressOnRotate = false;    // numbered files are named as compressed ones
    bool m_flushEveryLine = true;       // the synchronous mode
    bool m_asyncFlushEveryLine = false; // the writer flushes after every item
    Mutex m_queueMutex;                 // guards the queue; nothing is taken inside it
    StlMemShiledContainer<LogQueue> m_queue GUARDED_BY(m_queueMutex){"FileLogger"};
    Trigger m_queueEvent;                                    // lets the writer go on
    GuardedPtr<HeapMemoryAllocationTracker> m_memoryTracker; // the budget of queued text
    std::uint32_t m_flushMaxPeriodMs = 0;                    // longest wait for a flush; 0: no limit

private:
    /// What lets the writer go on.
    enum class WriterWaits
    {
        No,         ///< it is at work
        ForABlock,  ///< or a flush, and not for long
        ForAnything ///< that is queued
    };

    [[nodiscard]] bool enqueueText(std::string_view text, bool isLimited, bool& justPaused);
    [[nodiscard]] bool takeBudget(LogItem& item, bool isLimited, bool& justPaused);
    void free(const LogItem& item);
    void pauseForMemory();
    void addFlush(Semaphore* waiter) REQUIRES(m_queueMutex);
    [[nodiscard]] bool isMoreToWrite() EXCLUDES(m_fileMutex, m_queueMutex);
    [[nodiscard]] bool isUrgent() const REQUIRES(m_queueMutex);
    [[nodiscard]] bool sleepsWithoutWork() REQUIRES(m_queueMutex);
    bool writeBatch() EXCLUDES(m_fileMutex, m_queueMutex);
    bool writeBlocks() EXCLUDES(m_fileMutex, m_queueMutex);
    [[nodiscard]] bool takeBlock(LogItem& item) EXCLUDES(m_queueMutex);
    void flushStream() EXCLUDES(m_fileMutex);
    [[nodiscard]] LogQueue::Batch nextBatch() EXCLUDES(m_queueMutex);
    [[nodiscard]] LogQueue::Chunk removeBatch() EXCLUDES(m_queueMutex);
    void finishFlushes(std::uint64_t count) EXCLUDES(m_queueMutex);
    void writePiece(const LogQueue::Piece& piece) REQUIRES(m_fileMutex);
    void writePart(std::string_view part, bool isFirst, bool isLast) REQUIRES(m_fileMutex);

    /// Who waits for a flush: its number among all that were asked for, and null if the wait was given up.
    struct FlushWaiter
    {
        std::uint64_t request;
        Semaphore* flushDone;
    };

    const bool m_isGuarded = MemShield::isEnabled(); // queued texts are blocks of their own
    WriterWaits m_writerWaits GUARDED_BY(m_queueMutex) = WriterWaits::ForAnything;
    std::uint64_t m_flushesAsked GUARDED_BY(m_queueMutex) = 0;
    std::uint64_t m_flushesDone GUARDED_BY(m_queueMutex) = 0;
    std::deque<FlushWaiter> m_flushWaiters GUARDED_BY(m_queueMutex); // in the order of their requests
    std::uint32_t m_unclaimedFlushes GUARDED_BY(m_queueMutex) = 0;   // done after their waiters had given up
    bool m_isInsideText = false;                    // its first parts were written; of the thread that writes the queue
    platform::Atomic<std::uint32_t> m_writerId = 0; // the writer's thread, 0 while there is none
    platform::Atomic<bool> m_isStopping = false;
    bool m_isStarted = false;
    Semaphore m_writerStarted{0};
    Semaphore m_writerEnded{0};
};
