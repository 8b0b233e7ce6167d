// CRC-32: known values, chaining, and the fast path against the byte-wise reference and
// against a bit-by-bit CRC written here from the polynomial alone.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "util/crc32.hpp"

namespace {

// Straight from the definition: reflected polynomial, preset all ones, final complement.
std::uint32_t crc_bitwise(std::uint32_t crc, const std::uint8_t *p, std::size_t n) {
    std::uint32_t c = ~crc;
    for (std::size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k)
            c = (c & 1u) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
    }
    return n == 0 ? crc : ~c;
}

std::vector<std::uint8_t> random_bytes(std::size_t n, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<std::uint8_t> b(n);
    for (auto &x : b)
        x = static_cast<std::uint8_t>(rng());
    return b;
}

TEST(Crc32, KnownValues) {
    crc32_init(); // harmless, also when called twice
    crc32_init();
    const std::pair<std::string, std::uint32_t> rows[] = {
        {"123456789", 0xCBF43926u}, // the standard check value
        {"a", 0xE8B7BE43u},
        {"The quick brown fox jumps over the lazy dog", 0x414FA339u},
        {std::string(32, '\0'), 0x190A55ADu},
        {std::string(32, '\xFF'), 0xFF6CAB0Bu},
    };
    for (const auto &[text, crc] : rows) {
        auto n = static_cast<std::uint32_t>(text.size());
        EXPECT_EQ(crc32_calc(0, text.data(), n), crc) << text;
        EXPECT_EQ(crc32_calc_bytewise(0, text.data(), n), crc) << text;
    }
}

TEST(Crc32, EmptyInputReturnsTheStartValue) {
    for (std::uint32_t x : {0u, 0x12345678u, 0xFFFFFFFFu}) {
        EXPECT_EQ(crc32_calc(x, nullptr, 0), x) << "no byte is read for an empty input";
        EXPECT_EQ(crc32_calc_bytewise(x, nullptr, 0), x);
    }
}

TEST(Crc32, ChainingAtEverySplitPointEqualsOneCall) {
    const auto buf = random_bytes(777, 1);
    const auto n = static_cast<std::uint32_t>(buf.size());
    const std::uint32_t whole = crc32_calc(0, buf.data(), n);
    ASSERT_EQ(whole, crc_bitwise(0, buf.data(), n));
    for (std::uint32_t k = 0; k <= n; ++k)
        ASSERT_EQ(crc32_calc(crc32_calc(0, buf.data(), k), buf.data() + k, n - k), whole)
            << "split at " << k;
}

// Every alignment and short length, then long random inputs: every table entry is used, so
// the reference agreeing with the bit-by-bit CRC at the end also proves the table.
TEST(Crc32, FastPathEqualsReference) {
    const auto buf = random_bytes((1u << 20) + 64, 4);
    for (std::size_t align = 0; align < 64; ++align) {
        for (std::uint32_t len = 0; len <= 1024; ++len) {
            std::uint32_t start = len * 2654435761u; // varied start values, 0 included
            ASSERT_EQ(crc32_calc(start, buf.data() + align, len),
                      crc32_calc_bytewise(start, buf.data() + align, len))
                << "align " << align << " len " << len;
        }
    }
    std::mt19937 rng(5);
    for (int i = 0; i < 200; ++i) {
        std::size_t align = rng() % 64;
        auto len = static_cast<std::uint32_t>(rng() % (buf.size() - align));
        if (i % 4 == 0) len %= 70000; // many lengths around the block sizes of any wide path
        auto start = static_cast<std::uint32_t>(rng());
        ASSERT_EQ(crc32_calc(start, buf.data() + align, len),
                  crc32_calc_bytewise(start, buf.data() + align, len))
            << "align " << align << " len " << len;
    }
    auto n = static_cast<std::uint32_t>(buf.size());
    EXPECT_EQ(crc32_calc_bytewise(0x1234u, buf.data(), n), crc_bitwise(0x1234u, buf.data(), n));
}

} // namespace
