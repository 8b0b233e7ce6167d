// Walks a ZUNF image while its bytes are still arriving. The caller owns one buffer,
// appends bytes to it in arrival order and tells the parser how many it added; the
// parser keeps offsets and pointers into that buffer (it never copies or moves data),
// validates each content part as soon as its header and then its whole padded body are
// present, and keeps a table of the parts it has completed.
//
// Calling order: init; hdr once the first 24 bytes are present; next after every append,
// with skip allowed while part_state is ZUNF_SP_PART_BODY; the accessors at any time.
// Faults of the image are results; misuse by the caller is an assertion.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "zunf/zunf_format.hpp"

// status
enum : std::int32_t {
    ZUNF_SP_INIT = 1,    // waiting for the image header
    ZUNF_SP_PARTS = 2,   // header accepted, parsing content parts
    ZUNF_SP_DONE = 3,    // the last part ended exactly at the image end
    ZUNF_SP_FAILED = -1, // the image was rejected; nothing more is parsed
};

// part_state: position within the current content part.
enum : std::uint32_t {
    ZUNF_SP_PART_START = 0,
    ZUNF_SP_PART_COMMON_HDR = 1, // expecting the 32-byte common header
    ZUNF_SP_PART_TYPE_HDR = 2,   // expecting the rest of the part header
    ZUNF_SP_PART_BODY = 3,       // header accepted, expecting the padded body
    ZUNF_SP_PART_IMAGE_END = 4,  // image complete
};

// Results of zunf_stream_parser_hdr and zunf_stream_parser_next. Every negative result
// leaves status ZUNF_SP_FAILED.
enum : int {
    ZUNF_SP_HDR_OK = 1,
    ZUNF_SP_COMPLETE = 0,             // next: the image is complete
    ZUNF_SP_MORE = 2,                 // next: more bytes are needed
    ZUNF_SP_ERR_PART_HDR_LENGTH = -1, // next: a part's hdr_length is below 32
    ZUNF_SP_ERR_PART_HDR_CRC = -2,    // next: a part header failed its CRC
    ZUNF_SP_ERR_MAGIC = -3,           // hdr: either half of the magic is wrong
    ZUNF_SP_ERR_VERSION = -5,         // hdr: version is not 1
    ZUNF_SP_ERR_OVERRUN = -5,         // next: a part ran past the image end
    ZUNF_SP_ERR_TOO_MANY_PARTS = -6,  // next: the image brings a 21st part
};

// Bytes the caller must hold before calling zunf_stream_parser_hdr: magic and image header.
inline constexpr std::uint32_t ZUNF_SP_HDR_BYTES = 24;

struct zunf_stream_parser_part_info {
    std::int8_t valid;                   // 1 body CRC matched, -1 failed, 0 not checked
    std::uint8_t covered_by_signature;   // never set by this system
    std::uint8_t validated_by_signature; // never set by this system
};
static_assert(sizeof(zunf_stream_parser_part_info) == 3);

struct zunf_stream_parser {
    std::int32_t status;
    const std::uint8_t *buffer;         // the caller's buffer; image offset 0 is its first byte
    const zunf_image_header *header;    // buffer + 8, once the header was accepted
    std::uint32_t offset;               // parse position from the buffer start
    const zunf_content_header *current; // header of the part being parsed
    std::uint32_t index;                // index of the part being parsed
    std::uint32_t available;            // bytes present in the buffer
    std::uint32_t end_offset;           // 8 + image hdr_length + image body_length
    // Per part index: its header once its body was consumed (valid or not); null for a
    // part not reached or skipped.
    const zunf_content_header *content_parts[ZUNF_MAX_PARTS];
    std::int32_t found_content_parts;   // bodies consumed or skipped
    std::int32_t valid_content_parts;   // body CRC matched
    std::int32_t invalid_content_parts; // body CRC failed, plus skipped parts
    zunf_stream_parser_part_info info[ZUNF_MAX_PARTS];
    std::int32_t found_content_part_headers; // headers that passed their CRC
    std::uint32_t part_state;
};

// Releases a record that zunf_stream_parser_init allocated (it comes from calloc).
struct zunf_stream_parser_deleter {
    void operator()(zunf_stream_parser *parser) const { std::free(parser); }
};

// Resets the record over buffer (status ZUNF_SP_INIT); a null parser makes it allocate a
// zero-filled record that the caller frees. Returns the record, or null when that
// allocation failed. Asserts buffer is not null.
zunf_stream_parser *zunf_stream_parser_init(zunf_stream_parser *parser, const void *buffer);

// Takes magic and image header from the buffer start; the caller holds `available` >= 24
// bytes. Returns 1 (status ZUNF_SP_PARTS, offset 8 + image hdr_length), -3 bad magic,
// -5 bad version. Checks neither image CRC. Asserts status ZUNF_SP_INIT.
int zunf_stream_parser_hdr(zunf_stream_parser *parser, std::uint32_t available);

// Accounts `added` bytes appended since the last call (0 allowed) and parses as far as
// they reach. Returns 0 complete (ZUNF_SP_DONE), 2 more bytes needed, -1 part hdr_length
// below 32, -2 part header CRC, -5 a part ran past the image end, -6 the image brings a
// 21st part (rejected as soon as the 20th part ends short of the image end). A failed
// body CRC is recorded per part and does not stop parsing. Asserts status ZUNF_SP_PARTS.
int zunf_stream_parser_next(zunf_stream_parser *parser, std::uint32_t added);

// Steps over the current part's padded body without reading it; the skipped bytes count
// as never received (available = the new offset) and the part as found and invalid.
// Returns the offset at which the caller continues appending; status ZUNF_SP_DONE when it
// is the image end. Rejects the image (status ZUNF_SP_FAILED) when the body would run past
// the image end (nothing moves, the unchanged offset is returned) or when the 20th part is
// skipped short of the image end. Asserts status ZUNF_SP_PARTS, part_state ZUNF_SP_PART_BODY.
std::uint32_t zunf_stream_parser_skip(zunf_stream_parser *parser);

// Returns status.
std::int32_t zunf_stream_parser_get_status(const zunf_stream_parser *parser);
// Returns the table of ZUNF_MAX_PARTS content part header pointers (index = part number).
const zunf_content_header *const *
zunf_stream_parser_content_parts(const zunf_stream_parser *parser);
// Return the counters of those names.
std::int32_t zunf_stream_parser_get_found_content_parts(const zunf_stream_parser *parser);
std::int32_t zunf_stream_parser_get_valid_content_parts(const zunf_stream_parser *parser);
std::int32_t zunf_stream_parser_get_found_content_part_headers(const zunf_stream_parser *parser);
// Returns the valid flag of part i: 1, -1 or 0. Asserts 0 <= i < ZUNF_MAX_PARTS.
int zunf_stream_parser_content_part_is_valid(const zunf_stream_parser *parser, int i);
