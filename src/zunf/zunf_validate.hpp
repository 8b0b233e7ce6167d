// Validation of images and content parts held in memory. None of these reads past the
// lengths the headers name, and none checks that those lengths lie inside the caller's
// buffer: the caller guarantees that. Each returns 1 when valid, else the negative code
// of the first failed check.
#pragma once

#include "zunf/zunf_format.hpp"

enum : int {
    ZUNF_VALID = 1,
    ZUNF_ERR_VERSION = -65,
    ZUNF_ERR_HDR_LENGTH = -128,
    ZUNF_ERR_HDR_CRC = -129,
    ZUNF_ERR_BODY_CRC = -192,
};

// header points at image offset 8. Returns 1, -65 (version), -128 (hdr_length < 16),
// -129 (hdr_crc).
int zunf_validate_header(const zunf_image_header *header);
// CRC of body_length bytes at body against the header's body_crc. Returns 1 or -192.
int zunf_validate_body(const zunf_image_header *header, const void *body);
// Returns -128 (hdr_length < 32), 1, or -129 (hdr_crc mismatch).
int zunf_validate_content_header(const zunf_content_header *part);
// CRC of body_length bytes at body against the part's body_crc. Returns 1 or -192.
int zunf_validate_content_body(const zunf_content_header *part, const void *body);
// The header result when it is not 1, else the body result.
int zunf_validate_content_part(const zunf_content_header *part, const void *body);
