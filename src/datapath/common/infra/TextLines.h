#pragma once

// The lines of a text, one at a time, as configuration files are read: at most 511 characters before
// the line feed. A longer line ends the text; so does a read error. A zero byte is a character.
//
//     TextLines lines(stream);
//     while (const auto line = lines.next())
//
// Belongs to one thread at a time; the stream must live as long.

#include <array>
#include <cstddef>
#include <istream>
#include <optional>
#include <string_view>

class TextLines
{
public:
    explicit TextLines(std::istream& stream) : m_stream(stream) {}

    /// The next line without its line feed, valid until the next call. The last one may lack its line
    /// feed. Nothing at the end, and from then on.
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
    std::array<char, 512> m_line{}; // with its terminating zero
};
