// Checking what the partitions hold against the content the upgrade data records for them.
// The verify action itself (verify_sets) is declared with the other actions.
#pragma once

#include <cstddef>
#include <cstdint>

#include "front/kiv_options.hpp"

struct kivl_data;

// Results of crc32_check.
enum : int {
    KIV_CRC_OK = 0,           // the partition holds the recorded content
    KIV_CRC_NOT_RECORDED = 2, // body_length or body_crc of the pinfometa entry is 0
    KIV_CRC_UNREADABLE = 3,   // device not opened or read, or (wts 2) header missing or different
    KIV_CRC_MISMATCH = 4,     // the content's CRC differs from the recorded one
};

// Result of verify_set for a set whose first reference ends the list.
inline constexpr int KIV_VERIFY_SET_NO_REFS = 1;

// Longest partition device path, without its NUL.
inline constexpr std::size_t KIV_DEVICE_PATH_MAX = 99;

// Reads from fd until n bytes are in or the device ends. Returns the count, or -1 on a
// read error.
long kiv_read_full(int fd, std::uint8_t *buf, std::size_t n);

// Formats the partition device path from data->device and the partition number into
// out (out_size bytes). The pattern may hold exactly one integer conversion (d or i, with
// flags and width) besides "%%". Returns the length, or -1 for another pattern or a path
// longer than KIV_DEVICE_PATH_MAX or than out can hold (out is then empty).
int kiv_device_path(char *out, std::size_t out_size, const char *pattern, int pn);

// Reads partition info entry i (0..19) back in the layout wts (2: the part header first,
// anything else: the body from offset 0) and compares with pinfometa entry i.
// Returns KIV_CRC_OK, KIV_CRC_NOT_RECORDED, KIV_CRC_UNREADABLE or KIV_CRC_MISMATCH.
int crc32_check(const kivl_data *data, int i, int wts);

// Checks every partition a set refers to in the wts 1 layout, printing a line per reference
// when verbose. Returns 0 when all match, KIV_VERIFY_SET_NO_REFS for a set without
// references, else the last failing crc32_check result (2, 3 or 4).
int verify_set(const kiv_options *options, const kivl_data *data, int set, int verbose);
