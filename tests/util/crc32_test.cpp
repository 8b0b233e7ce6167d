// CRC-32: the standard check value, chaining, and the fast path against the byte-wise
// reference and against a bit-by-bit CRC written here from the polynomial alone.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
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

const char CHECK_INPUT[] = "123456789";
constexpr std::uint32_t CHECK_VALUE = 0xCBF43926u;

TEST(Crc32, StandardCheckValue) {
    EXPECT_EQ(crc32_calc(0, CHECK_INPUT, 9), CHECK_VALUE);
    EXPECT_EQ(crc32_calc_bytewise(0, CHECK_INPUT, 9), CHECK_VALUE);
}

TEST(Crc32, KnownValues) {
    const std::vector<std::uint8_t> zeros(32, 0);
    const std::vector<std::uint8_t> ones(32, 0xFF);
    EXPECT_EQ(crc32_calc(0, "a", 1), 0xE8B7BE43u);
    EXPECT_EQ(crc32_calc(0, "The quick brown fox jumps over the lazy dog", 43), 0x414FA339u);
    EXPECT_EQ(crc32_calc(0, zeros.data(), 32), 0x190A55ADu);
    EXPECT_EQ(crc32_calc(0, ones.data(), 32), 0xFF6CAB0Bu);
}

TEST(Crc32, EmptyInputReturnsTheStartValue) {
    const std::uint8_t byte = 0x55;
    for (std::uint32_t x : {0u, 1u, 0x12345678u, 0xCBF43926u, 0xFFFFFFFFu}) {
        EXPECT_EQ(crc32_calc(x, &byte, 0), x);
        EXPECT_EQ(crc32_calc(x, nullptr, 0), x) << "no byte is read for an empty input";
        EXPECT_EQ(crc32_calc_bytewise(x, &byte, 0), x);
    }
}

TEST(Crc32, ChainingAtEverySplitPointEqualsOneCall) {
    const auto buf = random_bytes(777, 1);
    const std::uint32_t n = static_cast<std::uint32_t>(buf.size());
    const std::uint32_t whole = crc32_calc(0, buf.data(), n);
    ASSERT_EQ(whole, crc_bitwise(0, buf.data(), n));
    for (std::uint32_t k = 0; k <= n; ++k) {
        std::uint32_t first = crc32_calc(0, buf.data(), k);
        ASSERT_EQ(crc32_calc(first, buf.data() + k, n - k), whole) << "split at " << k;
    }
}

TEST(Crc32, ChainingInPartitionCheckBlocks) {
    // A partition is read back in blocks of at most 4096 bytes and chained.
    const auto buf = random_bytes(3 * 4096 + 123, 2);
    std::uint32_t crc = 0;
    for (std::size_t off = 0; off < buf.size(); off += 4096) {
        std::size_t len = std::min<std::size_t>(4096, buf.size() - off);
        crc = crc32_calc(crc, buf.data() + off, static_cast<std::uint32_t>(len));
    }
    EXPECT_EQ(crc, crc32_calc_bytewise(0, buf.data(), static_cast<std::uint32_t>(buf.size())));
}

TEST(Crc32, FastPathEqualsReferenceForEveryAlignmentAndShortLength) {
    const auto buf = random_bytes(1024 + 64, 3);
    for (std::size_t align = 0; align < 64; ++align) {
        for (std::uint32_t len = 0; len <= 1024; ++len) {
            const std::uint8_t *p = buf.data() + align;
            std::uint32_t start = len * 2654435761u; // varied start values, 0 included
            ASSERT_EQ(crc32_calc(start, p, len), crc32_calc_bytewise(start, p, len))
                << "align " << align << " len " << len;
        }
    }
}

TEST(Crc32, FastPathEqualsReferenceOnRandomLongInputs) {
    const auto buf = random_bytes((1u << 20) + 64, 4);
    std::mt19937 rng(5);
    for (int i = 0; i < 200; ++i) {
        std::size_t align = rng() % 64;
        std::uint32_t len = static_cast<std::uint32_t>(rng() % (buf.size() - align));
        if (i % 4 == 0) len %= 70000; // many lengths around the block sizes of any wide path
        std::uint32_t start = static_cast<std::uint32_t>(rng());
        const std::uint8_t *p = buf.data() + align;
        ASSERT_EQ(crc32_calc(start, p, len), crc32_calc_bytewise(start, p, len))
            << "align " << align << " len " << len;
    }
    std::uint32_t n = static_cast<std::uint32_t>(buf.size());
    EXPECT_EQ(crc32_calc(0, buf.data(), n), crc_bitwise(0, buf.data(), n));
}

TEST(Crc32, ReferenceEqualsTheBitwiseDefinition) {
    const auto buf = random_bytes(4096, 6);
    for (std::uint32_t len : {1u, 2u, 3u, 7u, 8u, 9u, 63u, 64u, 65u, 1000u, 4096u})
        EXPECT_EQ(crc32_calc_bytewise(0x1234u, buf.data(), len),
                  crc_bitwise(0x1234u, buf.data(), len))
            << len;
}

TEST(Crc32, TableFollowsTheStandardRule) {
    EXPECT_EQ(crc32_table[0], 0u);
    EXPECT_EQ(crc32_table[1], 0x77073096u);
    EXPECT_EQ(crc32_table[128], 0xEDB88320u);
    EXPECT_EQ(crc32_table[255], 0x2D02EF8Du);
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t c = i;
        for (int k = 0; k < 8; ++k)
            c = (c & 1u) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
        ASSERT_EQ(crc32_table[i], c) << "entry " << i;
    }
}

TEST(Crc32, InitIsHarmless) {
    crc32_init();
    crc32_init();
    EXPECT_EQ(crc32_calc(0, CHECK_INPUT, 9), CHECK_VALUE);
}

} // namespace
