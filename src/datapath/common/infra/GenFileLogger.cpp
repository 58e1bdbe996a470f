#include "datapath/common/infra/GenFileLogger.h"

#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/UtcTimestamp.h"
#include "platform/Text.h"
#include "platform/Threads.h"

#include <algorithm>
#include <iostream>
#include <limits>
#include <new>

namespace
{

constexpr std::uint32_t NUMBER_TRACKER_CREATED = 70;
constexpr std::uint32_t NUMBER_TRACKER_RELEASED = 120;

constexpr std::uint64_t MAX_FILE_LENGTH = 10'485'760;
constexpr std::uint32_t NO_MEMORY_LIMIT = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t LINGER_MS = 1;
constexpr std::size_t WAKING_BYTES = std::size_t{64} * 1024;

std::string directoryOf(const std::string& path)
{
    const std::size_t separator = path.rfind(platform::PATH_SEPARATOR);
    if (separator == std::string::npos)
    {
        return ".";
    }
    const std::size_t slash = path.rfind('/'); // separates on every system
    const std::size_t length = slash == std::string::npos ? separator : std::max(slash, separator);
    return length == 0 && slash == 0 ? "/" : path.substr(0, length);
}

HeapMemoryAllocationTracker* createTracker(std::uint32_t maxMemoryMiB, const std::string& name)
{
    const std::uint32_t percent = Tweaks::instance().value(PERCENT_OF_LOGGER_MEMORY_FOR_MINIMAL_THRESHOLD);
    const std::uint32_t maxBytes = maxMemoryMiB == NO_MEMORY_LIMIT ? NO_MEMORY_LIMIT : maxMemoryMiB << 20U;
    const double resumeBytes = std::min<double>(percent / 100.0 * maxBytes, NO_MEMORY_LIMIT);
    return GuardedMemory::create<HeapMemoryAllocationTracker>(
        {"HeapMemoryAllocationTracker", SourcePlace::numbered(NUMBER_TRACKER_CREATED)}, maxBytes,
        static_cast<std::uint32_t>(resumeBytes), DynamicTweaks::instance().t_disableLogMemoryAllocationTracking, name);
}

} // namespace

GenFileLogger::GenFileLogger(const std::string& path, std::uint32_t maxMemoryMiB)
    : GenFileLogger(path, maxMemoryMiB, Writer::NotStarted)
{
    startWriter();
}

GenFileLogger::GenFileLogger(const std::string& path, std::uint32_t maxMemoryMiB, Writer /*notStarted*/)
    : m_basePath(path), m_directory(directoryOf(path)),
      m_memoryTracker(nullptr, {SourcePlace::numbered(NUMBER_TRACKER_RELEASED)})
{
    const Tweaks& tweaks = Tweaks::instance();
    m_flushMaxPeriodMs = tweaks.value(OLM_FLUSH_FILE_MAX_PERIOD_MS);
    m_memoryTracker.reset(createTracker(maxMemoryMiB, path));
    m_maxFiles = static_cast<std::uint32_t>(tweaks.value(GEN_FILE_LOGGER_MAX_FILES));
    if (const std::int32_t maxFiles = tweaks.value(FILE_LOGGER_MAX_FILES_OVERRIDE); maxFiles != 0)
    {
        m_maxFiles = static_cast<std::uint32_t>(maxFiles);
    }
    const platform::ErrorNumber error = platform::createFolder(m_directory.c_str());
    if (error != platform::ErrorNumber::Success && error != platform::ErrorNumber::AlreadyExists)
    {
        std::cout << "Error creating directory (" << m_directory << ") for logs (rt=" << 0 << ")"
                  << "GetLastError " << static_cast<std::uint32_t>(error) << std::endl;
    }
    const MutexGuard guard(m_fileMutex);
    m_enabled = openLogFile();
}

GenFileLogger::~GenFileLogger()
{
    stopWriter();
    writeQueue();
}

void GenFileLogger::startWriter()
{
    if (m_enabled)
    {
        m_isStarted = true;
        open();
        m_writerStarted.wait(); // the thread has logged its start: from here on it logs nothing of its own
    }
}

void GenFileLogger::stopWriter()
{
    if (m_isStarted)
    {
        m_isStarted = false;
        m_isStopping = true;
        m_queueEvent.set();
        m_writerEnded.wait();
    }
}

void GenFileLogger::write(const char* data, std::uint32_t length)
{
    if (!m_enabled)
    {
        return;
    }
    if (m_flushEveryLine)
    {
        const MutexGuard guard(m_fileMutex);
        writePart({data, data == nullptr ? 0 : length}, true, true);
        m_stream.flush();
        return;
    }
    try
    {
        bool justPaused = false;
        if (data == nullptr)
        {
            enqueue({});
        }
        else if (length != 0 && !enqueueText({data, length}, !m_memoryTracker->isTrackingDisabled(), justPaused) &&
                 justPaused)
        {
            pauseForMemory();
        }
    }
    catch (const std::bad_alloc&)
    {
        // Dropped, as text is for which the budget has no room.
    }
}

/// Returns false if the budget refuses.
bool GenFileLogger::enqueueText(std::string_view text, bool isLimited, bool& justPaused)
{
    LogItem item{.data = text.data(), .length = static_cast<std::uint32_t>(text.size())};
    if (!takeBudget(item, isLimited, justPaused))
    {
        return false;
    }
    try
    {
        enqueue(item);
    }
    catch (const std::bad_alloc&)
    {
        free(item);
        throw;
    }
    return true;
}

/// With guarded memory the item's data becomes a copy of its own.
bool GenFileLogger::takeBudget(LogItem& item, bool isLimited, bool& justPaused)
{
    HeapMemoryAllocationTracker& tracker = *m_memoryTracker;
    if (m_isGuarded)
    {
        char* const buffer =
            isLimited ? tracker.allocate(item.length, justPaused) : tracker.allocateIgnoringLimit(item.length);
        if (buffer == nullptr)
        {
            return false;
        }
        std::copy_n(item.data, item.length, buffer);
        item.data = buffer;
        return true;
    }
    if (isLimited)
    {
        return tracker.reserve(item.length, justPaused);
    }
    tracker.reserveIgnoringLimit(item.length);
    return true;
}

void GenFileLogger::free(const LogItem& item)
{
    m_isGuarded ? m_memoryTracker->free(item.data, item.length) : m_memoryTracker->free(item.length);
}

void GenFileLogger::pauseForMemory()
{
    const std::string notice = std::string(UtcTimestamp(3).view()) + "," + m_basePath + "-pausing logger due to OOM\n";
    bool isUnused = false;
    static_cast<void>(enqueueText(notice, false, isUnused));
    enqueue({});
}

void GenFileLogger::enqueue(const LogItem& item, Semaphore* waiter)
{
    const std::string_view text(item.data, item.data == nullptr ? 0 : item.length);
    for (LogQueue::Chunk chunk;; chunk = LogQueue::newChunk(text.size()))
    {
        bool wakes = false;
        {
            const MutexGuard guard(m_queueMutex);
            if (m_isGuarded)
            {
                m_queue.push(item);
            }
            else if (!m_queue.push(text, chunk))
            {
                continue;
            }
            if (text.empty())
            {
                addFlush(waiter);
            }
            wakes =
                m_writerWaits == WriterWaits::ForAnything || (m_writerWaits == WriterWaits::ForABlock && isUrgent());
            if (wakes)
            {
                m_writerWaits = WriterWaits::No;
            }
        }
        if (wakes)
        {
            m_queueEvent.set();
        }
        return;
    }
}

void GenFileLogger::addFlush(Semaphore* waiter)
{
    ++m_flushesAsked;
    if (waiter != nullptr && m_unclaimedFlushes != 0)
    {
        --m_unclaimedFlushes;
        waiter->signal();
    }
    else if (waiter != nullptr)
    {
        m_flushWaiters.push_back({m_flushesAsked, waiter});
    }
}

bool GenFileLogger::flushAndWait()
{
    Semaphore flushDone(0);
    try
    {
        enqueue({}, &flushDone);
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
    if (m_flushMaxPeriodMs == 0)
    {
        flushDone.wait();
        return true;
    }
    if (flushDone.waitFor(m_flushMaxPeriodMs))
    {
        return true;
    }
    const MutexGuard guard(m_queueMutex);
    const auto own = std::ranges::find(m_flushWaiters, &flushDone, &FlushWaiter::flushDone);
    if (own == m_flushWaiters.end())
    {
        return true; // done just now
    }
    own->flushDone = nullptr;
    return false;
}

bool GenFileLogger::isWriter() const { return m_writerId == platform::currentThreadId(); }

void GenFileLogger::run()
{
    MemShield::neverWaitForReport(); // whoever reports waits until its lines are written here
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

/// Waits a moment for more: while lines come in quick succession nobody has to wake the writer for each, and it
/// does not take the queue's lock for each. Meanwhile the file ends where a text ends, and nothing lies in memory.
bool GenFileLogger::isMoreToWrite()
{
    {
        const MutexGuard guard(m_queueMutex);
        if (isUrgent() || m_isInsideText)
        {
            return true;
        }
        if (m_asyncFlushEveryLine)
        {
            return !sleepsWithoutWork();
        }
        m_writerWaits = WriterWaits::ForABlock;
    }
    flushStream();
    static_cast<void>(m_queueEvent.waitFor(LINGER_MS));
    const MutexGuard guard(m_queueMutex);
    return !sleepsWithoutWork();
}

bool GenFileLogger::sleepsWithoutWork()
{
    m_writerWaits = m_queue.size() == 0 ? WriterWaits::ForAnything : WriterWaits::No;
    return m_writerWaits == WriterWaits::ForAnything;
}

bool GenFileLogger::isUrgent() const { return m_queue.bytes() >= WAKING_BYTES || m_flushesAsked != m_flushesDone; }

void GenFileLogger::writeQueue()
{
    while (writeBatch())
    {
    }
    flushStream();
}

/// Returns whether there was anything.
bool GenFileLogger::writeBatch()
{
    if (m_isGuarded)
    {
        return writeBlocks();
    }
    const LogQueue::Batch batch = nextBatch();
    std::uint32_t length = 0;
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
    // Without a lock: misuse of memory that is found here is logged, and a flush on this thread writes the queue.
    const LogQueue::Chunk spent = removeBatch();
    m_memoryTracker->free(length);
    finishFlushes(flushes); // last: whoever waited finds the budget as it is
    return !batch.empty();
}

bool GenFileLogger::writeBlocks()
{
    bool isAnyWritten = false;
    for (LogItem item; takeBlock(item); isAnyWritten = true)
    {
        {
            const MutexGuard guard(m_fileMutex);
            writePiece({{item.data, item.length}, true});
        }
        // Without a lock, as above.
        if (item.data != nullptr)
        {
            free(item);
        }
        else
        {
            finishFlushes(1);
        }
    }
    return isAnyWritten;
}

bool GenFileLogger::takeBlock(LogItem& item)
{
    const MutexGuard guard(m_queueMutex);
    return m_queue.extract(item);
}

void GenFileLogger::flushStream()
{
    const MutexGuard guard(m_fileMutex);
    m_stream.flush();
}

LogQueue::Batch GenFileLogger::nextBatch()
{
    const MutexGuard guard(m_queueMutex);
    return m_queue.front();
}

LogQueue::Chunk GenFileLogger::removeBatch()
{
    const MutexGuard guard(m_queueMutex);
    return m_queue.pop();
}

void GenFileLogger::finishFlushes(std::uint64_t count)
{
    const MutexGuard guard(m_queueMutex);
    m_flushesDone += count;
    for (; !m_flushWaiters.empty() && m_flushWaiters.front().request <= m_flushesDone; m_flushWaiters.pop_front())
    {
        if (Semaphore* const flushDone = m_flushWaiters.front().flushDone)
        {
            flushDone->signal();
        }
        else
        {
            ++m_unclaimedFlushes;
        }
    }
}

void GenFileLogger::writePiece(const LogQueue::Piece& piece)
{
    const auto& [text, isLast] = piece;
    if (!text.empty())
    {
        writePart(text, !m_isInsideText, isLast);
        m_isInsideText = !isLast;
    }
    if (text.empty() || (isLast && m_asyncFlushEveryLine))
    {
        m_stream.flush();
    }
}

void GenFileLogger::writePart(std::string_view part, bool isFirst, bool isLast)
{
    // A file that does not take its last text is not moved away from it.
    if (isFirst && m_stream.isLongerThan(MAX_FILE_LENGTH) && m_stream.flush())
    {
        rotate();
    }
    m_stream.write(part, isFirst, isLast);
}
