// Runs one CRC-32 implementation REPS times over BYTES bytes, for instruction counters
// (callgrind on the host, qemu's execution trace for ARM builds). A counter sees the whole
// process; the instructions of one CRC pass are the difference between a run with REPS 2
// and one with REPS 1, which leaves start-up and the filling of the buffer out.
//
// Usage: crc32_count kiv|zlib BYTES REPS    prints the CRC of the buffer
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "util/crc32.hpp"

#ifndef KIV_COUNT_NO_ZLIB
#include <zlib.h>
#endif

int main(int argc, char **argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: crc32_count kiv|zlib BYTES REPS\n");
        return 2;
    }
    const bool zlib = std::strcmp(argv[1], "zlib") == 0;
    if (!zlib && std::strcmp(argv[1], "kiv") != 0) return 2;
#ifdef KIV_COUNT_NO_ZLIB
    if (zlib) {
        std::fprintf(stderr, "crc32_count: built without zlib\n");
        return 2;
    }
#endif
    const auto bytes = static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 0));
    const long reps = std::strtol(argv[3], nullptr, 0);
    // Word-sized filling keeps the fixed part of the run small under a tracing emulator.
    std::vector<std::uint32_t> words((bytes + 3) / 4);
    std::uint32_t x = 1;
    for (auto &w : words)
        w = x = x * 1664525u + 1013904223u;
    const auto *buf = reinterpret_cast<const unsigned char *>(words.data());
    std::uint32_t crc = 0;
    for (long r = 0; r < reps; ++r) {
#ifndef KIV_COUNT_NO_ZLIB
        if (zlib) {
            crc = static_cast<std::uint32_t>(::crc32(0, buf, bytes));
            continue;
        }
#endif
        crc = crc32_calc(0, buf, bytes);
    }
    std::printf("%08x\n", static_cast<unsigned>(crc));
    return 0;
}
