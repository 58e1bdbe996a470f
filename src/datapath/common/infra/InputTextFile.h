#pragma once

// A text file opened for reading, as an ordinary narrow stream. On every target a carriage return before
// a line feed disappears, and every other byte, 0x1A too, is a character of the text.
//
//     InputTextFile file(path);
//     for (std::string line; std::getline(file, line);)
//
// A file that cannot be opened reads as an empty one in a failed state; a read error ends the text. Belongs to one
// thread at a time.

#include "platform/Files.h"

#include <array>
#include <cstddef>
#include <istream>
#include <streambuf>
#include <string>

namespace InputTextFileInternal
{

class Buffer : public std::streambuf
{
public:
    explicit Buffer(const std::string& path);
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    ~Buffer() override;

    [[nodiscard]] bool isOpen() const { return m_file.handle != platform::FileHandle::Invalid; }

protected:
    int_type underflow() override;

private:
    static constexpr std::size_t CHUNK = 16384;

    /// Drops each carriage return that a line feed follows. Returns the new length; a carriage
    /// return at the very end is held back, as what follows it is not known yet.
    std::size_t dropCarriageReturns(std::size_t length);

    platform::OpenedFile m_file;
    bool m_holdsCarriageReturn = false;
    std::array<char, CHUNK + 1> m_characters; // one more for a carriage return held back
};

struct BufferBase
{
    explicit BufferBase(const std::string& path) : buffer(path) {}

    Buffer buffer;
};

} // namespace InputTextFileInternal

class InputTextFile : private InputTextFileInternal::BufferBase, public std::istream
{
public:
    /// The path is narrow and the system's own.
    explicit InputTextFile(const std::string& path);

    [[nodiscard]] bool isOpen() const { return buffer.isOpen(); }
};
