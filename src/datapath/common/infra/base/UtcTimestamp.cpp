#include "datapath/common/infra/base/UtcTimestamp.h"

#include "platform/Time.h"

#include <algorithm>

namespace
{

/// Writes the lowest WIDTH digits, with leading zeros. The value is not negative.
template <int WIDTH> char* writeDigits(char* out, int value)
{
    for (int i = WIDTH - 1; i >= 0; --i)
    {
        out[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return out + WIDTH;
}

char* write(char* out, char separator)
{
    *out = separator;
    return out + 1;
}

} // namespace

UtcTimestamp::UtcTimestamp(int fractionDigits)
{
    constexpr int LAST_YEAR_OF_FOUR_DIGITS = 9999;
    const platform::UtcTime now = platform::utcNow();
    char* out = m_text.data();
    out = now.year > LAST_YEAR_OF_FOUR_DIGITS ? writeDigits<5>(out, now.year) : writeDigits<4>(out, now.year);
    out = writeDigits<2>(write(out, '-'), now.month);
    out = writeDigits<2>(write(out, '-'), now.day);
    out = writeDigits<2>(write(out, ' '), now.hour);
    out = writeDigits<2>(write(out, ':'), now.minute);
    out = writeDigits<2>(write(out, ':'), now.second);
    if (fractionDigits > 0)
    {
        constexpr int MILLISECOND_DIGITS = 3;
        writeDigits<MILLISECOND_DIGITS>(write(out, '.'), now.millisecond);
        out += 1 + std::min(fractionDigits, MILLISECOND_DIGITS);
    }
    m_length = static_cast<std::size_t>(out - m_text.data());
}

void formatUtcTimestamp(std::ostream& stream, int fractionDigits) { stream << UtcTimestamp(fractionDigits).view(); }
