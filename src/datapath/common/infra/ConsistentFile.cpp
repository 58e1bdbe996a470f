#include "datapath/common/infra/ConsistentFile.h"

#include "datapath/common/infra/InputTextFile.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/base/Crc32.h"
#include "datapath/common/infra/base/TextLines.h"

#include <cstdlib>
#include <utility>

namespace
{

// Lines about single copies are logged under the name of the search.
constexpr MethodText METHOD_FIND = MethodText::of("ConsistentFile::findLatestValidFileIndex");

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
    m_nextSlot = (findLatestValidFileIndex().slot + 1) % m_slotCount; // load tells whether a copy is valid
}

std::int32_t ConsistentFile::nextSlot() const
{
    const MutexGuard guard(m_mutex);
    return m_nextSlot;
}

std::uint64_t ConsistentFile::nextSequence() const
{
    const MutexGuard guard(m_mutex);
    return m_nextSequence;
}

std::string ConsistentFile::dataFileName(std::int32_t slot) const { return m_path + "." + std::to_string(slot); }

std::string ConsistentFile::signatureFileName(std::int32_t slot) const { return dataFileName(slot) + ".sig"; }

ConsistentFile::Latest ConsistentFile::findLatestValidFileIndex()
{
    std::int32_t latestSlot = -1;
    std::uint64_t bestSequence = 0;
    bool isAnyFound = false;
    for (std::int32_t slot = 0; slot < m_slotCount; ++slot)
    {
        const Copy copy = examineCopy(slot, bestSequence);
        isAnyFound = isAnyFound || copy.state != CopyState::Absent;
        if (copy.state == CopyState::Valid)
        {
            latestSlot = slot;
            bestSequence = copy.sequence;
        }
    }
    if (!isAnyFound)
    {
        return {RC_NOT_FOUND, latestSlot};
    }
    if (bestSequence == 0)
    {
        return {RC_ERROR, latestSlot};
    }
    m_nextSequence = bestSequence + 1;
    return {RC_OK, latestSlot};
}

ConsistentFile::Copy ConsistentFile::examineCopy(std::int32_t slot, std::uint64_t bestSequence) const
{
    InputTextFile data(dataFileName(slot));
    InputTextFile signatureFile(signatureFileName(slot));
    if (!data.isOpen() && !signatureFile.isOpen())
    {
        LogItem(LoggerId::NON, LogLevel::Info, METHOD_FIND)
            << "Not found persistent files for index " << slot << std::endl;
        return {CopyState::Absent, 0};
    }
    if (!data.isOpen() || !signatureFile.isOpen())
    {
        LogItem(LoggerId::NON, LogLevel::Error, METHOD_FIND)
            << "Incomplete pair of persistent files for index " << slot << std::endl;
        return {CopyState::Unusable, 0};
    }
    const Signature signature = readSignature(signatureFile);
    if (signature.sequence < bestSequence)
    {
        LogItem(LoggerId::NON, LogLevel::Info, METHOD_FIND)
            << "Index " << slot << " is older than the current one" << std::endl;
        return {CopyState::Unusable, 0};
    }
    if (crcOfLines(data) != signature.crc || data.bad() || signatureFile.bad())
    {
        LogItem(LoggerId::NON, LogLevel::Error, METHOD_FIND)
            << "Data and signature do not match for index " << slot << std::endl;
        return {CopyState::Unusable, 0};
    }
    LogItem(LoggerId::NON, LogLevel::Info, METHOD_FIND) << "Latest index found: " << slot << std::endl;
    return {CopyState::Valid, signature.sequence};
}

RcStatus ConsistentFile::load(std::ostream& text)
{
    const MutexGuard guard(m_mutex);
    const Latest latest = findLatestValidFileIndex();
    if (latest.status == RC_ERROR)
    {
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD) << "Error loading from disk" << std::endl;
        return RC_ERROR;
    }
    if (latest.status == RC_NOT_FOUND)
    {
        LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "File does not exist" << std::endl;
        return RC_OK;
    }
    InputTextFile data(dataFileName(latest.slot));
    if (!data.isOpen())
    {
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD)
            << "Could not open file for read: " << dataFileName(latest.slot) << std::endl;
        return RC_ERROR;
    }
    for (TextLines lines(data); const auto line = lines.next();)
    {
        text << *line << '\n';
    }
    if (data.bad())
    {
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD) << "Error loading from disk" << std::endl;
        return RC_ERROR;
    }
    m_nextSlot = (latest.slot + 1) % m_slotCount;
    return RC_OK;
}
