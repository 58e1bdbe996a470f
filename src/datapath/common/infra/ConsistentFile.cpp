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

/// Reads the data to their end.
void readData(std::istream& file, ConsistentFile::Copy& copy)
{
    Crc32 crc;
    for (TextLines lines(file); const auto line = lines.next();)
    {
        crc.update(*line);
        crc.update("\n");
    }
    copy.dataCrc = crc.value();
    copy.isCut = !file.eof() && !file.bad();
}

void logFinding(std::int32_t slot, ConsistentFile::CopyState state)
{
    using State = ConsistentFile::CopyState;
    const bool isFault = state == State::Incomplete || state == State::Unreadable || state == State::Mismatched;
    LogItem line(LoggerId::NON, isFault ? LogLevel::Error : LogLevel::Info, METHOD_FIND);
    switch (state)
    {
    case State::Absent:
        line << "Not found persistent files for index " << slot;
        break;
    case State::Incomplete:
        line << "Incomplete pair of persistent files for index " << slot;
        break;
    case State::Older:
        line << "Index " << slot << " is older than the current one";
        break;
    case State::Unreadable:
    case State::Mismatched:
        line << "Data and signature do not match for index " << slot;
        break;
    case State::Valid:
        line << "Latest index found: " << slot;
        break;
    }
    line << std::endl;
}

} // namespace

ConsistentFile::ConsistentFile(std::string path) : m_path(std::move(path))
{
    m_nextSlot = findLatestValidFileIndex().nextSlot; // load tells whether a copy is valid
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

ConsistentFile::Look ConsistentFile::look() const
{
    return search(OlderCopies::AreRead, [](std::int32_t, const Copy&) {});
}

ConsistentFile::Look ConsistentFile::findLatestValidFileIndex()
{
    const Look look =
        search(OlderCopies::AreLeftOut, [](std::int32_t slot, const Copy& copy) { logFinding(slot, copy.state); });
    if (look.status == RC_OK)
    {
        m_nextSequence = look.nextSequence;
    }
    return look;
}

template <class Observer> ConsistentFile::Look ConsistentFile::search(OlderCopies older, const Observer& observe) const
{
    Look look;
    std::uint64_t bestSequence = 0;
    for (std::int32_t slot = 0; slot < SLOT_COUNT; ++slot)
    {
        Copy& copy = look.copies.at(static_cast<std::size_t>(slot));
        copy = examineCopy(slot, older == OlderCopies::AreLeftOut ? bestSequence : 0);
        observe(slot, copy);
        if (copy.state != CopyState::Absent)
        {
            look.status = RC_ERROR;
        }
        if (copy.state == CopyState::Valid && copy.sequence >= bestSequence)
        {
            look.latestSlot = slot;
            bestSequence = copy.sequence;
        }
    }
    look.nextSlot = (look.latestSlot + 1) % SLOT_COUNT;
    if (bestSequence != 0)
    {
        look.status = RC_OK;
        look.nextSequence = bestSequence + 1;
    }
    return look;
}

ConsistentFile::Copy ConsistentFile::examineCopy(std::int32_t slot, std::uint64_t lowestSequence) const
{
    InputTextFile data(dataFileName(slot));
    InputTextFile signatureFile(signatureFileName(slot));
    Copy copy;
    copy.hasData = data.isOpen();
    copy.hasSignature = signatureFile.isOpen();
    if (!copy.hasData || !copy.hasSignature)
    {
        copy.state = copy.hasData || copy.hasSignature ? CopyState::Incomplete : CopyState::Absent;
        return copy;
    }
    const Signature signature = readSignature(signatureFile);
    copy.sequence = signature.sequence;
    copy.statedCrc = signature.crc;
    if (copy.sequence < lowestSequence)
    {
        copy.state = CopyState::Older;
        return copy;
    }
    readData(data, copy);
    copy.state = data.bad() || signatureFile.bad() ? CopyState::Unreadable
                 : copy.dataCrc != copy.statedCrc  ? CopyState::Mismatched
                                                   : CopyState::Valid;
    return copy;
}

RcStatus ConsistentFile::load(std::ostream& text)
{
    const MutexGuard guard(m_mutex);
    const Look latest = findLatestValidFileIndex();
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
    InputTextFile data(dataFileName(latest.latestSlot));
    if (!data.isOpen())
    {
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD)
            << "Could not open file for read: " << dataFileName(latest.latestSlot) << std::endl;
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
    m_nextSlot = latest.nextSlot;
    return RC_OK;
}
