#include "datapath/common/infra/UtcTimestamp.h"

#include "platform/Time.h"

#include <algorithm>

namespace
{

constexpr unsigned MILLISECOND_DIGITS = 3;
constexpr std::array<unsigned, MILLISECOND_DIGITS + 1> POWERS_OF_TEN = {1, 10, 100, 1000};

} // namespace

UtcTimestamp::UtcTimestamp(int fractionDigits)
{
    const platform::UtcTime now = platform::utcNow();
    append(static_cast<unsigned>(now.year), now.year > 9999 ? 5 : 4);
    append('-');
    append(static_cast<unsigned>(now.month), 2);
    append('-');
    append(static_cast<unsigned>(now.day), 2);
    append(' ');
    append(static_cast<unsigned>(now.hour), 2);
    append(':');
    append(static_cast<unsigned>(now.minute), 2);
    append(':');
    append(static_cast<unsigned>(now.second), 2);
    if (fractionDigits > 0)
    {
        const unsigned digits = std::min(static_cast<unsigned>(fractionDigits), MILLISECOND_DIGITS);
        append('.');
        append(static_cast<unsigned>(now.millisecond) / POWERS_OF_TEN[MILLISECOND_DIGITS - digits], digits);
    }
}

void UtcTimestamp::append(unsigned value, unsigned width)
{
    for (unsigned i = width; i > 0; --i)
    {
        m_text[m_length + i - 1] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    m_length += width;
}

void formatUtcTimestamp(std::ostream& stream, int fractionDigits)
{
    stream << UtcTimestamp(fractionDigits).view();
}
