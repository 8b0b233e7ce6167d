// What the fuzz targets share: checks, private files, chunkings, a CRC-fixing mutator, headers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sanitizer/asan_interface.h>
#include <string>
#include <string_view>
#include <unistd.h>

#include "util/crc32.hpp"
#include "zunf/zunf_format.hpp"

[[noreturn]] inline void fuzz_fail(const char *cond, const char *file, int line) {
    std::fprintf(stderr, "FUZZ_CHECK failed at %s:%d: %s\n", file, line, cond);
    std::abort();
}
#define FUZZ_CHECK(cond) ((cond) ? void() : fuzz_fail(#cond, __FILE__, __LINE__))

// This process's own directory, removed at exit; in memory where possible (rewritten per input).
inline const std::string &fuzz_dir() {
    static const struct tmp_dir {
        std::string path = (std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp") +
                           ("/kiv-fuzz-" + std::to_string(getpid()));
        tmp_dir() { std::filesystem::create_directories(path); }
        ~tmp_dir() { std::filesystem::remove_all(path); }
    } dir;
    return dir.path;
}

inline std::string fuzz_file(const char *name, const std::uint8_t *data, std::size_t size) {
    std::string path = fuzz_dir() + "/" + name;
    std::FILE *f = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr && std::fwrite(data, 1, size, f) == size && std::fclose(f) == 0);
    return path;
}

// Input: flags, k (0..15), k chunk sizes in turn (0 empty; a round of nothing: the rest), image.
struct fuzz_chunked {
    std::uint8_t flags = 0;
    const std::uint8_t *sizes = nullptr;
    std::size_t nsizes = 0, next = 0, empty_run = 0;
    const std::uint8_t *data;
    std::size_t size;

    fuzz_chunked(const std::uint8_t *d, std::size_t n) : data(d + n), size(0) {
        if (n < 2) return;
        flags = d[0];
        nsizes = d[1] % 16 < n - 2 ? d[1] % 16 : n - 2;
        sizes = d + 2;
        data = d + 2 + nsizes;
        size = n - 2 - nsizes;
    }
    static std::size_t prefix(const std::uint8_t *d, std::size_t n) {
        return static_cast<std::size_t>(fuzz_chunked(d, n).data - d);
    }
    std::size_t chunk() {
        if (nsizes == 0 || empty_run >= nsizes) return SIZE_MAX;
        std::size_t c = sizes[next++ % nsizes];
        empty_run = c == 0 ? empty_run + 1 : 0;
        return c;
    }
};

// Recomputes the image's CRCs innermost first; the walk stops at a part reaching past the data.
inline void fuzz_fix_crcs(std::uint8_t *p, std::size_t n, bool fix_body_length) {
    if (n < ZUNF_FIRST_PART_OFFSET) return;
    auto *hdr = reinterpret_cast<zunf_image_header *>(p + ZUNF_MAGIC_LEN);
    const std::size_t start = ZUNF_MAGIC_LEN + hdr->hdr_length;
    std::size_t pos = start;
    while (pos + ZUNF_CONTENT_HDR_LEN <= n) {
        auto *part = reinterpret_cast<zunf_content_header *>(p + pos);
        const std::size_t h = part->hdr_length, b = part->body_length;
        if (h < ZUNF_CONTENT_HDR_LEN || pos + h + b > n) break;
        part->body_crc = crc32_calc(0, p + pos + h, static_cast<std::uint32_t>(b));
        part->hdr_crc = crc32_calc(0, p + pos + 4, static_cast<std::uint32_t>(h - 4));
        pos += h + zunf_pad4(static_cast<std::uint32_t>(b));
    }
    if (fix_body_length && pos > start && pos <= n)
        hdr->body_length = static_cast<std::uint32_t>(pos - start);
    if (start >= 12 && start + hdr->body_length <= n)
        hdr->body_crc = crc32_calc(0, p + start, hdr->body_length);
    if (start >= 12 && start <= n)
        hdr->hdr_crc = crc32_calc(0, p + 12, static_cast<std::uint32_t>(start - 12));
}

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t *data, std::size_t size, std::size_t max);

// PREFIX(data, size) is where the image starts; one mutation in four keeps its CRCs wrong.
#define FUZZ_IMAGE_MUTATOR(PREFIX)                                                                 \
    extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size,           \
                                                   std::size_t max, unsigned seed) {               \
        size = LLVMFuzzerMutate(data, size, max);                                                  \
        if (seed % 4 != 0) {                                                                       \
            std::size_t at = PREFIX(data, size);                                                   \
            fuzz_fix_crcs(data + at, size - at, seed % 8 == 1);                                    \
        }                                                                                          \
        return size;                                                                               \
    }
