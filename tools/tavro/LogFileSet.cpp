#include "tools/tavro/LogFileSet.h"

#include "platform/Files.h"
#include "platform/Shell.h"
#include "platform/Text.h"
#include "tools/tavro/Command.h"
#include "tools/tavro/SystemFacts.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <map>
#include <string_view>
#include <system_error>

namespace Tool
{

namespace
{

constexpr std::string_view PROGRAM_LOG = "TavroVssAgentGUI.exe.log";
constexpr std::string_view LOG_END = ".log"; // of the base of every log that is looked for in a folder
constexpr std::size_t LEAST_DIGITS = 6;

bool removeEnd(std::string_view& text, std::string_view end)
{
    if (!text.ends_with(end))
    {
        return false;
    }
    text.remove_suffix(end.size());
    return true;
}

std::string folderOf(const std::string& path)
{
    const std::size_t separator = path.find_last_of(platform::PATH_SEPARATOR == '/' ? "/" : "\\/");
    return separator == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(separator, 1));
}

/// The files of a folder whose names begin with the base, or with any if it is empty. The paths begin as the base does.
std::vector<LogPath> filesIn(const std::string& folder, const std::string& prefix)
{
    std::vector<LogPath> files;
    platform::FolderEntry entry;
    auto [handle, error] = platform::findFirstEntry(folder.c_str(), entry);
    const platform::OwnedFolder owner(handle);
    for (; error == platform::ErrorNumber::Success; error = platform::findNextEntry(owner.get(), entry))
    {
        if (!entry.isFolder)
        {
            files.push_back(logPath(prefix + entry.name));
        }
    }
    return files;
}

bool isOlder(const LogPath& left, const LogPath& right)
{
    return left.number != right.number ? left.number < right.number : left.path < right.path;
}

/// The logs of a folder, by name.
std::vector<LogPath> logsIn(const std::string& folder)
{
    const bool hasSeparator = folder.ends_with('/') || folder.ends_with(platform::PATH_SEPARATOR);
    std::vector<LogPath> files = filesIn(folder, hasSeparator ? folder : folder + platform::PATH_SEPARATOR);
    std::erase_if(files, [](const LogPath& file) { return file.base == file.path || !file.base.ends_with(LOG_END); });
    std::ranges::sort(files, {}, [](const LogPath& file) { return file.path; });
    if (files.empty())
    {
        throw Misuse(folder + ": there is no log in this folder");
    }
    std::map<std::string, std::uint64_t> lastNumbers;
    for (const LogPath& file : files)
    {
        std::uint64_t& last = lastNumbers[file.base];
        last = file.number < LogPath::COMPRESSED_LIVE ? std::max(last, file.number) : last;
    }
    std::ranges::for_each(files, [&](LogPath& file) { file.lastNumber = lastNumbers[file.base]; });
    return files;
}

std::vector<LogPath> programLog()
{
    std::array<char, platform::PATH_BUFFER_SIZE> path{};
    if (platform::commonAppDataFolder(path.data()) != 0)
    {
        throw Misuse("the system has no folder for the data of programs");
    }
    const bool fits = platform::appendToPath(path.data(), "Tavro") && platform::appendToPath(path.data(), "logs") &&
                      platform::appendToPath(path.data(), std::string(PROGRAM_LOG).c_str());
    const std::string base = fits ? path.data() : "";
    std::vector<LogPath> files;
    for (const std::string_view end : {".txt.gz", ".txt"})
    {
        if (const std::string live = base + std::string(end); platform::pathExists(live.c_str()))
        {
            files.push_back(logPath(live));
        }
    }
    // The numbered files are listed last: a live file that was just being renamed is one of them.
    const std::vector<LogPath> numbered = numberedFilesOf(base);
    for (LogPath& live : files)
    {
        live.lastNumber = numbered.empty() ? 0 : numbered.back().number;
    }
    files.insert(files.begin(), numbered.begin(), numbered.end());
    if (files.empty())
    {
        const std::string file = base + ".txt";
        std::error_code error;
        static_cast<void>(std::filesystem::status(pathOf(file), error));
        throw Misuse(file + (error == std::errc::permission_denied ? ": this user may not look into its folder"
                                                                   : ": there is no log of the checkpoint program"));
    }
    return files;
}

/// The log of the program, or what one name stands for.
std::vector<LogPath> filesNamed(const std::string& name)
{
    std::error_code ignored;
    if (name == "-")
    {
        return {LogPath{.path = name, .base = name}};
    }
    if (std::filesystem::is_directory(pathOf(name), ignored))
    {
        return logsIn(name);
    }
    if (!platform::pathExists(name.c_str()))
    {
        throw Misuse(name + ": there is no such file");
    }
    LogPath path = logPath(name);
    path.lastNumber = path.number == LogPath::LIVE ? highestNumberOf(path.base) : 0;
    return {path};
}

/// Puts the files of each log together, oldest first. Logs keep the order in which they come first.
std::vector<LogPath> inOrder(const std::vector<LogPath>& files)
{
    std::vector<LogPath> ordered;
    for (const LogPath& file : files)
    {
        const bool isKnown =
            std::ranges::any_of(ordered, [&](const LogPath& other) { return other.base == file.base; });
        if (!isKnown)
        {
            const auto first = static_cast<std::ptrdiff_t>(ordered.size());
            std::ranges::copy_if(files, std::back_inserter(ordered),
                                 [&](const LogPath& other) { return other.base == file.base; });
            std::stable_sort(ordered.begin() + first, ordered.end(), isOlder);
        }
    }
    return ordered;
}

} // namespace

LogPath logPath(const std::string& path)
{
    std::string_view name = path;
    const bool isCompressed = removeEnd(name, ".gz");
    if (!removeEnd(name, ".txt"))
    {
        return {.path = path, .base = path};
    }
    const auto* const firstDigit = std::find_if_not(name.rbegin(), name.rend(), isDigit).base();
    const std::string_view digits(firstDigit, name.end());
    std::uint64_t number = 0;
    const bool isNumbered = digits.size() >= LEAST_DIGITS &&
                            std::from_chars(digits.data(), digits.data() + digits.size(), number).ec == std::errc() &&
                            number < LogPath::COMPRESSED_LIVE;
    if (isNumbered)
    {
        return {.path = path, .base = std::string(name.begin(), firstDigit), .number = number};
    }
    return {.path = path, .base = std::string(name), .number = isCompressed ? LogPath::COMPRESSED_LIVE : LogPath::LIVE};
}

std::vector<LogPath> logPathsOf(const std::vector<std::string>& names)
{
    std::vector<LogPath> files = names.empty() ? programLog() : std::vector<LogPath>();
    for (const std::string& name : names)
    {
        const std::vector<LogPath> more = filesNamed(name);
        files.insert(files.end(), more.begin(), more.end());
    }
    return inOrder(files);
}

std::vector<LogPath> numberedFilesOf(const std::string& base)
{
    const std::string folder = folderOf(base);
    const std::size_t length = base.find_last_of(platform::PATH_SEPARATOR == '/' ? "/" : "\\/") + 1;
    std::vector<LogPath> files = filesIn(folder, base.substr(0, length));
    std::erase_if(files,
                  [&](const LogPath& file) { return file.base != base || file.number >= LogPath::COMPRESSED_LIVE; });
    std::ranges::sort(files, isOlder);
    return files;
}

std::uint64_t highestNumberOf(const std::string& base)
{
    const std::vector<LogPath> numbered = numberedFilesOf(base);
    return numbered.empty() ? 0 : numbered.back().number;
}

} // namespace Tool
