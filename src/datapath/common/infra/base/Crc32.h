#pragma once

// Computes the CRC-32 of IEEE 802.3, which zlib, gzip and PNG use: reflected polynomial 0xEDB88320, initial value
// 0xFFFFFFFF, final complement. The CRC-32 of "123456789" is 0xCBF43926.
//
//     Crc32 crc;
//     crc.update(line);
//     crc.update("\n");
//     if (crc.value() == expected)
//
// An object belongs to one thread at a time.

#include <cstdint>
#include <string_view>

class Crc32
{
public:
    /// Adds bytes.
    void update(std::string_view bytes) noexcept;

    /// Returns the CRC-32 of all bytes added so far, which is 0 if there are none.
    [[nodiscard]] std::uint32_t value() const noexcept { return ~m_state; }

private:
    std::uint32_t m_state = 0xFFFF'FFFF;
};
