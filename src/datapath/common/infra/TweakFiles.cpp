// The part of the tweaks that reads their files.

#include "datapath/common/infra/ConsistentFile.h"
#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/InputTextFile.h"
#include "datapath/common/infra/TextLines.h"
#include "datapath/common/infra/Tweaks.h"
#include "platform/Text.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <unordered_set>
#include <vector>

namespace
{

// The unit under which support knows all checks of the tweaks.
constexpr const char* TWEAKS_UNIT = "datapath/common/infra/Tweaks.cpp";
constexpr SourcePlace PLACE_LOADED = SourcePlace::numbered(160, TWEAKS_UNIT);
constexpr SourcePlace PLACE_NOT_INITIALIZED = SourcePlace::numbered(228, TWEAKS_UNIT);
constexpr SourcePlace PLACE_DEFINED_ONCE = SourcePlace::numbered(244, TWEAKS_UNIT);
constexpr SourcePlace PLACE_HAS_VALUE = SourcePlace::numbered(602, TWEAKS_UNIT);

constexpr bool STRICT = true;
constexpr bool LENIENT = false;

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

/// Before and after the first separator, both trimmed; nothing after if there is no separator.
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

/// The names that more than one line defines, in the same spelling.
std::unordered_set<std::string_view> repeatedNames(const std::deque<TweakLine>& lines)
{
    // As a rule no two names share a hash, and none need be compared: sorting names that lie all over the
    // memory would make large files slow out of proportion.
    std::vector<std::size_t> hashes(lines.size());
    std::ranges::transform(lines, hashes.begin(), std::hash<std::string_view>(), &TweakLine::name);
    std::ranges::sort(hashes);
    if (std::ranges::adjacent_find(hashes) == hashes.end())
    {
        return {};
    }
    std::unordered_set<std::string_view> seen;
    std::unordered_set<std::string_view> repeated;
    for (const TweakLine& line : lines)
    {
        if (!seen.insert(line.name).second)
        {
            repeated.insert(line.name);
        }
    }
    return repeated;
}

} // namespace

std::deque<TweakLine> Tweaks::getTweaksFromStream(std::istream& stream, bool strict)
{
    std::deque<TweakLine> parsed;
    for (TextLines lines(stream); const auto line = lines.next();)
    {
        const auto [content, comment] = splitAt(*line, ';');
        if (content.empty())
        {
            continue;
        }
        const auto [name, valueText] = splitAt(content, '=');
        if (valueText)
        {
            parsed.push_back({std::string(name), std::string(*valueText), std::string(comment.value_or(""))});
        }
        else if (strict)
        {
            std::cerr << "tweak line without \"=\": " << content << std::endl;
            failAssertion(LoggerId::NON, THIS_METHOD, PLACE_HAS_VALUE, "false");
        }
    }
    return parsed;
}

void Tweaks::update(std::istream& stream, std::deque<TweakLine>& lines, bool strict)
{
    if (m_isInitialized)
    {
        CheckFailure(LoggerId::NON, THIS_METHOD, PLACE_NOT_INITIALIZED, "isPeriodicUpdate || !m_isInitialized")
            << "Trying to update non-periodically after initialization" << std::endl;
    }
    lines = getTweaksFromStream(stream, strict);
    reserve(lines.size());
    const std::unordered_set<std::string_view> repeated = repeatedNames(lines);
    for (TweakLine& line : lines)
    {
        if (!repeated.contains(line.name))
        {
            update(line.name, line.valueText);
            continue;
        }
        const std::string report = "multiple definition for tweak \"" + line.name + "\"";
        std::cout << report + "\n"; // in one piece, for where standard output has no buffer
        line.comment = "Multiple definitions of this tweak, pick one.";
        LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD) << report << std::endl;
        if (strict)
        {
            std::cerr << report << " (in " << m_fileName << ")" << std::endl;
            failAssertion(LoggerId::NON, THIS_METHOD, PLACE_DEFINED_ONCE, "!strict");
        }
    }
    std::cout.flush();
}

void Tweaks::update(std::istream& stream, bool strict)
{
    std::deque<TweakLine> lines;
    update(stream, lines, strict);
}

bool Tweaks::updateFromFile(const std::string& path)
{
    InputTextFile file(path);
    if (!file.isOpen())
    {
        LogItem(LoggerId::NON, LogLevel::Error, THIS_METHOD)
            << "Failed to open " << path << "while trying to update tweaks from it" << std::endl;
        return false;
    }
    m_fileName = path;
    update(file, LENIENT);
    m_fileName.clear();
    return true;
}

void Tweaks::loadFromFiles()
{
    // Two separators count as one, and messages show both.
    const std::string consistentFile = "olm_tweaks" + std::string(2, platform::PATH_SEPARATOR) + "tweaks.txt";
    std::stringstream text;
    if (ConsistentFile(consistentFile).load(text) != RC_OK)
    {
        std::cerr << consistentFile << " has no valid copy" << std::endl;
        CheckFailure(LoggerId::NON, THIS_METHOD, PLACE_LOADED, "false")
            << "Could not load consistent tweak information" << std::endl;
    }
    m_fileName = consistentFile;
    update(text, STRICT);
    m_fileName.clear();

    if (!updateFromFile(EXTENSION_FILE))
    {
        LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
            << "local tweaks file \"" << EXTENSION_FILE << "\" not found" << std::endl;
    }
    // An old mistake left the separator out of one of these paths. Files exist in both places.
    for (const std::size_t separators : {0U, 1U})
    {
        const std::string path = SURVIVING_FOLDER + std::string(separators, platform::PATH_SEPARATOR) + SURVIVING_FILE;
        if (!updateFromFile(path))
        {
            LogItem(LoggerId::NON, LogLevel::Info, THIS_METHOD)
                << "local upgrade-surviving tweaks file \"" << path << "\" not found" << std::endl;
        }
    }
}
