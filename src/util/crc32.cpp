#include "util/crc32.hpp"

#include <cstddef>

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#elif defined(__arm__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

using crc32_detail::tables;

void crc32_init() {}

namespace {

// Every path below works on the CRC register (the complemented CRC value) and returns
// the register; crc32_calc complements on the way in and out.

// Slicing-by-8: eight table lookups per 8 bytes instead of a dependent chain of eight.
// Bytes are assembled explicitly, so the result does not depend on host byte order. Each
// table is named by a pointer of its own: on 32-bit ARM a lookup is then one load indexed
// from a register, where an offset into the table array costs an extra addition.
std::uint32_t crc_slice8(std::uint32_t c, const std::uint8_t *p, std::size_t len) {
    const std::uint32_t *t0 = tables[0].data();
    const std::uint32_t *t1 = tables[1].data();
    const std::uint32_t *t2 = tables[2].data();
    const std::uint32_t *t3 = tables[3].data();
    const std::uint32_t *t4 = tables[4].data();
    const std::uint32_t *t5 = tables[5].data();
    const std::uint32_t *t6 = tables[6].data();
    const std::uint32_t *t7 = tables[7].data();
    while (len >= 8) {
        std::uint32_t lo =
            c ^ (static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
                 static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24);
        c = t7[lo & 0xFFu] ^ t6[(lo >> 8) & 0xFFu] ^ t5[(lo >> 16) & 0xFFu] ^ t4[lo >> 24] ^
            t3[p[4]] ^ t2[p[5]] ^ t1[p[6]] ^ t0[p[7]];
        p += 8;
        len -= 8;
    }
    while (len--)
        c = t0[(c ^ *p++) & 0xFFu] ^ (c >> 8);
    return c;
}

#if defined(__x86_64__)

// Carry-less multiply folding (PCLMULQDQ), for the bit-reflected CRC: the data is folded
// 64 bytes at a time into four 128-bit lanes, the lanes into one, then reduced to 32 bits
// by a Barrett step. Partition images run to megabytes, and the install verifies each one
// after writing it, so the check is worth several times the table speed.
//
// The constants are powers of x modulo the CRC polynomial, computed here by the compiler
// from the polynomial alone.
constexpr std::uint64_t POLY_NORMAL = 0x104C11DB7u; // x^32 + ... + 1, bit 32 set

// x^n mod P, in normal bit order.
constexpr std::uint64_t xpow_mod_p(unsigned n) {
    std::uint64_t r = 1;
    for (unsigned i = 0; i < n; ++i) {
        r <<= 1;
        if (r & (std::uint64_t{1} << 32)) r ^= POLY_NORMAL;
    }
    return r;
}

// The quotient floor(x^64 / P), 33 bits, in normal bit order. The first step of the long
// division (bit 64) is taken by hand, so the remainder fits 64 bits from then on.
constexpr std::uint64_t x64_div_p() {
    std::uint64_t q = std::uint64_t{1} << 32;
    std::uint64_t r = (POLY_NORMAL << 32); // x^64 - x^32 * P: bit 64 cancels out
    for (int i = 63; i >= 32; --i) {
        if (r & (std::uint64_t{1} << i)) {
            q |= std::uint64_t{1} << (i - 32);
            r ^= POLY_NORMAL << (i - 32);
        }
    }
    return q;
}

constexpr std::uint64_t reflect(std::uint64_t v, unsigned bits) {
    std::uint64_t r = 0;
    for (unsigned i = 0; i < bits; ++i)
        if (v & (std::uint64_t{1} << i)) r |= std::uint64_t{1} << (bits - 1 - i);
    return r;
}

// Folding a 128-bit lane forward over `distance` bits multiplies its halves by
// x^(distance+32) and x^(distance-32) mod P; reflected, each constant gains one shift
// because the carry-less product of two reflected values comes out one bit short.
constexpr std::uint64_t fold_constant(unsigned exponent) {
    return reflect(xpow_mod_p(exponent), 32) << 1;
}

constexpr unsigned LANE_BITS = 128;
constexpr unsigned FOUR_LANES_BITS = 4 * LANE_BITS;
constexpr std::uint64_t K1 = fold_constant(FOUR_LANES_BITS + 32);
constexpr std::uint64_t K2 = fold_constant(FOUR_LANES_BITS - 32);
constexpr std::uint64_t K3 = fold_constant(LANE_BITS + 32);
constexpr std::uint64_t K4 = fold_constant(LANE_BITS - 32);
constexpr std::uint64_t K5 = fold_constant(64);
constexpr std::uint64_t POLY_REFLECTED = reflect(POLY_NORMAL, 33);
constexpr std::uint64_t MU_REFLECTED = reflect(x64_div_p(), 33);
// The published constants of this method for this polynomial: a slip in the derivation
// above must not build.
static_assert(K1 == 0x154442BD4u && K2 == 0x1C6E41596u);
static_assert(K3 == 0x1751997D0u && K4 == 0x0CCAA009Eu);
static_assert(K5 == 0x163CD6124u);
static_assert(POLY_REFLECTED == 0x1DB710641u && MU_REFLECTED == 0x1F7011641u);

constexpr std::size_t FOLD_BLOCK = 64; // four lanes
constexpr std::size_t LANE_BYTES = 16;
constexpr std::size_t FOLD_MIN_LEN = FOLD_BLOCK;

__attribute__((target("pclmul,sse2"))) inline __m128i load(const std::uint8_t *p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}

__attribute__((target("pclmul,sse2"))) inline __m128i set(std::uint64_t lo, std::uint64_t hi) {
    return _mm_set_epi64x(static_cast<long long>(hi), static_cast<long long>(lo));
}

// One fold step: lane * (kl, kh) carried forward, plus the data it lands on.
__attribute__((target("pclmul,sse2"))) inline __m128i fold(__m128i lane, __m128i k, __m128i data) {
    __m128i lo = _mm_clmulepi64_si128(lane, k, 0x00);
    __m128i hi = _mm_clmulepi64_si128(lane, k, 0x11);
    return _mm_xor_si128(_mm_xor_si128(lo, hi), data);
}

// len is at least 64 and a multiple of 16.
__attribute__((target("pclmul,sse2"))) std::uint32_t
crc_fold_pclmul(std::uint32_t c, const std::uint8_t *p, std::size_t len) {
    __m128i x1 = _mm_xor_si128(load(p), _mm_cvtsi32_si128(static_cast<int>(c)));
    __m128i x2 = load(p + 16);
    __m128i x3 = load(p + 32);
    __m128i x4 = load(p + 48);
    p += FOLD_BLOCK;
    len -= FOLD_BLOCK;

    const __m128i k1k2 = set(K1, K2);
    while (len >= FOLD_BLOCK) {
        x1 = fold(x1, k1k2, load(p));
        x2 = fold(x2, k1k2, load(p + 16));
        x3 = fold(x3, k1k2, load(p + 32));
        x4 = fold(x4, k1k2, load(p + 48));
        p += FOLD_BLOCK;
        len -= FOLD_BLOCK;
    }

    const __m128i k3k4 = set(K3, K4);
    x1 = fold(x1, k3k4, x2);
    x1 = fold(x1, k3k4, x3);
    x1 = fold(x1, k3k4, x4);
    while (len >= LANE_BYTES) {
        x1 = fold(x1, k3k4, load(p));
        p += LANE_BYTES;
        len -= LANE_BYTES;
    }

    // 128 bits to 64: the low half times K4 onto the high half.
    const __m128i mask32 = _mm_setr_epi32(-1, 0, -1, 0);
    x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), _mm_clmulepi64_si128(x1, k3k4, 0x10));
    // 64 bits to 32 (plus 32 zero bits appended): the low word times K5.
    const __m128i k5 = set(K5, 0);
    x1 = _mm_xor_si128(_mm_srli_si128(x1, 4),
                       _mm_clmulepi64_si128(_mm_and_si128(x1, mask32), k5, 0x00));
    // Barrett reduction to the 32-bit remainder.
    const __m128i poly_mu = set(POLY_REFLECTED, MU_REFLECTED);
    __m128i t = _mm_clmulepi64_si128(_mm_and_si128(x1, mask32), poly_mu, 0x10);
    t = _mm_clmulepi64_si128(_mm_and_si128(t, mask32), poly_mu, 0x00);
    x1 = _mm_xor_si128(x1, t);
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(x1, 4)));
}

bool have_pclmul() {
    // CPUID leaf 1, ECX bit 1: PCLMULQDQ. Read directly, so that the binary does not carry
    // the compiler runtime's CPU model tables for a single flag.
    static const bool yes = [] {
        unsigned a = 0, b = 0, c = 0, d = 0;
        return __get_cpuid(1, &a, &b, &c, &d) != 0 && (c & bit_PCLMUL) != 0;
    }();
    return yes;
}

#elif defined(__arm__)

// ARMv8 cores running 32-bit code have CRC-32 instructions for this very polynomial;
// ARMv7 cores do not, so the instructions are used only when the kernel reports them.
constexpr std::size_t ARM_CRC_MIN_LEN = 16;

__attribute__((target("arch=armv8-a+crc+simd"))) std::uint32_t
crc_arm(std::uint32_t c, const std::uint8_t *p, std::size_t len) {
    while (len >= 8) {
        std::uint32_t a = static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
                          static_cast<std::uint32_t>(p[2]) << 16 |
                          static_cast<std::uint32_t>(p[3]) << 24;
        std::uint32_t b = static_cast<std::uint32_t>(p[4]) | static_cast<std::uint32_t>(p[5]) << 8 |
                          static_cast<std::uint32_t>(p[6]) << 16 |
                          static_cast<std::uint32_t>(p[7]) << 24;
        c = __builtin_arm_crc32w(__builtin_arm_crc32w(c, a), b);
        p += 8;
        len -= 8;
    }
    while (len--)
        c = __builtin_arm_crc32b(c, *p++);
    return c;
}

bool have_arm_crc() {
    static const bool yes = (getauxval(AT_HWCAP2) & HWCAP2_CRC32) != 0;
    return yes;
}

#endif

} // namespace

std::uint32_t crc32_calc_bytewise(std::uint32_t crc, const void *buf, std::uint32_t len) {
    if (len == 0) return crc;
    const auto *p = static_cast<const std::uint8_t *>(buf);
    std::uint32_t c = ~crc;
    while (len--)
        c = tables[0][(c ^ *p++) & 0xFFu] ^ (c >> 8);
    return ~c;
}

std::uint32_t crc32_calc(std::uint32_t crc, const void *buf, std::uint32_t len) {
    if (len == 0) return crc;
    const auto *p = static_cast<const std::uint8_t *>(buf);
    std::size_t n = len;
    std::uint32_t c = ~crc;
#if defined(__x86_64__)
    if (n >= FOLD_MIN_LEN && have_pclmul()) {
        std::size_t bulk = n & ~(LANE_BYTES - 1);
        c = crc_fold_pclmul(c, p, bulk);
        p += bulk;
        n -= bulk;
    }
#elif defined(__arm__)
    if (n >= ARM_CRC_MIN_LEN && have_arm_crc()) return ~crc_arm(c, p, n);
#endif
    return ~crc_slice8(c, p, n);
}
