// The files of a GenFileLogger: their names, and how the live file becomes a numbered one.

#include "datapath/common/infra/GenFileLogger.h"
#include "datapath/common/infra/NumberText.h"
#include "platform/Text.h"

#include <algorithm>
#include <iostream>
#include <limits>
#include <system_error>

namespace
{

constexpr std::string_view TEXT_SUFFIX = ".txt";
constexpr std::string_view COMPRESSED_SUFFIX = ".gz";
constexpr std::size_t FILLED_WIDTH = 6;

std::string withSuffixes(std::string name, bool isCompressed)
{
    return name.append(TEXT_SUFFIX).append(isCompressed ? COMPRESSED_SUFFIX : "");
}

/// What stands before a name of the folder to make it comparable with the base path.
std::string prefixOf(const std::string& directory, const std::string& basePath)
{
    if (platform::PATH_SEPARATOR == '/')
    {
        return basePath.substr(0, basePath.rfind('/') + 1); // "./" or "/" as well
    }
    return directory == "." ? "" : directory + platform::PATH_SEPARATOR;
}

/// The C library's number and text.
std::string described(int error) { return std::to_string(error) + "(" + std::generic_category().message(error) + ")"; }

/// Numbered files, by which the oldest is removed for each one that is added.
class NumberedFiles
{
public:
    void add(std::int32_t number, const std::string& path) { m_files.push_back({number, path}); }

    [[nodiscard]] std::int64_t nextNumber() const
    {
        return m_files.empty() ? 1 : std::int64_t{std::ranges::max_element(m_files, {}, &File::number)->number} + 1;
    }

    [[nodiscard]] bool isFull(std::uint32_t maxFiles) const { return !m_files.empty() && m_files.size() >= maxFiles; }

    [[nodiscard]] std::string takeOldest()
    {
        const auto oldest = std::ranges::min_element(m_files, {}, &File::number);
        std::string path = std::move(oldest->path);
        m_files.erase(oldest);
        return path;
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

bool GenFileLogger::openLogFile()
{
    if (m_stream.open(withSuffixes(m_basePath, false)))
    {
        return true;
    }
    std::cout << "failed to open logger file. going to work without logger" << std::endl;
    return false;
}

std::string GenFileLogger::liveFileName() const
{
    const std::string name = withSuffixes(m_basePath, false);
    return m_enabled && platform::pathExists(name.c_str()) ? name : "";
}

void GenFileLogger::rotate()
{
    std::vector<std::string> files;
    if (!listLogDirectory(files))
    {
        std::cerr << "failed to enumerate files" << std::endl;
        return;
    }
    const std::string liveFile = withSuffixes(m_basePath, false);
    const std::string compressedLiveFile = withSuffixes(m_basePath, true);
    bool hasCompressedLiveFile = false;
    NumberedFiles numbered;
    for (const std::string& file : files)
    {
        if (file == compressedLiveFile)
        {
            hasCompressedLiveFile = true;
        }
        else if (file.starts_with(m_basePath) && file != liveFile)
        {
            numbered.add(fileNumber(file, m_basePath.size()), file);
        }
    }
    std::int64_t next = numbered.nextNumber();
    if (hasCompressedLiveFile)
    {
        renameLogFile(compressedLiveFile, rotatedFileName(next++, m_compressOnRotate));
        if (numbered.isFull(m_maxFiles))
        {
            removeLogFile(numbered.takeOldest());
        }
    }
    m_stream.close();
    renameLogFile(liveFile, rotatedFileName(next, m_compressOnRotate));
    if (numbered.isFull(m_maxFiles))
    {
        removeLogFile(numbered.takeOldest());
    }
    openLogFile();
}

std::string GenFileLogger::rotatedFileName(std::int64_t number, bool isCompressed) const
{
    const std::string digits = std::to_string(number);
    return withSuffixes(m_basePath + std::string(FILLED_WIDTH - std::min(FILLED_WIDTH, digits.size()), '0') + digits,
                        isCompressed);
}

bool GenFileLogger::listLogDirectory(std::vector<std::string>& files) const
{
    using platform::ErrorNumber;
    platform::FolderEntry entry;
    const auto [walk, firstError] = platform::findFirstEntry(m_directory.c_str(), entry);
    if (firstError != ErrorNumber::Success)
    {
        std::cerr << "FindFirstFile failed (" << static_cast<std::uint32_t>(firstError) << ")" << std::endl;
        return false;
    }
    const std::string prefix = prefixOf(m_directory, m_basePath);
    ErrorNumber error = firstError;
    for (; error == ErrorNumber::Success; error = platform::findNextEntry(walk, entry))
    {
        if (!entry.isFolder)
        {
            files.push_back(prefix + entry.name);
        }
    }
    platform::closeFolder(walk);
    return error == ErrorNumber::NoMoreFiles;
}

std::int32_t GenFileLogger::fileNumber(std::string_view path, std::size_t baseLength)
{
    std::string_view tail = path.substr(baseLength);
    tail = tail.substr(0, tail.find(TEXT_SUFFIX));
    tail = tail.substr(0, tail.find(COMPRESSED_SUFFIX));
    using Number = std::numeric_limits<std::int32_t>;
    const std::int64_t number = extractNumber(tail, 10).value_or(0);
    return number < Number::min() || number > Number::max() ? 0 : static_cast<std::int32_t>(number);
}

void GenFileLogger::removeLogFile(const std::string& path)
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

void GenFileLogger::renameLogFile(const std::string& from, const std::string& to)
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
