// Shared pieces of the libFuzzer targets: a check that counts as a crash, a private file for
// the code that reads by path, chunk sizes taken from the input's leading bytes, and a
// mutator that keeps an image's CRCs right so that mutations get past the checksums.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

#include "util/crc32.hpp"
#include "zunf/zunf_format.hpp"

// An invariant the product must keep: a violation is a finding like any overrun.
#define FUZZ_CHECK(cond)                                                                           \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            std::fprintf(stderr, "FUZZ_CHECK failed at %s:%d: %s\n", __FILE__, __LINE__, #cond);   \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)

// A directory of this process's own, removed at exit; in memory where /dev/shm exists, since
// its files are rewritten for every input.
struct fuzz_tmp_dir {
    std::filesystem::path base = std::filesystem::is_directory("/dev/shm")
                                     ? "/dev/shm"
                                     : std::filesystem::temp_directory_path();
    std::string path = (base / ("kiv-fuzz-" + std::to_string(getpid()))).string();
    fuzz_tmp_dir() { std::filesystem::create_directories(path); }
    ~fuzz_tmp_dir() { std::filesystem::remove_all(path); }
};
inline const std::string &fuzz_dir() {
    static const fuzz_tmp_dir dir;
    return dir.path;
}

// Writes the bytes to the file `name` in that directory and returns its path.
inline std::string fuzz_file(const char *name, const std::uint8_t *data, std::size_t size) {
    std::string path = fuzz_dir() + "/" + name;
    std::FILE *f = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr && std::fwrite(data, 1, size, f) == size && std::fclose(f) == 0);
    return path;
}

// Input of the chunked targets: a flags byte, a count k (0..15), k chunk sizes used in
// turn, then the image. A size of 0 is an empty chunk; once a whole round of sizes
// delivered nothing, or with k = 0, the rest comes as one chunk.
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

// Recomputes the CRCs of the image at `p` innermost first, as a writer does; where a
// mutation made a part reach past the data, the walk stops and older CRCs stay.
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

// Defines the mutator of an image target; PREFIX(data, size) is where the image starts.
// One mutation in four keeps the CRCs it made wrong, so the checks themselves get tested.
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
