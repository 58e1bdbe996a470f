#include "datapath/common/infra/ConsistentFile.h"

#include "datapath/common/infra/Crc32.h"
#include "datapath/common/infra/InputTextFile.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/TextLines.h"

#include <cstdlib>
#include <utility>

namespace
{

struct Signature
{
    std::uint64_t sequence;
    std::uint32_t crc;
};

/// A line that is missing or holds no number reads as 0.
std::uint64_t nextNumber(TextLines& lines)
{
    return std::strtoull(std::string(lines.next().value_or("")).c_str(), nullptr, 10);
}

Signature readSignature(std::istream& file)
{
    TextLines lines(file);
    const std::uint64_t sequence = nextNumber(lines);
    return {sequence, static_cast<std::uint32_t>(nextNumber(lines))};
}

std::uint32_t crcOfLines(std::istream& file)
{
    Crc32 crc;
    for (TextLines lines(file); const auto line = lines.next();)
    {
        crc.update(*line);
        crc.update("\n");
    }
    return crc.value();
}

} // namespace

ConsistentFile::ConsistentFile(std::string path) : m_path(std::move(path))
{
    std::int32_t latestSlot = -1;
    // Not having a valid copy is for whoever loads.
    static_cast<void>(findLatestValidFileIndex(latestSlot));
    m_nextSlot = (latestSlot + 1) % m_slotCount;
}

std::string ConsistentFile::dataFileName(std::int32_t slot) const { return m_path + "." + std::to_string(slot); }

std::string ConsistentFile::signatureFileName(std::int32_t slot) const { return dataFileName(slot) + ".sig"; }

RcStatus ConsistentFile::findLatestValidFileIndex(std::int32_t& latestSlot)
{
    latestSlot = -1;
    std::uint64_t bestSequence = 0;
    bool isAnyFound = false;
    for (std::int32_t slot = 0; slot < m_slotCount; ++slot)
    {
        InputTextFile data(dataFileName(slot));
        InputTextFile signatureFile(signatureFileName(slot));
        if (!data.isOpen() && !signatureFile.isOpen())
        {
            LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
                << "Not found persistent files for index " << slot << std::endl;
            continue;
        }
        isAnyFound = true;
        if (!data.isOpen() || !signatureFile.isOpen())
        {
            LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD)
                << "Incomplete pair of persistent files for index " << slot << std::endl;
            continue;
        }
        const Signature signature = readSignature(signatureFile);
        if (signature.sequence < bestSequence)
        {
            LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
                << "Index " << slot << " is older than the current one" << std::endl;
            continue;
        }
        if (crcOfLines(data) != signature.crc || data.bad() || signatureFile.bad())
        {
            LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD)
                << "Data and signature do not match for index " << slot << std::endl;
            continue;
        }
        latestSlot = slot;
        bestSequence = signature.sequence;
        LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD) << "Latest index found: " << slot << std::endl;
    }
    if (!isAnyFound)
    {
        return RC_NOT_FOUND;
    }
    if (bestSequence == 0)
    {
        return RC_ERROR;
    }
    m_nextSequence = bestSequence + 1;
    return RC_OK;
}

RcStatus ConsistentFile::load(std::ostream& text)
{
    const MutexGuard guard(m_mutex);
    std::int32_t latestSlot = -1;
    const RcStatus status = findLatestValidFileIndex(latestSlot);
    if (status == RC_ERROR)
    {
        LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD) << "Error loading from disk" << std::endl;
        return RC_ERROR;
    }
    if (status == RC_NOT_FOUND)
    {
        LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD) << "File does not exist" << std::endl;
        return RC_OK;
    }
    InputTextFile data(dataFileName(latestSlot));
    if (!data.isOpen())
    {
        LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD)
            << "Could not open file for read: " << dataFileName(latestSlot) << std::endl;
        return RC_ERROR;
    }
    for (TextLines lines(data); const auto line = lines.next();)
    {
        text << *line << '\n';
    }
    if (data.bad())
    {
        LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD) << "Error loading from disk" << std::endl;
        return RC_ERROR;
    }
    m_nextSlot = (latestSlot + 1) % m_slotCount;
    return RC_OK;
}
