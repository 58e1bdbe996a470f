#pragma once

// Gives the lines of a text one at a time, as configuration files are read. A line has at most 511 characters before
// its line feed; a longer line ends the text, and so does a read error. A zero byte is a character like any other.
//
//     TextLines lines(stream);
//     while (const auto line = lines.next())
//
// An object belongs to one thread at a time, and the stream must outlive it.

#include <array>
#include <cstddef>
#include <istream>
#include <optional>
#include <string_view>

class TextLines
{
public:
    explicit TextLines(std::istream& stream) : m_stream(stream) {}

    /// Returns the next line without its line feed, which the last line may lack. Returns nothing once the text has
    /// ended. The line is valid until the next call.
    [[nodiscard]] std::optional<std::string_view> next()
    {
        if (!m_stream.getline(m_line.data(), static_cast<std::streamsize>(m_line.size())))
        {
            return std::nullopt;
        }
        const auto taken = static_cast<std::size_t>(m_stream.gcount());
        return std::string_view(m_line.data(), m_stream.eof() ? taken : taken - 1);
    }

private:
    std::istream& m_stream;
    std::array<char, 512> m_line{}; // a line and a terminating zero
};
