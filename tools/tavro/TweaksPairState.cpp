#include "datapath/common/infra/ConsistentFile.h"
#include "datapath/common/infra/Tweaks.h"
#include "platform/Files.h"
#include "platform/Text.h"
#include "tools/tavro/Command.h"
#include "tools/tavro/TweaksPair.h"

#include <sstream>
#include <string_view>
#include <vector>

namespace
{

using State = ConsistentFile::CopyState;

std::string_view nameOf(State state)
{
    switch (state)
    {
    case State::Absent:
        return "absent";
    case State::Incomplete:
        return "incomplete";
    case State::Older:
        return "older";
    case State::Unreadable:
        return "unreadable";
    case State::Mismatched:
        return "mismatched";
    case State::Valid:
        return "valid";
    }
    return "";
}

/// One copy with what only the file system knows about it.
class CopyReport
{
public:
    CopyReport(const ConsistentFile& file, const ConsistentFile::Look& look, std::int32_t slot)
        : m_copy(look.copies.at(static_cast<std::size_t>(slot))), m_slot(slot),
          m_isRead(look.status == RC_OK && look.latestSlot == slot)
    {
        describeUnopened(m_copy.hasData, file.dataFileName(slot));
        describeUnopened(m_copy.hasSignature, file.signatureFileName(slot));
    }

    [[nodiscard]] bool isBroken() const
    {
        const bool isWhole = m_copy.state == State::Valid && m_copy.sequence > 0 && !m_copy.isCut;
        return !isWhole && !isMissing();
    }

    /// Whether nothing has the paths of this copy.
    [[nodiscard]] bool isMissing() const { return m_copy.state == State::Absent && !m_isAnyUnopenable; }

    void write(std::ostream& out) const
    {
        out << "copy " << m_slot << ": ";
        writeState(out);
        out << (m_isRead ? "; the program reads this copy\n" : "\n");
    }

    void writeState(std::ostream& out) const
    {
        out << nameOf(m_copy.state) << (isMissing() ? "" : m_unopened);
        if (m_copy.hasData && m_copy.hasSignature)
        {
            out << ", number " << m_copy.sequence << ", CRC " << m_copy.statedCrc << " expected, " << m_copy.dataCrc
                << " found";
        }
        if (m_copy.isCut)
        {
            out << "; a line of more than 511 characters ends it, and the rest of it is ignored";
        }
        if (m_copy.state == State::Unreadable)
        {
            out << "; reading it fails";
        }
        if (m_copy.state == State::Valid && m_copy.sequence == 0)
        {
            out << "; numbers begin with 1";
        }
    }

    void writeJson(std::ostream& out) const
    {
        const auto text = [](bool value) { return value ? "true" : "false"; };
        out << R"({"copy":)" << m_slot << R"(,"state":)" << Tool::jsonText(nameOf(m_copy.state)) << R"(,"broken":)"
            << text(isBroken()) << R"(,"data":)" << text(m_copy.hasData) << R"(,"signature":)"
            << text(m_copy.hasSignature) << R"(,"sequence":)" << m_copy.sequence << R"(,"expectedCrc":)"
            << m_copy.statedCrc << R"(,"foundCrc":)" << m_copy.dataCrc << R"(,"cut":)" << text(m_copy.isCut) << "}";
    }

private:
    void describeUnopened(bool isOpened, const std::string& path)
    {
        if (!isOpened)
        {
            const bool isThere = platform::pathExists(path.c_str());
            m_unopened += ", " + path + (isThere ? " cannot be opened" : " is missing");
            m_isAnyUnopenable = m_isAnyUnopenable || isThere;
        }
    }

    ConsistentFile::Copy m_copy;
    std::int32_t m_slot;
    bool m_isRead;
    std::string m_unopened; // what is wrong with files that could not be opened
    bool m_isAnyUnopenable = false;
};

void writeText(std::ostream& out, const ConsistentFile::Look& look, const std::vector<CopyReport>& reports)
{
    for (const CopyReport& report : reports)
    {
        report.write(out);
    }
    if (look.status == RC_ERROR)
    {
        out << "The program does not start, because no copy is valid.\n";
    }
    if (look.status == RC_NOT_FOUND)
    {
        out << "The program starts without " << Tool::pairPath() << ", because it finds none of these files.\n";
    }
    out << "The next copy is " << look.nextSlot << " with the number " << look.nextSequence << ".\n";
}

void writeJson(std::ostream& out, const ConsistentFile::Look& look, const std::vector<CopyReport>& reports)
{
    const char* separator = R"({"copies":[)";
    for (const CopyReport& report : reports)
    {
        out << separator;
        report.writeJson(out);
        separator = ",\n ";
    }
    out << R"(],"starts":)" << (look.status == RC_ERROR ? "false" : "true") << R"(,"read":)"
        << (look.status == RC_OK ? std::to_string(look.latestSlot) : "null") << R"(,"nextCopy":)" << look.nextSlot
        << R"(,"nextSequence":)" << look.nextSequence << "}\n";
}

} // namespace

std::string Tool::pairPath()
{
    std::string path = Tweaks::files().front().path; // has two separators, which the system takes for one
    const std::size_t separator = path.find(platform::PATH_SEPARATOR);
    path.erase(separator, path.find_first_not_of(platform::PATH_SEPARATOR, separator) - separator - 1);
    return path;
}

std::string Tool::pairFolder()
{
    const std::string path = pairPath();
    return path.substr(0, path.find(platform::PATH_SEPARATOR));
}

namespace
{

bool isNewer(const ConsistentFile::Look& look, std::int32_t slot)
{
    const auto sequenceOf = [&](std::int32_t of) { return look.copies.at(static_cast<std::size_t>(of)).sequence; };
    return look.status == RC_OK && sequenceOf(slot) > sequenceOf(look.latestSlot);
}

} // namespace

std::vector<Tool::BrokenCopy> Tool::brokenCopies()
{
    const ConsistentFile file(pairPath());
    const ConsistentFile::Look look = file.look();
    std::vector<BrokenCopy> broken;
    for (std::int32_t slot = 0; slot < ConsistentFile::SLOT_COUNT; ++slot)
    {
        const CopyReport report(file, look, slot);
        if (report.isBroken())
        {
            std::ostringstream text;
            text << "this copy is ";
            report.writeState(text);
            broken.push_back({file.dataFileName(slot), text.str(), isNewer(look, slot)});
        }
    }
    return broken;
}

bool Tool::writePairState(std::ostream& out, bool isJson)
{
    const ConsistentFile file(pairPath());
    const ConsistentFile::Look look = file.look();
    std::vector<CopyReport> reports;
    bool isFaulty = look.status == RC_ERROR;
    bool isAllMissing = true;
    for (std::int32_t slot = 0; slot < ConsistentFile::SLOT_COUNT; ++slot)
    {
        const CopyReport& report = reports.emplace_back(file, look, slot);
        isFaulty = isFaulty || report.isBroken();
        isAllMissing = isAllMissing && report.isMissing();
    }
    if (isJson)
    {
        writeJson(out, look, reports);
    }
    else if (isAllMissing)
    {
        out << "There is no pair: the program starts without " << pairPath() << ".\n";
    }
    else
    {
        writeText(out, look, reports);
    }
    return isFaulty;
}
