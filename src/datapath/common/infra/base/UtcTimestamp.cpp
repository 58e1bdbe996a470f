#include "datapath/common/infra/base/UtcTimestamp.h"

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

char* writeSeparator(char* out, char separator)
{
    *out = separator;
    return out + 1;
}

} // namespace

void UtcTimestamp::update()
{
    constexpr int LAST_YEAR_OF_FOUR_DIGITS = 9999;
    const platform::UtcTime now = platform::utcNow();
    if (m_length != 0 && now == m_time)
    {
        return;
    }
    m_time = now;
    char* out = m_text.data();
    out = now.year > LAST_YEAR_OF_FOUR_DIGITS ? writeDigits<5>(out, now.year) : writeDigits<4>(out, now.year);
    out = writeDigits<2>(writeSeparator(out, '-'), now.month);
    out = writeDigits<2>(writeSeparator(out, '-'), now.day);
    out = writeDigits<2>(writeSeparator(out, ' '), now.hour);
    out = writeDigits<2>(writeSeparator(out, ':'), now.minute);
    out = writeDigits<2>(writeSeparator(out, ':'), now.second);
    out = writeDigits<MILLISECOND_DIGITS>(writeSeparator(out, '.'), now.millisecond);
    m_length = static_cast<std::size_t>(out - m_text.data());
}

std::string UtcTimestamp::now(int fractionDigits)
{
    UtcTimestamp time;
    time.update();
    return {time.m_text.data(), time.length(fractionDigits)};
}

void formatUtcTimestamp(std::ostream& stream, int fractionDigits) { stream << UtcTimestamp::now(fractionDigits); }
