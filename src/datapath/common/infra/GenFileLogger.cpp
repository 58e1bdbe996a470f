#include "datapath/common/infra/GenFileLogger.h"

#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/base/UtcTimestamp.h"
#include "platform/Files.h"
#include "platform/Threads.h"

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

namespace
{

constexpr std::uint32_t NUMBER_TRACKER_CREATED = 70;
constexpr std::uint32_t NUMBER_TRACKER_RELEASED = 120;

constexpr std::uint32_t NO_MEMORY_LIMIT = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t LINGER_MS = 1;
// Whoever queues that much wakes the writer, which takes some microseconds: with lines of 120 bytes it is one call in
// 2,000.
constexpr std::uint64_t URGENT_BYTES = std::uint64_t{256} * 1024;

HeapMemoryAllocationTracker* createTracker(const GenFileLogger::Settings& settings)
{
    return GuardedMemory::create<HeapMemoryAllocationTracker>(
        {"HeapMemoryAllocationTracker", SourcePlace::numbered(NUMBER_TRACKER_CREATED)}, settings.maxBytes,
        settings.resumeBytes, DynamicTweaks::instance().t_disableLogMemoryAllocationTracking, settings.files.basePath);
}

} // namespace

std::uint32_t GenFileLogger::budgetBytes(std::uint32_t maxMemoryMiB)
{
    return maxMemoryMiB == NO_MEMORY_LIMIT ? NO_MEMORY_LIMIT : maxMemoryMiB << 20U;
}

GenFileLogger::Settings GenFileLogger::tweakedSettings(const std::string& path, std::uint32_t maxMemoryMiB)
{
    const Tweaks& tweaks = Tweaks::instance();
    Settings settings{.files = {.basePath = path}};
    settings.flushMaxPeriodMs = tweaks.value(OLM_FLUSH_FILE_MAX_PERIOD_MS);
    const std::uint32_t percent = tweaks.value(PERCENT_OF_LOGGER_MEMORY_FOR_MINIMAL_THRESHOLD);
    settings.maxBytes = budgetBytes(maxMemoryMiB);
    settings.resumeBytes =
        static_cast<std::uint32_t>(std::min<double>(percent / 100.0 * settings.maxBytes, NO_MEMORY_LIMIT));
    // The budget's services are made before the number of files is read, because a wrong number ends the process.
    static_cast<void>(DynamicTweaks::instance());
    static_cast<void>(MemShield::instance());
    settings.files.maxFiles = static_cast<std::uint32_t>(tweaks.value(GEN_FILE_LOGGER_MAX_FILES));
    if (const std::int32_t maxFiles = tweaks.value(FILE_LOGGER_MAX_FILES_OVERRIDE); maxFiles != 0)
    {
        settings.files.maxFiles = static_cast<std::uint32_t>(maxFiles);
    }
    return settings;
}

GenFileLogger::GenFileLogger(Settings settings)
    : m_settings(std::move(settings)), m_files(m_settings.files),
      m_memoryTracker(createTracker(m_settings), {SourcePlace::numbered(NUMBER_TRACKER_RELEASED)}),
      m_isOpen(m_files.open())
{
    setModes(m_settings.modes);
    if (m_isOpen)
    {
        open();
        m_writerStarted.wait(); // the thread has logged its start then, and logs nothing else of its own
    }
}

GenFileLogger::GenFileLogger(const std::string& path, std::uint32_t maxMemoryMiB)
    : GenFileLogger(tweakedSettings(path, maxMemoryMiB))
{
}

GenFileLogger::~GenFileLogger()
{
    if (m_isOpen)
    {
        m_isStopping = true;
        m_queueEvent.set();
        m_writerEnded.wait();
    }
}

void GenFileLogger::setModes(const Modes& modes)
{
    m_modes = modes;
    const MutexGuard guard(m_fileMutex);
    m_files.setCompressOnRotate(modes.compressOnRotate);
}

std::string GenFileLogger::liveFileName() const
{
    const std::string name = LogFiles::liveFile(m_settings.files.basePath);
    return m_isOpen && platform::pathExists(name.c_str()) ? name : "";
}

void GenFileLogger::write(const char* data, std::uint32_t length)
{
    if (!m_isOpen)
    {
        return;
    }
    const std::string_view text(data, data == nullptr ? 0 : length);
    if (m_modes.flushEveryLine)
    {
        const MutexGuard guard(m_fileMutex);
        m_files.write(text);
        m_files.flush();
        return;
    }
    try
    {
        if (data == nullptr)
        {
            enqueue({});
        }
        else if (!text.empty() && enqueueText(text, !m_memoryTracker->isTrackingDisabled()) == Answer::BeganPause)
        {
            pauseForMemory();
        }
    }
    catch (const std::bad_alloc&)
    {
        // The text is dropped, as one for which the budget has no room.
    }
}

GenFileLogger::Answer GenFileLogger::enqueueText(std::string_view text, bool isLimited)
{
    if (m_isGuarded)
    {
        return enqueueBlock(text, isLimited);
    }
    const auto length = static_cast<std::uint32_t>(text.size());
    if (!isLimited)
    {
        m_memoryTracker->reserveIgnoringLimit(length);
    }
    else if (const Answer answer = m_memoryTracker->reserve(length); answer != Answer::Granted)
    {
        return answer;
    }
    try
    {
        enqueue(text);
    }
    catch (const std::bad_alloc&)
    {
        m_memoryTracker->free(length);
        throw;
    }
    return Answer::Granted;
}

GenFileLogger::Answer GenFileLogger::enqueueBlock(std::string_view text, bool isLimited)
{
    using Allocation = HeapMemoryAllocationTracker::Allocation;
    const auto length = static_cast<std::uint32_t>(text.size());
    const auto [buffer, answer] = isLimited
                                      ? m_memoryTracker->allocate(length)
                                      : Allocation{m_memoryTracker->allocateIgnoringLimit(length), Answer::Granted};
    if (answer != Answer::Granted)
    {
        return answer;
    }
    text.copy(buffer, length);
    try
    {
        enqueue({buffer, length});
    }
    catch (const std::bad_alloc&)
    {
        m_memoryTracker->free(buffer, length);
        throw;
    }
    return Answer::Granted;
}

void GenFileLogger::pauseForMemory()
{
    const std::string notice = UtcTimestamp::now(3) + "," + m_settings.files.basePath + "-pausing logger due to OOM\n";
    static_cast<void>(enqueueText(notice, false));
    enqueue({});
}

/// Queues a copy of the text, or with guarded memory the text itself, or a flush if the text is empty. The waiter of
/// the flush, if there is one, is signalled when it is done. Throws std::bad_alloc.
void GenFileLogger::enqueue(std::string_view text, Semaphore* waiter)
{
    LogQueue::Chunk fresh;
    while (!tryEnqueue(text, waiter, fresh))
    {
        fresh = LogQueue::newChunk(text.size()); // while the lock is free
    }
}

/// Returns false, with nothing queued, if the queue needs a fresh chunk and this one is null or too small.
bool GenFileLogger::tryEnqueue(std::string_view text, Semaphore* waiter, LogQueue::Chunk& fresh)
{
    bool wakes = false;
    {
        const MutexGuard guard(m_queueMutex);
        if (m_isGuarded)
        {
            m_queue.change([&](LogQueue& queue) { queue.push(text); });
        }
        else if (!m_queue.change([&](LogQueue& queue) { return queue.push(text, fresh); }))
        {
            return false;
        }
        if (text.empty())
        {
            m_flushes.add(waiter);
        }
        wakes = mustWakeWriter();
        if (wakes)
        {
            m_writerState = WriterState::Working;
        }
    }
    if (wakes)
    {
        m_queueEvent.set();
    }
    return true;
}

bool GenFileLogger::mustWakeWriter() const
{
    return m_writerState == WriterState::Sleeping || (m_writerState == WriterState::Lingering && isUrgent());
}

bool GenFileLogger::isUrgent() const { return m_queue->bytes() >= URGENT_BYTES || m_flushes.isAnyPending(); }

bool GenFileLogger::flush()
{
    if (m_modes.flushEveryLine || !m_isOpen)
    {
        return true;
    }
    if (m_writerId == platform::currentThreadId())
    {
        writeQueue(); // no other thread can
        return true;
    }
    Semaphore flushDone(0);
    try
    {
        enqueue({}, &flushDone);
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
    return waitForFlush(flushDone);
}

bool GenFileLogger::waitForFlush(Semaphore& flushDone)
{
    if (m_settings.flushMaxPeriodMs == 0)
    {
        flushDone.wait();
        return true;
    }
    if (flushDone.waitFor(m_settings.flushMaxPeriodMs))
    {
        return true;
    }
    const MutexGuard guard(m_queueMutex);
    return !m_flushes.giveUp(flushDone); // it may have been done just now
}

void GenFileLogger::run()
{
    MemShield::neverWaitForReport(); // the thread that reports waits until this one has written its lines
    m_writerId = platform::currentThreadId();
    m_writerStarted.signal();
    while (!m_isStopping)
    {
        m_queueEvent.wait();
        do
        {
            writeBatch();
        } while (isMoreToWrite());
    }
    writeQueue();
    m_writerId = 0;
    m_writerEnded.signal();
}

/// Lingers, unless there is work already or every line is flushed. Returns false when the writer is to sleep.
bool GenFileLogger::isMoreToWrite()
{
    {
        const MutexGuard guard(m_queueMutex);
        if (isUrgent() || m_isInsideText)
        {
            return true;
        }
        if (m_modes.asyncFlushEveryLine)
        {
            return !sleepIfQueueIsEmpty();
        }
        m_writerState = WriterState::Lingering;
    }
    flushFiles();
    static_cast<void>(m_queueEvent.waitFor(LINGER_MS));
    const MutexGuard guard(m_queueMutex);
    return !sleepIfQueueIsEmpty();
}

bool GenFileLogger::sleepIfQueueIsEmpty()
{
    m_writerState = m_queue->size() == 0 ? WriterState::Sleeping : WriterState::Working;
    return m_writerState == WriterState::Sleeping;
}

/// Writes and flushes everything queued. Runs on the writer's thread only.
void GenFileLogger::writeQueue()
{
    while (writeBatch())
    {
    }
    flushFiles();
}

/// Writes the oldest texts. Returns whether anything was queued.
bool GenFileLogger::writeBatch()
{
    if (m_isGuarded)
    {
        return writeBlocks();
    }
    const LogQueue::Batch batch = nextBatch();
    std::uint32_t length = 0; // bytes
    std::uint64_t flushes = 0;
    {
        const MutexGuard guard(m_fileMutex);
        for (const LogQueue::Piece piece : batch)
        {
            writePiece(piece);
            length += static_cast<std::uint32_t>(piece.text.size());
            flushes += piece.text.empty() ? 1U : 0U;
        }
    }
    // No lock is held here: misuse of memory that is found now is logged, and the flush after that line, on this
    // thread, writes the queue.
    const LogQueue::Chunk spent = removeBatch();
    m_memoryTracker->free(length);
    finishFlushes(flushes); // last, so that a thread that waited finds the budget up to date
    return !batch.empty();
}

/// As writeBatch, with guarded memory: writes all blocks, one after the other.
bool GenFileLogger::writeBlocks()
{
    bool isAnyWritten = false;
    while (const std::optional<std::string_view> block = takeBlock())
    {
        isAnyWritten = true;
        {
            const MutexGuard guard(m_fileMutex);
            writePiece({.text = *block, .isLast = true});
        }
        // No lock is held here either.
        if (block->empty())
        {
            finishFlushes(1);
        }
        else
        {
            m_memoryTracker->free(block->data(), static_cast<std::uint32_t>(block->size()));
        }
    }
    return isAnyWritten;
}

void GenFileLogger::writePiece(const LogQueue::Piece& piece)
{
    const auto& [text, isLast] = piece;
    if (!text.empty())
    {
        m_files.write(text, !m_isInsideText, isLast);
        m_isInsideText = !isLast;
    }
    if (text.empty() || (isLast && m_modes.asyncFlushEveryLine))
    {
        m_files.flush();
    }
}

void GenFileLogger::flushFiles()
{
    const MutexGuard guard(m_fileMutex);
    m_files.flush();
}

LogQueue::Batch GenFileLogger::nextBatch()
{
    const MutexGuard guard(m_queueMutex);
    return m_queue.change([](LogQueue& queue) { return queue.front(); });
}

LogQueue::Chunk GenFileLogger::removeBatch()
{
    const MutexGuard guard(m_queueMutex);
    return m_queue.change([](LogQueue& queue) { return queue.pop(); });
}

std::optional<std::string_view> GenFileLogger::takeBlock()
{
    const MutexGuard guard(m_queueMutex);
    return m_queue.change([](LogQueue& queue) { return queue.extract(); });
}

void GenFileLogger::finishFlushes(std::uint64_t count)
{
    const MutexGuard guard(m_queueMutex);
    m_flushes.finish(count);
}
