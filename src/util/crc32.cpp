#include "util/crc32.hpp"

#include <cstring>

using crc32_detail::tables;

void crc32_init() {}

std::uint32_t crc32_calc_bytewise(std::uint32_t crc, const void *buf, std::uint32_t len)
{
    if (len == 0)
        return crc;
    const auto *p = static_cast<const std::uint8_t *>(buf);
    std::uint32_t c = ~crc;
    while (len--)
        c = tables[0][(c ^ *p++) & 0xFFu] ^ (c >> 8);
    return ~c;
}

std::uint32_t crc32_calc(std::uint32_t crc, const void *buf, std::uint32_t len)
{
    if (len == 0)
        return crc;
    const auto *p = static_cast<const std::uint8_t *>(buf);
    std::uint32_t c = ~crc;
    // Slicing-by-8: eight table lookups per 8 bytes instead of a dependent chain of eight.
    // Bytes are assembled explicitly, so the result does not depend on host byte order.
    while (len >= 8) {
        std::uint32_t lo = c ^ (static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
                                static_cast<std::uint32_t>(p[2]) << 16 |
                                static_cast<std::uint32_t>(p[3]) << 24);
        c = tables[7][lo & 0xFFu] ^ tables[6][(lo >> 8) & 0xFFu] ^ tables[5][(lo >> 16) & 0xFFu] ^
            tables[4][lo >> 24] ^ tables[3][p[4]] ^ tables[2][p[5]] ^ tables[1][p[6]] ^
            tables[0][p[7]];
        p += 8;
        len -= 8;
    }
    while (len--)
        c = tables[0][(c ^ *p++) & 0xFFu] ^ (c >> 8);
    return ~c;
}
