// Byte layouts of the ZUNF image container: release images, the hostconfig image and
// the software block a partition carries behind its content. Every record here is a
// little-endian byte layout with alignment 1, so a pointer into an image buffer may be
// viewed through it directly on any host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "util/le.hpp"

inline constexpr char ZUNF_MAGIC[8] = {'F', 'N', 'U', 'Z', 'Z', 'U', 'N', 'F'};
inline constexpr std::size_t ZUNF_MAGIC_LEN = 8;
inline constexpr std::uint8_t ZUNF_VERSION = 1;
inline constexpr std::uint16_t ZUNF_IMAGE_HDR_LEN = 16; // as written, counted from offset 8
inline constexpr std::uint32_t ZUNF_FIRST_PART_OFFSET = 24;
inline constexpr std::uint16_t ZUNF_CONTENT_HDR_LEN = 32;
inline constexpr std::size_t ZUNF_NAME_LEN = 16; // 15 characters and a NUL
inline constexpr std::size_t ZUNF_MAX_PARTS = 20;

enum : std::uint16_t {
    ZUNF_TYPE_RELEASE_HEADER = 1,
    ZUNF_TYPE_DATA = 3,
    ZUNF_TYPE_SOFTWARE = 4,
};

// Image header, at image offset 8 (right behind the magic).
struct zunf_image_header {
    le32 hdr_crc; // CRC of this header from its byte 4 to hdr_length
    std::uint8_t version;
    std::uint8_t reserved;
    le16 hdr_length;  // counted from image offset 8
    le32 body_length; // bytes after the header: all parts with padding
    le32 body_crc;
};
static_assert(sizeof(zunf_image_header) == 16);
static_assert(offsetof(zunf_image_header, version) == 4);
static_assert(offsetof(zunf_image_header, hdr_length) == 6);
static_assert(offsetof(zunf_image_header, body_length) == 8);
static_assert(offsetof(zunf_image_header, body_crc) == 12);

// Common header of every content part.
struct zunf_content_header {
    le32 hdr_crc; // CRC of part bytes 4 .. hdr_length-1
    le16 type_id;
    le16 hdr_length;  // includes any type-specific header
    le32 body_length; // without padding
    char name[ZUNF_NAME_LEN];
    le32 body_crc;
};
static_assert(sizeof(zunf_content_header) == 32);
static_assert(offsetof(zunf_content_header, type_id) == 4);
static_assert(offsetof(zunf_content_header, hdr_length) == 6);
static_assert(offsetof(zunf_content_header, body_length) == 8);
static_assert(offsetof(zunf_content_header, name) == 12);
static_assert(offsetof(zunf_content_header, body_crc) == 28);

// Type-specific header of a release header part (part offset 32); also the per-set
// release header copy kept in the upgrade data.
struct zunf_release_header {
    std::uint8_t release_version_major;
    std::uint8_t release_version_minor;
    le16 release_build_number;
    le32 release_date; // seconds since 1970-01-01 UTC
    char release_build_id[36];
};
static_assert(sizeof(zunf_release_header) == 44);
static_assert(offsetof(zunf_release_header, release_build_number) == 2);
static_assert(offsetof(zunf_release_header, release_date) == 4);
static_assert(offsetof(zunf_release_header, release_build_id) == 8);

// Type-specific header of a software part (part offset 32).
struct zunf_software_header {
    std::uint8_t sw_version_major;
    std::uint8_t sw_version_minor;
    le16 sw_build_number;
    char sw_build_id[28];
};
static_assert(sizeof(zunf_software_header) == 32);
static_assert(offsetof(zunf_software_header, sw_build_number) == 2);
static_assert(offsetof(zunf_software_header, sw_build_id) == 4);

// A software part's whole header: what the upgrade data keeps per partition ("pinfometa")
// and what a partition carries as its software block behind the content.
struct zunf_pinfometa {
    zunf_content_header hdr;
    zunf_software_header sw;
};
static_assert(sizeof(zunf_pinfometa) == 64);
static_assert(offsetof(zunf_pinfometa, sw) == 32);

inline constexpr std::uint16_t ZUNF_RELEASE_PART_HDR_LEN = 32 + sizeof(zunf_release_header);   // 76
inline constexpr std::uint16_t ZUNF_SOFTWARE_PART_HDR_LEN = 32 + sizeof(zunf_software_header); // 64
static_assert(ZUNF_RELEASE_PART_HDR_LEN == 76 && ZUNF_SOFTWARE_PART_HDR_LEN == 64);

// Rounds a body length up to the 4-byte part alignment.
constexpr std::uint32_t zunf_pad4(std::uint32_t n) {
    return (n + 3u) & ~3u;
}

inline const std::uint8_t *zunf_bytes(const void *p) {
    return static_cast<const std::uint8_t *>(p);
}
