#include "tools/tavro/TweaksExamination.h"

#include "Agent/AgentCommon/AgentInitializer.h"
#include "datapath/common/infra/ConsistentFile.h"
#include "datapath/common/infra/FileLoggerClient.h"
#include "datapath/common/infra/GenFileLogger.h"
#include "datapath/common/infra/InputTextFile.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/base/TextLines.h"
#include "datapath/common/infra/windows/Directories.h"
#include "platform/Files.h"
#include "platform/Text.h"
#include "tools/tavro/CaughtEnd.h"
#include "tools/tavro/SystemFacts.h"
#include "tools/tavro/TweaksPair.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace
{

using namespace Tool;

/// A table that reads no files.
class Table : public Tweaks
{
public:
    Table() : Tweaks(WithoutFiles()) {}
};

/// The table that the program makes: its construction ends as that of the program does.
class ProgramTable : public Tweaks
{
public:
    ProgramTable() = default;
};

template <class Visitor> void visitKnown(std::string_view name, const Visitor& visit)
{
    forEachKnownTweak([&](const auto& tweak) {
        if (CaseInsensitiveEqual()(tweak.name, name))
        {
            visit(tweak);
        }
    });
}

bool isKnown(std::string_view name)
{
    bool isFound = false;
    visitKnown(name, [&](const auto&) { isFound = true; });
    return isFound;
}

/// The number of letters that have to be inserted, removed, replaced or exchanged with the next one, without regard to
/// case. Source: the optimal string alignment distance.
std::size_t distanceOf(std::string_view left, std::string_view right)
{
    std::array<std::vector<std::size_t>, 3> rows; // of the table: the one that is computed, and the two before it
    rows[0].resize(right.size() + 1);
    std::iota(rows[0].begin(), rows[0].end(), std::size_t{0});
    for (std::size_t i = 1; i <= left.size(); ++i)
    {
        std::vector<std::size_t>& row = rows[i % 3];
        const std::vector<std::size_t>& above = rows[(i + 2) % 3];
        row.assign(right.size() + 1, i);
        for (std::size_t j = 1; j <= right.size(); ++j)
        {
            const auto isSame = [&](std::size_t atLeft, std::size_t atRight) {
                return toAsciiLower(left[atLeft]) == toAsciiLower(right[atRight]);
            };
            row[j] = std::min({row[j - 1] + 1, above[j] + 1, above[j - 1] + (isSame(i - 1, j - 1) ? 0U : 1U)});
            if (i > 1 && j > 1 && isSame(i - 1, j - 2) && isSame(i - 2, j - 1))
            {
                row[j] = std::min(row[j], rows[(i + 1) % 3][j - 2] + 1);
            }
        }
    }
    return rows[left.size() % 3].back();
}

std::string inQuotes(std::string_view text) { return "\"" + std::string(text) + "\""; }

/// Whether the text is nothing but a number as the program reads one.
bool isWholeNumber(std::string_view text)
{
    const auto skip = [&](std::size_t length) { text.remove_prefix(length); };
    const auto skipSign = [&] { skip(text.starts_with('-') || text.starts_with('+') ? 1 : 0); };
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    skip(isHex ? 2 : 0);
    skipSign();
    constexpr std::string_view DIGITS = "0123456789abcdefABCDEF";
    return !text.empty() && text.find_first_not_of(DIGITS.substr(0, isHex ? 22 : 10)) == std::string_view::npos;
}

bool isSamePath(const std::string& left, const std::string& right)
{
    return std::filesystem::path(left).lexically_normal() == std::filesystem::path(right).lexically_normal();
}

/// Whether the file has the path of the consistent file, or that with something after it.
bool isOfPair(const std::string& path, const std::string& pair)
{
    return std::filesystem::path(path).lexically_normal().string().starts_with(
        std::filesystem::path(pair).lexically_normal().string());
}

/// Whether a name has one of the names of the tweak files in it, in any case, such as "Tweaks_extension.txt.txt".
bool looksLikeTweaks(std::string name)
{
    std::ranges::transform(name, name.begin(), [](char letter) { return static_cast<char>(toAsciiLower(letter)); });
    return name.find("tweaks_extension") != std::string::npos || name.find("tweaks.txt") != std::string::npos;
}

/// What the program writes when it cannot make its folder.
std::string endOfMissingFolder(const std::string& folder)
{
    const auto cannot = [](const char*) { return EACCES; };
    const auto usual = std::exchange(platform::fileCalls.createFolderErrno.current, cannot);
    const std::optional<End> end = endOf([&] { Directories::ensureExists(folder + platform::PATH_SEPARATOR); });
    platform::fileCalls.createFolderErrno.current = usual;
    return end.value_or(End()).check;
}

/// Examines one text after the other, and finally the table that they make.
class Examiner
{
public:
    /// Reads the text at a path; kind and name are those of the file of tweaks that it belongs to.
    void examineText(const std::string& path, TweakFileKind kind, const std::string& name);
    void examineTextToSign(const std::string& path);
    void examineExtension(const Tweaks::File& file);
    void examineConsistent(const Tweaks::File& file);
    void examineDataFolder();
    void examineUnreadFiles();
    void examineValuesInEffect();
    void compareWithProgram();

    [[nodiscard]] Examination take();

private:
    struct Line
    {
        std::uint32_t number;
        TweakLine parts;
    };

    void add(Severity severity, const FilePlace& place, const std::string& text)
    {
        m_findings.push_back({place, severity, text});
    }
    void addError(const FilePlace& place, const std::string& text) { add(Severity::Error, place, text); }
    void addWarning(const FilePlace& place, const std::string& text) { add(Severity::Warning, place, text); }

    [[nodiscard]] std::vector<Line> readLines(const std::string& path, TweakFileKind kind);
    void readLine(std::string_view text, TweakFileKind kind, const FilePlace& place, std::vector<Line>& lines);
    void examineEncoding(const std::string& path);
    void examineBytesOfAllTargets(const std::string& path);
    [[nodiscard]] static std::vector<bool> areRepeated(const std::vector<Line>& lines);
    void apply(const Line& line, const FilePlace& place, const std::string& name);
    void examineName(const std::string& name, const FilePlace& place);
    void examineValue(const TweakLine& parts, const FilePlace& place);
    void replaceOrigin(const std::string& name, const FilePlace& place, bool isSet);
    void examineMargins();
    void examineLogOfProgram();

    Table m_table;
    bool m_isForAllTargets = false; // whatever target examines it
    std::vector<Finding> m_findings;
    std::map<std::string, FilePlace, CaseInsensitiveLess> m_origins; // of the tweaks that are set
};

/// What the bytes of a file say about its encoding, apart from its lines.
void Examiner::examineEncoding(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(file), {});
    if (bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF"))
    {
        addError({path, 1}, "the file is UTF-16, which the program cannot read: save it as ASCII or UTF-8");
    }
    if (bytes.starts_with("\xEF\xBB\xBF"))
    {
        addError({path, 1},
                 "the file has a byte order mark, which becomes part of the first name: save it as UTF-8 without one");
    }
    const auto end = std::ranges::find_if(bytes, platform::endsText);
    const auto isBlank = [](char byte) { return byte == '\r' || byte == '\n' || platform::endsText(byte); };
    if (!m_isForAllTargets && !std::all_of(end, bytes.end(), isBlank)) // some editors end a file with that byte
    {
        const auto line = static_cast<std::uint32_t>(std::count(bytes.begin(), end, '\n')) + 1;
        addError({path, line}, "a byte 0x1A (Ctrl-Z) ends the file for the program: what follows is ignored");
    }
}

/// Bytes that mean something else on another target, or that no editor shows.
void Examiner::examineBytesOfAllTargets(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::uint32_t number = 0;
    for (std::string line; std::getline(file, line);)
    {
        ++number;
        if (line.find('\x1A') != std::string::npos)
        {
            addError({path, number}, "the line has a byte 0x1A (Ctrl-Z), which ends the text on Windows");
        }
        if (line.find('\0') != std::string::npos)
        {
            addError({path, number}, "the line has a zero byte");
        }
    }
}

void Examiner::examineTextToSign(const std::string& path)
{
    m_isForAllTargets = true;
    examineBytesOfAllTargets(path);
    examineText(path, TweakFileKind::Consistent, path);
    examineValuesInEffect();
}

std::vector<Examiner::Line> Examiner::readLines(const std::string& path, TweakFileKind kind)
{
    examineEncoding(path);
    InputTextFile file(path);
    std::vector<Line> lines;
    std::uint32_t number = 0;
    for (TextLines texts(file); const auto text = texts.next();)
    {
        readLine(*text, kind, {path, ++number}, lines);
    }
    if (file.bad())
    {
        addError({path, number + 1}, "the file cannot be read further: this line and all that follow are ignored");
    }
    else if (!file.eof())
    {
        addError({path, number + 1},
                 "the line has more than 511 characters: this line and all that follow are ignored");
    }
    return lines;
}

void Examiner::readLine(std::string_view text, TweakFileKind kind, const FilePlace& place, std::vector<Line>& lines)
{
    std::deque<TweakLine> parsed;
    // Read strictly, the program's parser tells of a line without "=" instead of leaving it out.
    const std::optional<End> end = endOf([&] {
        std::istringstream one{std::string(text)};
        parsed = Tweaks::getTweaksFromStream(one, TweakFileKind::Consistent);
    });
    if (end)
    {
        addError(place, kind == TweakFileKind::Consistent ? end->text() : "the line has no \"=\" and is ignored");
    }
    const std::size_t lone = text.find('\r');
    if (lone != std::string_view::npos && text.find('=', lone) != std::string_view::npos)
    {
        addError(place, "a carriage return alone ends no line: what follows it is no line of its own");
    }
    for (TweakLine& parts : parsed)
    {
        lines.push_back({place.line, std::move(parts)});
    }
}

/// Asks the program which names are defined more than once.
std::vector<bool> Examiner::areRepeated(const std::vector<Line>& lines)
{
    std::stringstream names;
    for (const Line& line : lines)
    {
        names << line.parts.name << "=\n";
    }
    Table scratch;
    std::deque<TweakLine> applied;
    static_cast<void>(endOf([&] { applied = scratch.applyExtensionText(names); }));
    std::vector<bool> repeated;
    std::ranges::transform(applied, std::back_inserter(repeated),
                           [](const TweakLine& line) { return !line.comment.empty(); });
    return repeated;
}

/// What the program writes when the consistent file defines a name twice.
std::string endOfRepetition(const std::string& name)
{
    std::stringstream text(name + "=\n" + name + "=\n");
    return endOf([&] { Table().applyConsistentText(text); }).value_or(End()).text();
}

void Examiner::examineText(const std::string& path, TweakFileKind kind, const std::string& name)
{
    const std::vector<Line> lines = readLines(path, kind);
    const std::vector<bool> repeated = areRepeated(lines);
    for (std::size_t i = 0; i < lines.size(); ++i)
    {
        const FilePlace place{path, lines[i].number};
        if (!repeated[i])
        {
            apply(lines[i], place, name);
            continue;
        }
        const std::string text =
            "the tweak " + inQuotes(lines[i].parts.name) + " is defined more than once in this file";
        addError(place, kind == TweakFileKind::Consistent ? text + "; " + endOfRepetition(lines[i].parts.name)
                                                          : text + ", so none of these lines is applied");
    }
}

void Examiner::apply(const Line& line, const FilePlace& place, const std::string& name)
{
    const TweakLine& parts = line.parts;
    examineName(parts.name, place);
    if (parts.valueText.empty())
    {
        m_table.update(parts.name, "");
        replaceOrigin(parts.name, place, false);
        return;
    }
    const std::optional<End> end = endOf([&] { static_cast<void>(Tweaks::Tweak(parts.valueText, parts.name, name)); });
    if (end)
    {
        addError(place, end->text());
        return;
    }
    examineValue(parts, place);
    m_table.update(parts.name, parts.valueText);
    replaceOrigin(parts.name, place, true);
}

/// A place that another one replaces has no effect, which is worth a warning there.
void Examiner::replaceOrigin(const std::string& name, const FilePlace& place, bool isSet)
{
    const auto found = m_origins.find(name);
    if (found != m_origins.end())
    {
        addWarning(found->second, "the value of " + inQuotes(name) + " has no effect, because " + place.text() +
                                      (isSet ? " replaces it" : " removes it"));
        m_origins.erase(found);
    }
    if (isSet)
    {
        m_origins.emplace(name, place);
    }
}

void Examiner::examineName(const std::string& name, const FilePlace& place)
{
    if (isKnown(name))
    {
        return;
    }
    const std::string nearest = nearestTweak(name);
    addWarning(place, "the tweak " + inQuotes(name) + " is unknown to this program" +
                          (nearest.empty() ? std::string() : "; " + inQuotes(nearest) + " is the nearest known one"));
}

void Examiner::examineValue(const TweakLine& parts, const FilePlace& place)
{
    const Tweaks::Tweak value(parts.valueText);
    const bool isWord = value.isInt() && !isWholeNumber(parts.valueText) &&
                        parts.valueText.find_first_of("0123456789") == std::string::npos;
    if (value.isInt() && !isWord && !isWholeNumber(parts.valueText))
    {
        addWarning(place, "the value '" + parts.valueText + "' of " + inQuotes(parts.name) + " is read as " +
                              value.toString() + "; what follows the number is ignored");
    }
}

void Examiner::examineExtension(const Tweaks::File& file)
{
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::symlink_status(file.path, error);
    if (InputTextFile(file.path).isOpen())
    {
        examineText(file.path, file.kind, file.path);
    }
    else if (std::error_code ignored; std::filesystem::is_directory(file.path, ignored))
    {
        addWarning({file.path}, "this is a folder, where the program looks for a file");
    }
    else if (status.type() != std::filesystem::file_type::not_found)
    {
        addError({file.path}, "the file cannot be opened, and the program goes on without it");
    }
}

void Examiner::examineConsistent(const Tweaks::File& file)
{
    const std::string path = std::filesystem::path(file.path).lexically_normal().string();
    if (platform::pathExists(path.c_str()))
    {
        addWarning({path}, "the program does not read this file, but signed copies of it: tavro tweaks sign");
    }
    const ConsistentFile pair(path);
    const ConsistentFile::Look look = pair.look();
    for (const BrokenCopy& copy : brokenCopies())
    {
        add(copy.isNewer ? Severity::Error : Severity::Warning, {copy.file},
            copy.text + (copy.isNewer ? "; the program goes on with the older copy" : ""));
    }
    const std::string folder = std::filesystem::path(path).parent_path().string();
    std::error_code closed;
    const std::filesystem::directory_iterator first(folder, closed);
    if (look.status == RC_NOT_FOUND && closed && closed != std::errc::no_such_file_or_directory)
    {
        addError({folder}, "what is in it cannot be read (" + closed.message() +
                               "), and the program goes on without the consistent file");
    }
    if (look.status == RC_ERROR)
    {
        addError({path}, "the consistent file has no valid copy, the next one would be number " +
                             std::to_string(look.nextSequence) + " in " + pair.dataFileName(look.nextSlot) + "; " +
                             endOf([] { const ProgramTable table; }).value_or(End()).text());
    }
    if (look.status == RC_OK)
    {
        examineText(pair.dataFileName(look.latestSlot), file.kind, file.path);
    }
}

/// The program makes the folder of its fourth file, and ends if it cannot.
void Examiner::examineDataFolder()
{
    const std::string folder = std::filesystem::path(Tweaks::files().back().path).parent_path().string();
    std::error_code error;
    if (std::filesystem::symlink_status(folder, error).type() == std::filesystem::file_type::not_found &&
        !mayWrite("."))
    {
        const std::string text =
            "the folder is missing and cannot be made; the program ends: " + endOfMissingFolder(folder);
        isAdministrator() ? addError({folder}, text)
                          : addWarning({folder}, text + "; so it is for this user, who is no administrator");
    }
}

/// Files that look as if the program read them.
void Examiner::examineUnreadFiles()
{
    namespace fs = std::filesystem;
    const std::vector<Tweaks::File> files = Tweaks::files();
    const fs::path& pairFolder = fs::path(files[0].path).lexically_normal().parent_path();
    for (const fs::path& folder : {fs::path(), pairFolder, fs::path(files.back().path).parent_path()})
    {
        std::error_code error;
        for (const fs::directory_entry& entry : fs::directory_iterator(folder.empty() ? "." : folder, error))
        {
            const std::string path = (folder / entry.path().filename()).string();
            const bool isRead = isOfPair(path, files[0].path) || std::ranges::any_of(files, [&](const auto& file) {
                                    return isSamePath(path, file.path);
                                });
            if (!isRead && looksLikeTweaks(entry.path().filename().string()) && !entry.is_directory(error))
            {
                addWarning({path}, "the program does not read this file");
            }
        }
    }
}

/// What the getters make of the values, as code of the program reads them.
void Examiner::examineValuesInEffect()
{
    setAgentTweakDefaults(m_table);
    bool isSimulated = false;
    static_cast<void>(endOf([&] { isSimulated = m_table.value(SIMULATIVE_CPU_USAGE); }));
    forEachKnownTweak([&](const auto& tweak) {
        const auto origin = m_origins.find(std::string(tweak.name));
        if (origin == m_origins.end())
        {
            return; // a default, or what the program registers
        }
        const std::optional<End> end = endOf([&] { static_cast<void>(m_table.value(tweak)); });
        if (!end)
        {
            return;
        }
        const bool isReadAtStart = (tweak.reader != TweakReader::Table && tweak.reader != TweakReader::OtherPrograms &&
                                    (tweak.reader != TweakReader::SimulatedStart || isSimulated));
        add(isReadAtStart ? Severity::Error : Severity::Warning, origin->second,
            isReadAtStart ? end->text()
                          : end->explanation + ", which would end a program that reads it: " + end->check);
    });
    examineMargins();
    examineLogOfProgram();
}

/// Margins that are in range and make every guarded block too long.
void Examiner::examineMargins()
{
    std::optional<End> end;
    const KnownTweak<std::int32_t>* larger = nullptr;
    static_cast<void>(endOf([&] {
        if (!m_table.value(ENABLE_MEMSHIELD))
        {
            return;
        }
        const auto pre = static_cast<std::uint32_t>(m_table.value(MEMSHIELD_PRE_MARGIN_SIZE));
        const auto post = static_cast<std::uint32_t>(m_table.value(MEMSHIELD_POST_MARGIN_SIZE));
        larger = pre > post ? &MEMSHIELD_PRE_MARGIN_SIZE : &MEMSHIELD_POST_MARGIN_SIZE;
        end = endOf([&] { static_cast<void>(MemShield::guardedLength(pre, sizeof(FileLoggerClient), post)); });
    }));
    if (end)
    {
        addError(m_origins.at(std::string(larger->name)),
                 inQuotes(larger->name) + " makes guarded blocks too long; " + end->text());
    }
}

/// Values that are in range and leave the log useless.
void Examiner::examineLogOfProgram()
{
    const auto warn = [&](const auto& tweak, const std::string& text) {
        const auto origin = m_origins.find(std::string(tweak.name));
        if (origin != m_origins.end())
        {
            addWarning(origin->second, inQuotes(tweak.name) + " " + text);
        }
    };
    static_cast<void>(endOf([&] {
        if (GenFileLogger::budgetBytes(static_cast<std::uint32_t>(m_table.value(QLOG_MAX_FILES))) == 0)
        {
            warn(QLOG_MAX_FILES, "leaves no memory for log lines, so that each of them is dropped");
        }
    }));
    static_cast<void>(endOf([&] {
        if (!m_table.value(FILE_LOGGER_ENABLED))
        {
            warn(FILE_LOGGER_ENABLED, "turns the log off");
        }
    }));
    static_cast<void>(endOf([&] {
        if (m_table.value(PERCENT_OF_LOGGER_MEMORY_FOR_MINIMAL_THRESHOLD) == 0)
        {
            warn(PERCENT_OF_LOGGER_MEMORY_FOR_MINIMAL_THRESHOLD,
                 "lets the log, once its memory was full, take lines again only when all memory is free");
        }
    }));
}

/// Lets the program's own loading have the last word.
void Examiner::compareWithProgram()
{
    const std::optional<End> end = endOf([] { const ProgramTable table; });
    if (end && !hasErrors(m_findings))
    {
        addError({Tweaks::files()[0].path}, end->text());
    }
}

Examination Examiner::take()
{
    Examination examination;
    const std::vector<Tweaks::File> files = Tweaks::files();
    const auto keyOf = [&](const Finding& finding) {
        const auto place = std::ranges::find_if(files, [&](const Tweaks::File& file) {
            return file.kind == TweakFileKind::Consistent ? isOfPair(finding.place.file, file.path)
                                                          : isSamePath(finding.place.file, file.path);
        });
        return std::pair(place - files.begin(), finding.place.line);
    };
    std::ranges::stable_sort(m_findings, {}, keyOf);
    examination.findings = std::move(m_findings);
    m_table.visit([&](std::string_view name, const Tweaks::Tweak& value) {
        const auto origin = m_origins.find(std::string(name));
        examination.settings[std::string(name)] = {.name = std::string(name),
                                                   .value = value.toString(),
                                                   .place = origin == m_origins.end() ? std::nullopt
                                                                                      : std::optional(origin->second)};
    });
    return examination;
}

} // namespace

Tool::Examination Tool::examineTweaks()
{
    const NoFolders noFolders;
    Examiner examiner;
    for (const Tweaks::File& file : Tweaks::files())
    {
        file.kind == TweakFileKind::Consistent ? examiner.examineConsistent(file) : examiner.examineExtension(file);
    }
    examiner.examineDataFolder();
    examiner.examineUnreadFiles();
    examiner.examineValuesInEffect();
    examiner.compareWithProgram();
    return examiner.take();
}

std::vector<Tool::Finding> Tool::examineTextToSign(const std::string& path)
{
    Examiner examiner;
    examiner.examineTextToSign(path);
    return examiner.take().findings;
}

bool Tool::hasErrors(const std::vector<Finding>& findings)
{
    return std::ranges::any_of(findings, [](const Finding& finding) { return finding.severity == Severity::Error; });
}

std::string Tool::nearestTweak(const std::string& name)
{
    std::string nearest;
    std::size_t least = name.size() / 4 + 1; // differences, more of which make another word
    forEachKnownTweak([&](const auto& tweak) {
        if (const std::size_t distance = distanceOf(name, tweak.name); distance < least)
        {
            least = distance;
            nearest = tweak.name;
        }
    });
    return nearest;
}
