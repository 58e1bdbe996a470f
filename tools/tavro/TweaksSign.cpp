#include "datapath/common/infra/ConsistentFile.h"
#include "datapath/common/infra/base/Crc32.h"
#include "platform/Files.h"
#include "platform/Text.h"
#include "platform/Threads.h"
#include "tools/tavro/Command.h"
#include "tools/tavro/TweaksPair.h"
#include "tools/tavro/TweaksReport.h"

#include <array>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

namespace
{

using platform::ErrorNumber;
using Tool::Misuse;

constexpr const char* WORKING_FOLDER = ".";

void require(ErrorNumber error, const std::string& what)
{
    if (error != ErrorNumber::Success)
    {
        throw Misuse(what + ": " + Tool::errorText(error));
    }
}

std::string readAll(const std::string& path)
{
    const platform::OpenedFile opened = platform::openFile(path.c_str(), platform::OpenMode::Read);
    const platform::OwnedFile file(opened.handle);
    require(opened.error, path);
    std::string bytes;
    std::array<char, 65536> buffer{};
    while (true)
    {
        const platform::Transfer part = platform::readFile(file.get(), buffer.data(), buffer.size());
        require(part.error, path);
        if (part.bytes == 0)
        {
            return bytes;
        }
        bytes.append(buffer.data(), part.bytes);
    }
}

ErrorNumber writeAll(platform::FileHandle file, std::string_view bytes)
{
    while (!bytes.empty())
    {
        const platform::Transfer part = platform::writeFile(file, bytes.data(), bytes.size());
        if (part.error != ErrorNumber::Success)
        {
            return part.error;
        }
        bytes.remove_prefix(part.bytes);
    }
    return ErrorNumber::Success;
}

/// Windows does not replace a file that another program has open. A program that starts, or a virus scanner, has it
/// open for a moment only, so this waits.
ErrorNumber replaceWhenClosed(const std::string& from, const std::string& to)
{
    constexpr int ATTEMPTS = 40;
    constexpr std::uint32_t PAUSE_MS = 50;
    ErrorNumber error = ErrorNumber::Success;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt)
    {
        error = platform::replaceFile(from.c_str(), to.c_str());
        if (error != ErrorNumber::AccessDenied && error != ErrorNumber::SharingViolation)
        {
            return error;
        }
        platform::sleepMs(PAUSE_MS);
    }
    return error;
}

void discardFile(const std::string& path) { static_cast<void>(platform::removeFile(path.c_str())); }

/// Makes a file that did not exist, and returns when it is on the disk. Leaves none behind if that fails.
void writeNewFile(const std::string& path, std::string_view bytes)
{
    const platform::OpenedFile opened = platform::openFile(path.c_str(), platform::OpenMode::CreateNew);
    require(opened.error, path);
    ErrorNumber error = writeAll(opened.handle, bytes);
    if (error == ErrorNumber::Success)
    {
        error = platform::flushFile(opened.handle);
    }
    const ErrorNumber closing = platform::closeFile(opened.handle);
    if (error == ErrorNumber::Success)
    {
        error = closing;
    }
    if (error != ErrorNumber::Success)
    {
        discardFile(path);
    }
    require(error, path);
}

/// The lines of a file without their ends. Carriage returns before an end, and at the end of a last line without a line
/// feed, are left out: they have no meaning, and a reader would drop one of them.
std::vector<std::string> linesOf(std::string_view bytes)
{
    std::vector<std::string> lines;
    while (!bytes.empty())
    {
        const std::size_t end = std::min(bytes.find('\n'), bytes.size());
        std::string_view line = bytes.substr(0, end);
        while (line.ends_with('\r'))
        {
            line.remove_suffix(1);
        }
        lines.emplace_back(line);
        bytes.remove_prefix(std::min(end + 1, bytes.size()));
    }
    return lines;
}

/// A copy that is to be written: where it goes and what it consists of.
struct NewCopy
{
    std::int32_t slot;
    std::uint64_t sequence;
    std::string text; // each line with a line feed
    std::uint32_t crc;

    [[nodiscard]] std::string signature() const { return std::to_string(sequence) + "\n" + std::to_string(crc) + "\n"; }
};

NewCopy copyOf(const std::vector<std::string>& lines, const ConsistentFile::Look& look)
{
    if (look.nextSequence == 0)
    {
        throw Misuse(Tool::pairPath() + ": the newest copy has the greatest number that there is");
    }
    NewCopy copy{.slot = look.nextSlot, .sequence = look.nextSequence, .text = {}, .crc = 0};
    for (const std::string& line : lines)
    {
        copy.text += line + "\n";
    }
    Crc32 crc;
    crc.update(copy.text);
    copy.crc = crc.value();
    return copy;
}

/// Writes a copy over the one in its place. Both files are on the disk under other names before the first of them is
/// put there: a full disk changes nothing. While only the data are in their place, the copy has the signature of the
/// old data and is not valid; the other copy is.
void replaceCopy(const NewCopy& copy)
{
    const ConsistentFile file(Tool::pairPath());
    const std::string newData = Tool::pairPath() + ".new";
    const std::string newSignature = newData + ".sig";
    const std::string folder = Tool::pairFolder();
    discardFile(newData); // of a signing that was interrupted
    discardFile(newSignature);
    const auto put = [&](const std::string& from, const std::string& to) {
        require(replaceWhenClosed(from, to), to);
        require(platform::flushFolder(folder.c_str()), folder);
    };
    try
    {
        writeNewFile(newData, copy.text);
        writeNewFile(newSignature, copy.signature());
        put(newData, file.dataFileName(copy.slot));
        put(newSignature, file.signatureFileName(copy.slot));
    }
    catch (const Misuse&)
    {
        discardFile(newData);
        discardFile(newSignature);
        throw;
    }
}

/// The folder in which a first pair is made before it gets its name.
class Staging
{
public:
    Staging() : m_folder(Tool::pairFolder() + ".new")
    {
        discard(); // of a signing that was interrupted
        require(platform::createFolder(m_folder.c_str()), m_folder);
    }
    Staging(const Staging&) = delete;
    Staging& operator=(const Staging&) = delete;
    ~Staging() { discard(); }

    /// Puts the pair into its place, which must be free.
    void publish(const NewCopy& copy) const
    {
        writeNewFile(m_file.dataFileName(copy.slot), copy.text);
        writeNewFile(m_file.signatureFileName(copy.slot), copy.signature());
        require(platform::flushFolder(m_folder.c_str()), m_folder);
        const std::string folder = Tool::pairFolder();
        if (const int error = platform::renameFile(m_folder.c_str(), folder.c_str()); error != 0)
        {
            throw Misuse(m_folder + " could not be renamed to " + folder + ": " +
                         std::generic_category().message(error));
        }
        require(platform::flushFolder(WORKING_FOLDER), WORKING_FOLDER);
    }

private:
    /// Removes the folder if nothing but a pair is in it.
    void discard() const
    {
        for (std::int32_t slot = 0; slot < ConsistentFile::SLOT_COUNT; ++slot)
        {
            discardFile(m_file.dataFileName(slot));
            discardFile(m_file.signatureFileName(slot));
        }
        static_cast<void>(platform::removeFolder(m_folder.c_str()));
    }

    const std::string m_folder;
    const ConsistentFile m_file{m_folder + Tool::pairPath().substr(Tool::pairFolder().size())};
};

/// Moves a file that has the name of the pair's folder to another name.
void moveFileAside()
{
    const std::string from = Tool::pairFolder();
    const std::string to = from + ".old";
    if (const int error = platform::renameFile(from.c_str(), to.c_str()); error != 0)
    {
        throw Misuse(from + " is a file and could not be renamed to " + to + ": " +
                     std::generic_category().message(error));
    }
}

void place(const NewCopy& copy, bool hasValidCopy, bool isForced)
{
    const std::string folder = Tool::pairFolder();
    const bool isThere = platform::pathExists(folder.c_str());
    if (isThere && !hasValidCopy && !isForced)
    {
        throw Misuse(folder + " exists without a valid copy. A program that starts before the new copy is complete "
                              "may find half of it and end. --force writes it nevertheless.");
    }
    const bool isFolder = std::filesystem::is_directory(folder);
    if (isThere && !isFolder)
    {
        moveFileAside();
    }
    if (isFolder)
    {
        replaceCopy(copy);
    }
    else
    {
        Staging().publish(copy);
    }
}

/// Reads the pair as the program does.
void requireReadable(const NewCopy& copy)
{
    ConsistentFile file(Tool::pairPath());
    std::ostringstream text;
    const RcStatus status = file.load(text);
    const ConsistentFile::Look look = file.look();
    const bool isRead = status == RC_OK && text.str() == copy.text && look.latestSlot == copy.slot &&
                        look.copies.at(static_cast<std::size_t>(copy.slot)).sequence == copy.sequence;
    if (!isRead)
    {
        throw Misuse(file.dataFileName(copy.slot) + " is not read as it was written");
    }
}

void writeRefusal(std::ostream& out, const Tool::Signing& signing, const std::vector<Tool::Finding>& findings)
{
    out << (signing.isJson ? R"({"written":null,"errors":)" : "");
    Tool::writeFindings(out, findings, {.folder = {}, .hasOnlyErrors = true, .isJson = signing.isJson});
    out << (signing.isJson ? "}\n" : "");
}

void writeResult(std::ostream& out, const Tool::Signing& signing, const NewCopy& copy)
{
    const std::string path = ConsistentFile(Tool::pairPath()).dataFileName(copy.slot);
    if (signing.isJson)
    {
        out << R"({"written":{"copy":)" << copy.slot << R"(,"sequence":)" << copy.sequence << R"(,"crc":)" << copy.crc
            << R"(,"file":)" << Tool::jsonText(path) << "},\"errors\":[]}\n";
        return;
    }
    out << "Written: copy " << copy.slot << ", " << path << ", number " << copy.sequence << ", CRC " << copy.crc
        << "\nThe change takes effect when the program is started the next time.\n";
}

/// Refuses a text that lies where a signing puts its own files, which it removes.
void refuseOwnFiles(const std::filesystem::path& text)
{
    namespace fs = std::filesystem;
    const std::string newData = Tool::pairPath() + ".new";
    const bool isOwn = text == fs::weakly_canonical(newData) || text == fs::weakly_canonical(newData + ".sig") ||
                       text.parent_path() == fs::weakly_canonical(Tool::pairFolder() + ".new");
    if (isOwn)
    {
        throw Misuse(text.string() + " lies where a signing puts its own files: copy it to another place");
    }
}

} // namespace

int Tool::signPair(std::ostream& out, const Signing& signing)
{
    const std::vector<std::string> lines = linesOf(readAll(signing.file));
    if (const std::vector<Finding> findings = examineTextToSign(signing.file); hasErrors(findings))
    {
        writeRefusal(out, signing, findings);
        return FOUND;
    }
    const std::filesystem::path text = std::filesystem::weakly_canonical(signing.file);
    enterFolder(signing.folder);
    refuseOwnFiles(text);
    const platform::OpenedFile locked = platform::lockFolder(WORKING_FOLDER);
    const platform::OwnedFile lock(locked.handle);
    if (locked.error == ErrorNumber::SharingViolation)
    {
        throw Misuse("another signing is at work in this folder");
    }
    require(locked.error, signing.folder);
    const ConsistentFile::Look look = ConsistentFile(pairPath()).look();
    const NewCopy copy = copyOf(lines, look);
    place(copy, look.status == RC_OK, signing.isForced);
    requireReadable(copy);
    writeResult(out, signing, copy);
    return FINE;
}
