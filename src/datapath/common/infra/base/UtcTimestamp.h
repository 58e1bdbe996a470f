#pragma once

// The UTC time as text, as log lines begin with it: "2024-03-05 07:08:09.042".

#include <array>
#include <cstddef>
#include <ostream>
#include <string_view>

/// Writes the current time with 0 to 3 digits of a second's fraction, cut and not rounded. With 0 digits there is no
/// point. More digits than 3 count as 3. Any thread may call, with a stream of its own.
void formatUtcTimestamp(std::ostream& stream, int fractionDigits);

/// The text that formatUtcTimestamp writes, for code without a stream.
class UtcTimestamp
{
public:
    explicit UtcTimestamp(int fractionDigits);

    [[nodiscard]] std::string_view view() const { return {m_text.data(), m_length}; }

private:
    std::array<char, 32> m_text;
    std::size_t m_length;
};
