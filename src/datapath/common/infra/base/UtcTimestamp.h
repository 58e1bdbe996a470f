#pragma once

// The UTC time as text, as log lines begin with it: "2024-03-05 07:08:09.042".

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>

/// Writes the current time with 0 to 3 digits of a second's fraction, cut and not rounded. With 0 digits there is no
/// point. More digits than 3 count as 3. Any thread may call, with a stream of its own.
void formatUtcTimestamp(std::ostream& stream, int fractionDigits);

/// The text that formatUtcTimestamp writes, for code without a stream. Several updates within one millisecond format it
/// once. Not for several threads at once.
class UtcTimestamp
{
public:
    static constexpr std::size_t ROOM = 32;

    /// Takes the current time.
    void update();

    /// Writes at most ROOM bytes and returns the end of the text.
    char* write(char* out, int fractionDigits) const
    {
        std::memcpy(out, m_text.data(), ROOM); // more than the text, but of a length that the compiler knows
        return out + length(fractionDigits);
    }

    /// The current time as a text of its own.
    [[nodiscard]] static std::string now(int fractionDigits);

private:
    static constexpr int MILLISECOND_DIGITS = 3;

    void format();

    [[nodiscard]] std::size_t length(int fractionDigits) const
    {
        const int digits = std::clamp(fractionDigits, 0, MILLISECOND_DIGITS);
        const int cut = MILLISECOND_DIGITS - digits + (digits == 0 ? 1 : 0); // the point too
        return m_length - static_cast<std::size_t>(cut);
    }

    std::int64_t m_timeMs = 0; // since the beginning of 1970
    std::array<char, ROOM> m_text{};
    std::size_t m_length = 0;
};
