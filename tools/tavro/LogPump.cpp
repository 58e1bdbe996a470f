#include "tools/tavro/LogPump.h"

#include "platform/Threads.h"
#include "tools/tavro/Command.h"
#include "tools/tavro/SystemFacts.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <system_error>

namespace Tool
{

namespace
{

constexpr std::uint32_t LOOK_MS = 200; // between two looks at a live file
constexpr int MISSING_LOOKS = 5;       // at a live file that is missing, unless it is followed

std::uint64_t totalLength(const std::vector<LogPath>& files)
{
    std::uint64_t total = 0;
    for (const LogPath& file : files)
    {
        std::error_code error;
        const std::uintmax_t length = std::filesystem::file_size(pathOf(file.path), error);
        total += error ? 0 : length;
    }
    return total;
}

} // namespace

LogProgress::~LogProgress()
{
    if (m_isShown)
    {
        std::cerr << "\r\x1B[K" << std::flush;
    }
}

void LogProgress::show(std::uint64_t bytes)
{
    if (!m_isWanted || Clock::now() < m_due)
    {
        return;
    }
    constexpr std::size_t WIDTH = 30;
    constexpr std::uint64_t BYTES_PER_MB = 1'000'000;
    m_isShown = true;
    m_due = Clock::now() + std::chrono::milliseconds(LOOK_MS);
    if (m_total != 0)
    {
        const double share = std::min(1.0, static_cast<double>(bytes) / static_cast<double>(m_total));
        const auto filled = static_cast<std::size_t>(share * WIDTH);
        std::cerr << "\r[" << std::string(filled, '#') << std::string(WIDTH - filled, ' ') << "] "
                  << static_cast<int>(share * 100) << " % of " << m_total / BYTES_PER_MB << " MB" << std::flush;
    }
    else
    {
        std::cerr << "\r" << bytes / BYTES_PER_MB << " MB" << std::flush;
    }
}

void LogPump::run(bool hasProgress)
{
    LogProgress progress(hasProgress);
    progress.setTotal(totalLength(m_files));
    for (auto begin = m_files.begin(); begin != m_files.end();)
    {
        const auto end =
            std::find_if(begin, m_files.end(), [&](const LogPath& file) { return file.base != begin->base; });
        readLog(std::vector<LogPath>(begin, end), progress);
        begin = end;
    }
    m_reader.endRecord();
    takeRecords();
}

/// Reads the files of one log. The live file is opened first and read last: if it is renamed meanwhile, its new name is
/// not among the files, but it stays open.
void LogPump::readLog(std::vector<LogPath> files, LogProgress& progress)
{
    const LogPath last = files.back();
    if (last.path == "-" || last.number != LogPath::LIVE)
    {
        std::ranges::for_each(files, [&](const LogPath& path) { read(path, progress); });
        return;
    }
    openLive(files, Patience::Some);
    std::for_each(files.begin(), files.end() - 1, [&](const LogPath& path) { read(path, progress); });
    readOpen(last, m_current, progress);
}

void LogPump::read(const LogPath& path, LogProgress& progress)
{
    LogFile file;
    if (path.path == "-")
    {
        file.openStandardInput();
    }
    else
    {
        static_cast<void>(file.open(path.path)); // else the file tells its fault when it is read
    }
    readOpen(path, file, progress);
}

void LogPump::readOpen(const LogPath& path, LogFile& file, LogProgress& progress)
{
    beginFile(path);
    while (file.isOpen() && readPiece(file))
    {
        progress.show(m_done + file.position());
    }
    m_done += file.position();
    endFile(path.path, file);
}

void LogPump::beginFile(const LogPath& path)
{
    if (m_base != path.base)
    {
        m_reader.endRecord();
        takeRecords();
        m_reader.beginLog();
    }
    m_base = path.base;
}

/// Returns false at the end of the file.
bool LogPump::readPiece(LogFile& file)
{
    const std::size_t bytes = file.read(m_reader.room());
    if (file.beginsMember())
    {
        m_reader.addSeam();
    }
    m_reader.add(bytes);
    takeRecords();
    return bytes != 0;
}

void LogPump::endFile(const std::string& path, const LogFile& file)
{
    m_reader.endFile();
    takeRecords();
    if (const std::string fault = file.fault(); !fault.empty())
    {
        m_hasFound = true;
        std::cerr << "tavro: " << path << ": cannot be read to its end: " << fault << std::endl;
    }
}

void LogPump::takeRecords()
{
    while (m_reader.next(m_record))
    {
        m_runs = m_record.run;
        m_hasFound = m_hasFound || m_record.kind == LogRecord::Kind::Raw;
        m_sink(m_record);
    }
}

void LogPump::follow(const std::function<void()>& idle)
{
    openLive(m_files, Patience::Endless);
    const LogPath live = m_files.back();
    LogProgress progress(false);
    std::for_each(m_files.begin(), m_files.end() - 1, [&](const LogPath& path) { read(path, progress); });
    beginFile(live);
    for (;;)
    {
        readLive(live, idle);
    }
}

/// Opens the live file, which is the last one of the files, at a moment at which the numbered files are known. Those
/// that have got their numbers since the files were listed are put before it.
void LogPump::openLive(std::vector<LogPath>& files, Patience patience)
{
    const LogPath live = files.back();
    for (int looks = 1;; ++looks)
    {
        const std::uint64_t before = highestNumberOf(live.base);
        const bool isOpen = m_current.open(live.path);
        std::vector<LogPath> numbered = numberedFilesOf(live.base);
        m_lastNumber = numbered.empty() ? 0 : numbered.back().number;
        const bool isMissing = !isOpen && m_current.error() == platform::ErrorNumber::FileNotFound;
        if (!isOpen && !isMissing && patience == Patience::Endless)
        {
            throw Misuse(live.path + ": cannot be followed: " + errorText(m_current.error()));
        }
        const bool isWaitedFor = isMissing && (patience == Patience::Endless || looks < MISSING_LOOKS);
        if (!isWaitedFor && m_lastNumber == before)
        {
            std::erase_if(numbered, [&](const LogPath& file) { return file.number <= live.lastNumber; });
            files.insert(files.end() - 1, numbered.begin(), numbered.end());
            return;
        }
        platform::sleepMs(isMissing ? LOOK_MS : 1); // the file is being renamed
    }
}

/// Reads the present file up to its end, and waits until there is more or the next file is there.
void LogPump::readLive(const LogPath& live, const std::function<void()>& idle)
{
    while (readPiece(m_current))
    {
    }
    for (int looks = 0;; ++looks)
    {
        if (std::optional<LogFile> next = successor(live))
        {
            while (readPiece(m_current)) // the last bytes from before it was renamed
            {
            }
            endFile(live.path, m_current);
            m_current = std::move(*next);
            return;
        }
        if (looks != 0) // a whole line may be without its message's last lines at the first look
        {
            m_reader.endRecord();
            takeRecords();
        }
        idle();
        platform::sleepMs(LOOK_MS);
        if (readPiece(m_current))
        {
            return;
        }
    }
}

/// The file that was the live one after the present one, if that is no longer the live one. Each file between them has
/// a number above m_lastNumber. The live file is opened before these are listed: if it is renamed meanwhile, it is
/// among them.
std::optional<LogFile> LogPump::successor(const LogPath& live)
{
    LogFile newest;
    const bool hasLive = newest.open(live.path);
    if (hasLive && newest.identity() == m_current.identity())
    {
        const bool isCut = newest.length() < m_current.position(); // by another program, which has begun it anew
        return isCut ? std::optional(std::move(newest)) : std::nullopt;
    }
    for (const LogPath& path : numberedFilesOf(live.base))
    {
        LogFile file;
        if (path.number <= m_lastNumber || !file.open(path.path))
        {
            continue;
        }
        if (file.identity() != m_current.identity())
        {
            return file;
        }
        m_lastNumber = path.number;
    }
    return hasLive ? std::optional(std::move(newest)) : std::nullopt;
}

} // namespace Tool
