#pragma once

// A text file opened for reading, as an ordinary narrow stream. On every target a carriage return before a line feed
// disappears. On Windows a byte 0x1A ends the text; every other byte is a character.
//
//     InputTextFile file(path);
//     for (std::string line; std::getline(file, line);)
//
// A file that cannot be opened reads as an empty one and leaves the stream failed. A read error ends the text and
// leaves the stream bad; a line or a word that is being extracted then fails and must not be used, because its end is
// missing. A stream belongs to one thread at a time.

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

    [[nodiscard]] bool isOpen() const { return static_cast<bool>(m_file); }

protected:
    int_type underflow() override;

private:
    static constexpr std::size_t CHUNK = 16384;

    /// Reads the next bytes of the text, at most a chunk. Returns their number, which is 0 at the end of the text.
    /// Throws on a read error.
    std::size_t readText(char* characters);

    /// Drops each carriage return that a line feed follows. Returns the new length. A carriage return at the end is
    /// held back, because what follows it is not known yet.
    std::size_t dropCarriageReturns(std::size_t length);

    platform::OwnedFile m_file;
    bool m_isEnded = false; // a byte that ends the text was read
    bool m_holdsCarriageReturn = false;
    std::array<char, CHUNK + 1> m_characters; // a carriage return that was held back, and a chunk
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
    /// The path is narrow, as the operating system takes it.
    explicit InputTextFile(const std::string& path);

    [[nodiscard]] bool isOpen() const { return buffer.isOpen(); }
};
