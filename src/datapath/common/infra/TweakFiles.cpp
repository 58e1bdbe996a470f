// The part of Tweaks that reads files.

#include "datapath/common/infra/ConsistentFile.h"
#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/InputTextFile.h"
#include "datapath/common/infra/Tweaks.h"
#include "datapath/common/infra/base/TextLines.h"
#include "platform/Text.h"

#include <bit>
#include <cstdint>
#include <iostream>
#include <optional>
#include <sstream>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace
{

// Support knows the checks of this file under the unit Tweaks.cpp.
constexpr const char* TWEAKS_UNIT = "datapath/common/infra/Tweaks.cpp";
constexpr SourcePlace PLACE_LOADED = SourcePlace::numbered(160, TWEAKS_UNIT);
constexpr SourcePlace PLACE_NOT_INITIALIZED = SourcePlace::numbered(228, TWEAKS_UNIT);
constexpr SourcePlace PLACE_DEFINED_ONCE = SourcePlace::numbered(244, TWEAKS_UNIT);
constexpr SourcePlace PLACE_HAS_VALUE = SourcePlace::numbered(602, TWEAKS_UNIT);

// Support knows the lines of applyText under this method.
constexpr MethodText METHOD_UPDATE = MethodText::of("Tweaks::update");

constexpr const char* EXTENSION_FILE = "tweaks_extension.txt";
constexpr const char* SURVIVING_FOLDER = "test_appdata";
constexpr const char* SURVIVING_FILE = "tweaks_extension_upgrade_surviving.txt";

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t\r\n";
    const std::size_t first = text.find_first_not_of(BLANKS);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

/// The trimmed parts of a text before and after its first separator; no second part without a separator.
struct Split
{
    std::string_view before;
    std::optional<std::string_view> after;
};

Split splitAt(std::string_view text, char separator)
{
    const std::size_t place = text.find(separator);
    if (place == std::string_view::npos)
    {
        return {trimmed(text), std::nullopt};
    }
    return {trimmed(text.substr(0, place)), trimmed(text.substr(place + 1))};
}

/// The names that at least two of the given lines have in the same spelling. The lines must outlive this object.
///
/// As a rule all names differ. A set of their hash values then shows that none is repeated, without looking at the
/// names again. With a set of all names, loading 200,000 lines would take a fifth more time, as the benchmark
/// loadTweaks shows. The set of names is made only if two hash values are equal.
class RepeatedNames
{
public:
    explicit RepeatedNames(const std::deque<TweakLine>& lines)
    {
        if (!areAllHashesDifferent(lines))
        {
            collect(lines);
        }
    }

    [[nodiscard]] bool contains(std::string_view name) const { return m_names.contains(name); }

private:
    static bool areAllHashesDifferent(const std::deque<TweakLine>& lines)
    {
        std::vector<std::uint64_t> hashes(std::bit_ceil(2 * lines.size() + 1)); // 0: an empty place
        for (const TweakLine& line : lines)
        {
            const std::uint64_t hash = CaseInsensitiveHash()(line.name) | 1U;
            std::size_t place = hash >> 1U;
            for (; hashes[place & (hashes.size() - 1)] != 0; ++place)
            {
                if (hashes[place & (hashes.size() - 1)] == hash)
                {
                    return false;
                }
            }
            hashes[place & (hashes.size() - 1)] = hash;
        }
        return true;
    }

    void collect(const std::deque<TweakLine>& lines)
    {
        std::unordered_set<std::string_view> seen;
        for (const TweakLine& line : lines)
        {
            if (!seen.insert(line.name).second)
            {
                m_names.insert(line.name);
            }
        }
    }

    std::unordered_set<std::string_view> m_names;
};

} // namespace

std::vector<Tweaks::File> Tweaks::files()
{
    // The operating system takes two separators for one. Messages show both. The third path lacks its separator by an
    // old mistake; files exist in both places.
    const auto inFolder = [](const char* folder, std::size_t separators, const char* file) {
        std::string path = folder;
        path.append(separators, platform::PATH_SEPARATOR);
        path += file;
        return path;
    };
    return {{inFolder("olm_tweaks", 2, "tweaks.txt"), TweakFileKind::Consistent},
            {EXTENSION_FILE, TweakFileKind::Extension},
            {inFolder(SURVIVING_FOLDER, 0, SURVIVING_FILE), TweakFileKind::Extension},
            {inFolder(SURVIVING_FOLDER, 1, SURVIVING_FILE), TweakFileKind::Extension}};
}

std::deque<TweakLine> Tweaks::getTweaksFromStream(std::istream& text, TweakFileKind kind)
{
    std::deque<TweakLine> parsed;
    for (TextLines lines(text); const auto line = lines.next();)
    {
        const auto [content, comment] = splitAt(*line, ';');
        if (content.empty())
        {
            continue;
        }
        const auto [name, valueText] = splitAt(content, '=');
        if (valueText)
        {
            TweakLine& parsedLine = parsed.emplace_back();
            parsedLine.name = name;
            parsedLine.valueText = *valueText;
            parsedLine.comment = comment.value_or("");
        }
        else if (kind == TweakFileKind::Consistent)
        {
            std::cerr << "tweak line without \"=\": " << content << std::endl;
            failAssertion(LoggerId::NON, TAVRO_METHOD, PLACE_HAS_VALUE, "false");
        }
    }
    return parsed;
}

std::deque<TweakLine> Tweaks::applyConsistentText(std::istream& text)
{
    return applyText(text, TweakFileKind::Consistent);
}

std::deque<TweakLine> Tweaks::applyExtensionText(std::istream& text)
{
    return applyText(text, TweakFileKind::Extension);
}

std::deque<TweakLine> Tweaks::applyText(std::istream& text, TweakFileKind kind)
{
    if (m_isInitialized)
    {
        CheckFailure(LoggerId::NON, METHOD_UPDATE, PLACE_NOT_INITIALIZED, "isPeriodicUpdate || !m_isInitialized")
            << "Trying to update non-periodically after initialization" << std::endl;
    }
    std::deque<TweakLine> lines = getTweaksFromStream(text, kind);
    reserve(lines.size());
    const RepeatedNames repeated(lines);
    for (TweakLine& line : lines)
    {
        if (!repeated.contains(line.name))
        {
            update(line.name, line.valueText);
            continue;
        }
        const std::string report = "multiple definition for tweak \"" + line.name + "\"";
        std::cout << report + "\n"; // one write even where standard output has no buffer
        line.comment = "Multiple definitions of this tweak, pick one.";
        LogItem(LoggerId::NON, LogLevel::Error, METHOD_UPDATE) << report << std::endl;
        if (kind == TweakFileKind::Consistent)
        {
            std::cerr << report << " (in " << m_fileName << ")" << std::endl;
            failAssertion(LoggerId::NON, METHOD_UPDATE, PLACE_DEFINED_ONCE, "!strict");
        }
    }
    std::cout.flush();
    return lines;
}

bool Tweaks::updateFromFile(const std::string& path)
{
    InputTextFile file(path);
    if (!file.isOpen())
    {
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD)
            << "Failed to open " << path << "while trying to update tweaks from it" << std::endl;
        return false;
    }
    m_fileName = path;
    applyExtensionText(file);
    m_fileName.clear();
    return true;
}

void Tweaks::loadFromFiles()
{
    const std::vector<File> all = files();
    const std::string& consistentFile = all[0].path;
    std::stringstream text;
    if (ConsistentFile(consistentFile).load(text) != RC_OK)
    {
        std::cerr << consistentFile << " has no valid copy" << std::endl;
        CheckFailure(LoggerId::NON, TAVRO_METHOD, PLACE_LOADED, "false")
            << "Could not load consistent tweak information" << std::endl;
    }
    m_fileName = consistentFile;
    applyConsistentText(text);
    m_fileName.clear();

    for (std::size_t i = 1; i < all.size(); ++i)
    {
        if (!updateFromFile(all[i].path))
        {
            LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
                << (i == 1 ? "local tweaks file \"" : "local upgrade-surviving tweaks file \"") << all[i].path
                << "\" not found" << std::endl;
        }
    }
}
