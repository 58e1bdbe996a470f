#pragma once

// The open log file: texts, collected into blocks and appended with one system call a block. A block ends where a text
// ends, unless one text is longer than a block.
//
//     LogFileStream stream;
//     if (stream.open(path)) { stream.write("a line\n"); stream.flush(); }
//
// Line feeds are written as this system's text files end a line. Text that the system does not take, because the
// disk is full for instance, is kept and offered again with the next text or flush; beyond a block of it, new texts
// are dropped, so that what stands in the file stays whole. Not for several threads at once.

#include "platform/Files.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class LogFileStream
{
public:
    LogFileStream() = default;
    LogFileStream(const LogFileStream&) = delete;
    LogFileStream& operator=(const LogFileStream&) = delete;
    ~LogFileStream() { close(); }

    /// Continues the file, or creates it. Returns whether it is open.
    bool open(const std::string& path);

    /// Whether the next byte comes after that many bytes: those of the file as of the last block, whoever wrote them,
    /// and those that are not in it yet. Never while no file is open.
    [[nodiscard]] bool isLongerThan(std::uint64_t length);

    /// A text or, one after the other, its parts. Dropped while no file is open.
    void write(std::string_view part, bool isFirst = true, bool isLast = true);

    /// Hands on every text that has its last part. Returns whether the system has taken them.
    bool flush();

    /// Drops what the system does not take.
    void close();

private:
    static constexpr std::size_t BLOCK_SIZE = std::size_t{64} * 1024;

    [[nodiscard]] bool isOpen() const { return m_file != platform::FileHandle::Invalid; }
    [[nodiscard]] bool isFull() const { return m_block.size() >= BLOCK_SIZE; }
    void append(std::string_view text);
    void askForLength(std::uint64_t otherwise);

    platform::FileHandle m_file = platform::FileHandle::Invalid;
    std::uint64_t m_length = 0;    // of the file, when it was asked for last
    std::string m_block;           // what the file still lacks
    std::size_t m_wholeLength = 0; // of that: up to the end of the last whole text
    bool m_isDropping = false;     // the text whose parts are being written
};
