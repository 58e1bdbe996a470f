#pragma once

// An open log file. Texts are collected into blocks, and each block is appended with one system call.
//
//     LogFileStream stream;
//     if (stream.open(path)) { stream.write("a line\n"); stream.flush(); }
//
// A block ends where a text ends, unless one text is longer than a block. A line feed is written as the line end of the
// system's text files. Text that the system does not take, because the disk is full for instance, is kept and offered
// again with the next text or flush. Once a whole block of it is kept, new texts are dropped, so that every text in the
// file is whole. Not for several threads at once.

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
    [[nodiscard]] bool open(const std::string& path);

    /// Whether the file and the text that it still lacks have more than that many bytes. What other programs have
    /// appended counts once the next block has been written; what they have cut off counts at once. False while no file
    /// is open.
    [[nodiscard]] bool isLongerThan(std::uint64_t length);

    /// Appends a text or, one after the other, the parts of a text. Dropped while no file is open.
    void write(std::string_view part, bool isFirst = true, bool isLast = true);

    /// Hands every whole text on to the system. Returns whether the system has taken them all.
    bool flush();

    /// Flushes first. What the system does not take is lost.
    void close();

private:
    static constexpr std::size_t BLOCK_SIZE = std::size_t{64} * 1024;

    [[nodiscard]] bool isOpen() const { return static_cast<bool>(m_file); }
    [[nodiscard]] bool isFull() const { return m_block.size() >= BLOCK_SIZE; }
    void append(std::string_view text);
    void updateLength(std::uint64_t fallback);

    platform::OwnedFile m_file;
    std::uint64_t m_length = 0;    // length of the file when it was last asked for
    std::string m_block;           // text that the file still lacks
    std::size_t m_wholeLength = 0; // length of the block up to the end of its last whole text
    bool m_isDropping = false;     // the present text is dropped, with all its parts
};
