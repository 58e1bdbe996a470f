#include "datapath/common/infra/base/UtcTimestamp.h"

#include "platform/Time.h"

#include <chrono>
#include <concepts>

namespace
{

/// Writes the lowest WIDTH digits, with leading zeros. The value is not negative.
template <int WIDTH> char* writeDigits(char* out, std::integral auto value)
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
    const std::int64_t nowMs = platform::utcNow();
    if (m_length == 0 || nowMs != m_timeMs)
    {
        m_timeMs = nowMs;
        format();
    }
}

void UtcTimestamp::format()
{
    using namespace std::chrono;
    constexpr int LAST_YEAR_OF_FOUR_DIGITS = 9999;
    const sys_time<milliseconds> moment{milliseconds(m_timeMs)};
    const auto midnight = floor<days>(moment);
    const year_month_day date(midnight);
    const hh_mm_ss time(moment - midnight);
    const auto year = static_cast<int>(date.year());
    char* out = m_text.data();
    out = year > LAST_YEAR_OF_FOUR_DIGITS ? writeDigits<5>(out, year) : writeDigits<4>(out, year);
    out = writeDigits<2>(writeSeparator(out, '-'), static_cast<unsigned>(date.month()));
    out = writeDigits<2>(writeSeparator(out, '-'), static_cast<unsigned>(date.day()));
    out = writeDigits<2>(writeSeparator(out, ' '), time.hours().count());
    out = writeDigits<2>(writeSeparator(out, ':'), time.minutes().count());
    out = writeDigits<2>(writeSeparator(out, ':'), time.seconds().count());
    out = writeDigits<MILLISECOND_DIGITS>(writeSeparator(out, '.'), time.subseconds().count());
    m_length = static_cast<std::size_t>(out - m_text.data());
}

std::string UtcTimestamp::now(int fractionDigits)
{
    UtcTimestamp time;
    time.update();
    return {time.m_text.data(), time.length(fractionDigits)};
}

void formatUtcTimestamp(std::ostream& stream, int fractionDigits) { stream << UtcTimestamp::now(fractionDigits); }
