#include "datapath/common/infra/base/Crc32.h"

#include <array>
#include <cstring>

namespace
{

constexpr std::uint32_t REFLECTED_POLYNOMIAL = 0xEDB8'8320;
constexpr std::size_t SLICES = 8;

using Table = std::array<std::uint32_t, 256>;

/// Table n holds the effect of a byte on the state when n further bytes follow it. So one step takes eight bytes:
/// "slicing-by-8", M. E. Kounavis and F. L. Berry, "Novel Table Lookup-Based Algorithms for High-Performance CRC
/// Generation", IEEE Transactions on Computers 57 (2008).
constexpr std::array<Table, SLICES> TABLES = [] {
    std::array<Table, SLICES> tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte)
    {
        std::uint32_t state = byte;
        for (int bit = 0; bit < 8; ++bit)
        {
            state = (state >> 1U) ^ ((state & 1U) != 0 ? REFLECTED_POLYNOMIAL : 0);
        }
        tables[0][byte] = state;
    }
    for (std::size_t slice = 1; slice < SLICES; ++slice)
    {
        for (std::uint32_t byte = 0; byte < 256; ++byte)
        {
            const std::uint32_t previous = tables[slice - 1][byte];
            tables[slice][byte] = (previous >> 8U) ^ tables[0][previous & 0xFFU];
        }
    }
    return tables;
}();

} // namespace

void Crc32::update(std::string_view bytes) noexcept
{
    std::uint32_t state = m_state;
    for (; bytes.size() >= SLICES; bytes.remove_prefix(SLICES))
    {
        std::array<std::uint8_t, SLICES> step{};
        std::memcpy(step.data(), bytes.data(), SLICES);
        for (std::size_t i = 0; i < sizeof(state); ++i)
        {
            step[i] ^= static_cast<std::uint8_t>(state >> (8 * i));
        }
        state = 0;
        for (std::size_t i = 0; i < SLICES; ++i)
        {
            state ^= TABLES[SLICES - 1 - i][step[i]];
        }
    }
    for (const char character : bytes)
    {
        state = (state >> 8U) ^ TABLES[0][(state ^ static_cast<std::uint8_t>(character)) & 0xFFU];
    }
    m_state = state;
}
