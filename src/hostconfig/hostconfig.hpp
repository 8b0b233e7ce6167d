// The hostconfig image in memory: a fixed buffer with a table of its content parts.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zunf/zunf_format.hpp"

inline constexpr std::uint32_t HOSTCONFIG_MAX_SIZE = 5120;
inline constexpr std::size_t HOSTCONFIG_MAX_PARTS = 20;

struct hostconfig {
    std::uint8_t image[HOSTCONFIG_MAX_SIZE]; // the image exactly as stored
    zunf_image_header *hdr;                  // image + 8 once initialised
    zunf_content_header *parts[HOSTCONFIG_MAX_PARTS];
    std::uint32_t capacity;
    std::int32_t count;
    std::uint32_t used; // bytes in use when building; starts at 24
};

// Clears the handle. Returns 1, or 0 (handle left cleared) when capacity > 5120 or < 24.
int hostconfig_new(hostconfig *hc, std::uint32_t capacity);
// Appends a copy of an existing part (hdr_length + body_length bytes). Returns 1, or -1
// (nothing changed) when it does not fit, 20 parts are present or its hdr_length is not
// a multiple of 4.
int hostconfig_add(hostconfig *hc, const zunf_content_header *part);
// Appends a new data part (type 3, 32-byte header) with the body and name (cut to 15).
// Returns 1, or -1 (nothing changed) when it does not fit or 20 parts are present.
int hostconfig_add_body(hostconfig *hc, const void *body, std::uint32_t length, const char *name);
// Body (part + 32) of the first part whose name begins with name, or null.
std::uint8_t *hostconfig_get_body(hostconfig *hc, const char *name);
// Header of that same part (the one hostconfig_get_body finds), or null.
zunf_content_header *hostconfig_find_part(hostconfig *hc, const char *name);
// Loads path, else backup_path (may be null). Returns 1 primary, 2 backup, -1 neither
// (also for an image header other than 16 bytes or more than 20 parts).
int hostconfig_load(hostconfig *hc, const char *path, const char *backup_path);
// Writes the part's body_crc (of the body at part + hdr_length) then hdr_crc.
// Returns 1, or -1 for an empty body.
int hostconfig_finalize_content(zunf_content_header *part);
// Writes magic, version, body_crc, hdr_crc. Returns 1, or -1 when body_length is 0.
int hostconfig_finalize_zunf(hostconfig *hc);
// Finalizes and writes backup_path first (when given, result ignored), then path.
// Returns 1 when the write to path succeeded, else -1 (also, writing nothing, for a
// handle without parts or a loaded one).
int hostconfig_save(hostconfig *hc, const char *path, const char *backup_path);

// One stored copy. Returns 0 for a valid image read into hc, -1 otherwise.
int hostconfig_load_raw(hostconfig *hc, const char *path);
// Writes the first `used` bytes (erasing an MTD device first). Returns 0, or -1.
int hostconfig_save_raw(hostconfig *hc, const char *path);
