#pragma once

// The CRC-32 of IEEE 802.3: reflected polynomial 0xEDB88320, initial value 0xFFFFFFFF, final
// complement. The one of zlib, gzip and PNG; of "123456789" it is 0xCBF43926.
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
    /// Takes further bytes.
    void update(std::string_view bytes) noexcept;

    /// Of all bytes taken so far; 0 for none.
    [[nodiscard]] std::uint32_t value() const noexcept { return ~m_state; }

private:
    std::uint32_t m_state = 0xFFFF'FFFF;
};
