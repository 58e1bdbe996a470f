#include "datapath/common/infra/LogFiles.h"

#include "datapath/common/infra/base/NumberText.h"
#include "platform/Files.h"
#include "platform/Text.h"

#include <algorithm>
#include <iostream>
#include <optional>
#include <system_error>
#include <utility>

namespace
{

constexpr std::string_view TEXT_SUFFIX = ".txt";
constexpr std::string_view COMPRESSED_SUFFIX = ".gz";
constexpr std::size_t MIN_DIGITS = 6;

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

std::string withSuffixes(std::string name, bool isCompressed)
{
    return name.append(TEXT_SUFFIX).append(isCompressed ? COMPRESSED_SUFFIX : "");
}

/// What the name of a file in the folder is to begin with, so that it can be compared with the base path.
std::string prefixOf(const std::string& directory, const std::string& basePath)
{
    if (platform::PATH_SEPARATOR == '/')
    {
        return basePath.substr(0, basePath.rfind('/') + 1); // keeps "./" and "/" too
    }
    return directory == "." ? "" : directory + platform::PATH_SEPARATOR;
}

/// The number of a numbered file, given what follows the base path in its name: "000042.txt.gz". A name without a
/// number counts as 0.
std::int32_t fileNumber(std::string_view tail)
{
    tail = tail.substr(0, tail.find(TEXT_SUFFIX));
    tail = tail.substr(0, tail.find(COMPRESSED_SUFFIX));
    const std::int64_t number = extractNumber(tail, 10).value_or(0);
    return std::in_range<std::int32_t>(number) ? static_cast<std::int32_t>(number) : 0;
}

/// The number and the description of an error of the C library.
std::string described(int error) { return std::to_string(error) + "(" + std::generic_category().message(error) + ")"; }

void removeLogFile(const std::string& path)
{
    if (!platform::pathExists(path.c_str()))
    {
        return;
    }
    if (const int error = platform::removeFile(path.c_str()); error != 0)
    {
        std::cerr << "Error removing file name=" << path << " err=" << described(error) << std::endl;
    }
}

void renameLogFile(const std::string& from, const std::string& to)
{
    if (!platform::pathExists(from.c_str()))
    {
        return;
    }
    if (const int error = platform::renameFile(from.c_str(), to.c_str()); error != 0)
    {
        std::cerr << "Error renaming file orig=" << from << " target=" << to << " err=" << described(error)
                  << std::endl;
    }
}

/// The numbered files of a folder. Of two with the same number, either may count as the older one.
class NumberedFiles
{
public:
    void add(std::int32_t number, const std::string& path) { m_files.push_back({number, path}); }

    [[nodiscard]] std::int64_t nextNumber() const
    {
        return m_files.empty() ? 1 : std::int64_t{std::ranges::max_element(m_files, {}, &File::number)->number} + 1;
    }

    /// Removes the oldest file if there are maxFiles or more. A file that was given its number after the folder was
    /// listed does not count.
    void makeRoom(std::uint32_t maxFiles)
    {
        if (m_files.empty() || m_files.size() < maxFiles)
        {
            return;
        }
        const auto oldest = std::ranges::min_element(m_files, {}, &File::number);
        removeLogFile(oldest->path);
        m_files.erase(oldest);
    }

private:
    struct File
    {
        std::int32_t number;
        std::string path;
    };

    std::vector<File> m_files;
};

} // namespace

LogFiles::LogFiles(Settings settings) : m_settings(std::move(settings)), m_directory(directoryOf(m_settings.basePath))
{
}

bool LogFiles::open()
{
    const platform::ErrorNumber error = platform::createFolder(m_directory.c_str());
    if (error != platform::ErrorNumber::Success && error != platform::ErrorNumber::AlreadyExists)
    {
        std::cout << "Error creating directory (" << m_directory << ") for logs (rt=" << 0 << ")"
                  << "GetLastError " << static_cast<std::uint32_t>(error) << std::endl;
    }
    return openLiveFile();
}

bool LogFiles::openLiveFile()
{
    if (m_stream.open(liveFile(m_settings.basePath)))
    {
        return true;
    }
    std::cout << "failed to open logger file. going to work without logger" << std::endl;
    return false;
}

std::string LogFiles::liveFile(const std::string& basePath) { return withSuffixes(basePath, false); }

void LogFiles::rotate()
{
    const std::string& basePath = m_settings.basePath;
    const std::optional<std::vector<std::string>> files = listLogDirectory();
    if (!files)
    {
        std::cerr << "failed to enumerate files" << std::endl;
        return;
    }
    const std::string live = liveFile(basePath);
    const std::string compressedLive = withSuffixes(basePath, true);
    bool hasCompressedLive = false;
    NumberedFiles numbered;
    for (const std::string& file : *files)
    {
        if (file == compressedLive)
        {
            hasCompressedLive = true;
        }
        else if (file.starts_with(basePath) && file != live)
        {
            numbered.add(fileNumber(std::string_view(file).substr(basePath.size())), file);
        }
    }
    std::int64_t next = numbered.nextNumber();
    if (hasCompressedLive)
    {
        renameLogFile(compressedLive, rotatedFileName(next++));
        numbered.makeRoom(m_settings.maxFiles);
    }
    m_stream.close();
    renameLogFile(live, rotatedFileName(next));
    numbered.makeRoom(m_settings.maxFiles);
    static_cast<void>(openLiveFile()); // while none is open, texts are dropped
}

std::string LogFiles::rotatedFileName(std::int64_t number) const
{
    const std::string digits = std::to_string(number);
    const std::string filling(MIN_DIGITS - std::min(MIN_DIGITS, digits.size()), '0');
    return withSuffixes(m_settings.basePath + filling + digits, m_compressOnRotate);
}

/// The paths of the plain files in the folder; nullopt if it cannot be read to its end.
std::optional<std::vector<std::string>> LogFiles::listLogDirectory() const
{
    using platform::ErrorNumber;
    platform::FolderEntry entry;
    auto [handle, error] = platform::findFirstEntry(m_directory.c_str(), entry);
    const platform::OwnedFolder folder(handle);
    if (error != ErrorNumber::Success)
    {
        std::cerr << "FindFirstFile failed (" << static_cast<std::uint32_t>(error) << ")" << std::endl;
        return std::nullopt;
    }
    const std::string prefix = prefixOf(m_directory, m_settings.basePath);
    std::vector<std::string> files;
    for (; error == ErrorNumber::Success; error = platform::findNextEntry(folder.get(), entry))
    {
        if (!entry.isFolder)
        {
            files.push_back(prefix + entry.name);
        }
    }
    return error == ErrorNumber::NoMoreFiles ? std::optional(std::move(files)) : std::nullopt;
}
