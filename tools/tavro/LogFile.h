#pragma once

// The bytes of one log file. A file that begins with the two magic bytes of gzip is decompressed, whatever its name is;
// any other is read as it is, also if it is named ".gz".
//
//     LogFile file;
//     if (file.open("C:\\logs\\app.log.txt"))
//         while (const std::size_t bytes = file.read(room)) ...
//     if (!file.fault().empty()) ...
//
// The file may be renamed and removed meanwhile, on every system. Not for several threads at once.

#include "platform/Files.h"
#include "tools/tavro/LogSystem.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace Tool
{

class LogFile
{
public:
    LogFile();
    LogFile(LogFile&&) noexcept;
    LogFile& operator=(LogFile&&) noexcept;
    ~LogFile();

    /// Returns false if there is no such file, or if it cannot be opened; see error().
    [[nodiscard]] bool open(const std::string& path);
    void openStandardInput();

    [[nodiscard]] bool isOpen() const { return m_handle != platform::FileHandle::Invalid; }
    [[nodiscard]] platform::ErrorNumber error() const { return m_error; }

    /// Reads the next bytes. 0 means the end of the file; a file that grows has more bytes later.
    [[nodiscard]] std::size_t read(std::span<char> room);

    /// Whether the bytes that were read last begin another member of a compressed file: what several compressed files
    /// make when they are put together.
    [[nodiscard]] bool beginsMember() const;

    /// Why the file could not be read to its end. Empty if it could.
    [[nodiscard]] std::string fault() const;

    [[nodiscard]] std::optional<FileIdentity> identity() const { return identityOf(m_handle); }

    /// How many bytes of the file itself have been read, and how many it has now; 0 if that is not known.
    [[nodiscard]] std::uint64_t position() const { return m_position; }
    [[nodiscard]] std::uint64_t length() const { return lengthOf(m_handle); }

private:
    class Gzip;

    [[nodiscard]] std::size_t readPlain(std::span<char> room);
    [[nodiscard]] bool recognise();

    platform::OwnedFile m_file;
    platform::FileHandle m_handle = platform::FileHandle::Invalid; // m_file, or standard input
    platform::ErrorNumber m_error = platform::ErrorNumber::Success;
    std::uint64_t m_position = 0;
    std::string m_ahead; // bytes at the begin of the file that were read to recognise gzip, and not handed out yet
    bool m_isRecognised = false;
    std::unique_ptr<Gzip> m_gzip; // null for a plain file
};

} // namespace Tool
