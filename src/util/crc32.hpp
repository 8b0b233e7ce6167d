// IEEE 802.3 CRC-32 (reflected polynomial 0xEDB88320), the value zlib's crc32() gives.
#pragma once

#include <array>
#include <cstdint>

namespace crc32_detail {
constexpr std::uint32_t poly = 0xEDB88320u;

constexpr std::array<std::array<std::uint32_t, 256>, 8> make_tables() {
    std::array<std::array<std::uint32_t, 256>, 8> t{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t c = i;
        for (int k = 0; k < 8; ++k)
            c = (c & 1u) ? (c >> 1) ^ poly : c >> 1;
        t[0][i] = c;
    }
    // Tables 1..7 advance a byte through further zero bytes, for slicing-by-8.
    for (std::uint32_t i = 0; i < 256; ++i)
        for (std::size_t s = 1; s < 8; ++s)
            t[s][i] = (t[s - 1][i] >> 8) ^ t[0][t[s - 1][i] & 0xFFu];
    return t;
}

inline constexpr auto tables = make_tables();
static_assert(tables[0][1] == 0x77073096u);
static_assert(tables[0][128] == 0xEDB88320u);
static_assert(tables[0][255] == 0x2D02EF8Du);
} // namespace crc32_detail

// The byte-wise table, read-only data built by the compiler.
inline constexpr const std::array<std::uint32_t, 256> &crc32_table = crc32_detail::tables[0];

// Kept for callers that start a chained computation; the table needs no set-up.
void crc32_init();

// CRC of len bytes, continuing from crc (0 to start). crc32_calc(crc32_calc(0, A), B) equals
// crc32_calc(0, AB). len 0 returns crc unchanged.
std::uint32_t crc32_calc(std::uint32_t crc, const void *buf, std::uint32_t len);

// The plain one-table loop, kept as the reference the fast path is tested against.
std::uint32_t crc32_calc_bytewise(std::uint32_t crc, const void *buf, std::uint32_t len);
