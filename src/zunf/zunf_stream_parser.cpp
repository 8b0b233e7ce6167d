#include "zunf/zunf_stream_parser.hpp"

#include <cstring>

#include "util/crc32.hpp"
#include "util/qx.hpp"
#include "zunf/zunf_validate.hpp"

static constexpr const char *MODULE = "zunf_stream_parser";

// Lengths come from an image that may be hostile: a body_length near 4 GiB must neither
// wrap the padding nor the position arithmetic, so every "is it there" question is asked
// in 64 bits.
static std::uint64_t padded_body(const zunf_content_header *part) {
    return (std::uint64_t{part->body_length} + 3u) & ~std::uint64_t{3};
}

static bool present(const zunf_stream_parser *p, std::uint64_t n) {
    return std::uint64_t{p->offset} + n <= p->available;
}

// An image end beyond what 32-bit offsets can address is never reached by a buffer, so it
// is held at the largest offset instead of wrapping to a small one.
static std::uint32_t image_end(const zunf_image_header *header) {
    std::uint64_t end = std::uint64_t{ZUNF_MAGIC_LEN} + header->hdr_length + header->body_length;
    return end > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(end);
}

static int fail(zunf_stream_parser *p, int result) {
    p->status = ZUNF_SP_FAILED;
    return result;
}

// Moves on to the next part, or completes or rejects the image. Returns 0 when complete,
// 2 when another part follows, -5 or -6 when rejected.
static int end_of_part(zunf_stream_parser *p) {
    if (p->offset == p->end_offset) {
        p->status = ZUNF_SP_DONE;
        p->part_state = ZUNF_SP_PART_IMAGE_END;
        return ZUNF_SP_COMPLETE;
    }
    if (p->offset > p->end_offset) return fail(p, ZUNF_SP_ERR_OVERRUN);
    p->index += 1;
    // The tables hold 20 parts; bytes left behind the 20th can only be a 21st part.
    if (p->index >= ZUNF_MAX_PARTS) return fail(p, ZUNF_SP_ERR_TOO_MANY_PARTS);
    return ZUNF_SP_MORE;
}

zunf_stream_parser *zunf_stream_parser_init(zunf_stream_parser *parser, const void *buffer) {
    QX_ASSERT(MODULE, buffer != nullptr);
    if (parser == nullptr) {
        parser = static_cast<zunf_stream_parser *>(std::calloc(1, sizeof(zunf_stream_parser)));
        if (parser == nullptr) return nullptr;
    }
    *parser = zunf_stream_parser{};
    parser->status = ZUNF_SP_INIT;
    parser->buffer = static_cast<const std::uint8_t *>(buffer);
    crc32_init();
    return parser;
}

int zunf_stream_parser_hdr(zunf_stream_parser *parser, std::uint32_t available) {
    QX_ASSERT(MODULE, parser != nullptr);
    QX_ASSERT(MODULE, parser->status == ZUNF_SP_INIT);
    QX_ASSERT(MODULE, available >= ZUNF_SP_HDR_BYTES);
    const std::uint8_t *b = parser->buffer;
    constexpr std::size_t half = ZUNF_MAGIC_LEN / 2;
    if (std::memcmp(b, ZUNF_MAGIC, half) != 0 ||
        std::memcmp(b + half, ZUNF_MAGIC + half, half) != 0)
        return fail(parser, ZUNF_SP_ERR_MAGIC);
    const auto *header = reinterpret_cast<const zunf_image_header *>(b + ZUNF_MAGIC_LEN);
    if (header->version != ZUNF_VERSION) return fail(parser, ZUNF_SP_ERR_VERSION);
    parser->header = header;
    // The first part sits behind the header whatever length it claims; the length is not
    // checked here, the part header's own CRC decides.
    parser->offset = static_cast<std::uint32_t>(ZUNF_MAGIC_LEN + header->hdr_length);
    parser->available = available;
    parser->status = ZUNF_SP_PARTS;
    return ZUNF_SP_HDR_OK;
}

int zunf_stream_parser_next(zunf_stream_parser *parser, std::uint32_t added) {
    QX_ASSERT(MODULE, parser != nullptr);
    QX_ASSERT(MODULE, parser->status == ZUNF_SP_PARTS);
    zunf_stream_parser *p = parser;
    if (added == 0 && p->offset >= p->available) return ZUNF_SP_MORE;
    // Offsets are 32-bit: a caller's buffer never holds more.
    QX_ASSERT(MODULE, added <= UINT32_MAX - p->available);
    p->available += added;

    for (;;) {
        switch (p->part_state) {
        case ZUNF_SP_PART_START:
            p->part_state = ZUNF_SP_PART_COMMON_HDR;
            break;

        case ZUNF_SP_PART_COMMON_HDR:
            if (!present(p, ZUNF_CONTENT_HDR_LEN)) return ZUNF_SP_MORE;
            p->current = reinterpret_cast<const zunf_content_header *>(p->buffer + p->offset);
            p->offset += ZUNF_CONTENT_HDR_LEN;
            if (p->current->hdr_length < ZUNF_CONTENT_HDR_LEN)
                return fail(p, ZUNF_SP_ERR_PART_HDR_LENGTH);
            p->end_offset = image_end(p->header);
            p->part_state = ZUNF_SP_PART_TYPE_HDR;
            break;

        case ZUNF_SP_PART_TYPE_HDR: {
            std::uint32_t rest = p->current->hdr_length - std::uint32_t{ZUNF_CONTENT_HDR_LEN};
            if (!present(p, rest)) return ZUNF_SP_MORE;
            p->offset += rest;
            if (zunf_validate_content_header(p->current) < 0)
                return fail(p, ZUNF_SP_ERR_PART_HDR_CRC);
            p->found_content_part_headers += 1;
            p->part_state = ZUNF_SP_PART_BODY;
            break;
        }

        case ZUNF_SP_PART_BODY: {
            std::uint64_t padded = padded_body(p->current);
            // The padding too must be there: the next part header starts behind it.
            if (!present(p, padded)) return ZUNF_SP_MORE;
            std::uint32_t i = p->index;
            p->found_content_parts += 1;
            p->content_parts[i] = p->current;
            if (zunf_validate_content_body(p->current, p->buffer + p->offset) == ZUNF_VALID) {
                p->info[i].valid = 1;
                p->valid_content_parts += 1;
            } else {
                p->info[i].valid = -1;
                p->invalid_content_parts += 1;
            }
            p->offset += static_cast<std::uint32_t>(padded); // fits: it lies below available
            p->part_state = ZUNF_SP_PART_COMMON_HDR;
            int r = end_of_part(p);
            if (r != ZUNF_SP_MORE) return r;
            break;
        }

        default:
            // ZUNF_SP_PART_IMAGE_END comes only with ZUNF_SP_DONE, which the entry refuses.
            QX_ASSERT(MODULE, false);
            return fail(p, ZUNF_SP_ERR_OVERRUN);
        }
    }
}

std::uint32_t zunf_stream_parser_skip(zunf_stream_parser *parser) {
    QX_ASSERT(MODULE, parser != nullptr);
    QX_ASSERT(MODULE, parser->status == ZUNF_SP_PARTS);
    QX_ASSERT(MODULE, parser->part_state == ZUNF_SP_PART_BODY);
    zunf_stream_parser *p = parser;
    std::uint64_t behind = std::uint64_t{p->offset} + padded_body(p->current);
    if (behind > p->end_offset) {
        // Resuming behind the image end could only append garbage; refuse the image here
        // as next would once the body arrived.
        fail(p, ZUNF_SP_ERR_OVERRUN);
        return p->offset;
    }
    p->part_state = ZUNF_SP_PART_START;
    p->offset = static_cast<std::uint32_t>(behind);
    // The body was never received: the caller's next append lands at the new offset.
    p->available = p->offset;
    p->found_content_parts += 1;
    p->invalid_content_parts += 1;
    end_of_part(p); // completes the image, or rejects a 21st part, as next would
    return p->offset;
}

std::int32_t zunf_stream_parser_get_status(const zunf_stream_parser *parser) {
    QX_ASSERT(MODULE, parser != nullptr);
    return parser->status;
}

const zunf_content_header *const *
zunf_stream_parser_content_parts(const zunf_stream_parser *parser) {
    QX_ASSERT(MODULE, parser != nullptr);
    return parser->content_parts;
}

std::int32_t zunf_stream_parser_get_found_content_parts(const zunf_stream_parser *parser) {
    QX_ASSERT(MODULE, parser != nullptr);
    return parser->found_content_parts;
}

std::int32_t zunf_stream_parser_get_valid_content_parts(const zunf_stream_parser *parser) {
    QX_ASSERT(MODULE, parser != nullptr);
    return parser->valid_content_parts;
}

std::int32_t zunf_stream_parser_get_found_content_part_headers(const zunf_stream_parser *parser) {
    QX_ASSERT(MODULE, parser != nullptr);
    return parser->found_content_part_headers;
}

int zunf_stream_parser_content_part_is_valid(const zunf_stream_parser *parser, int i) {
    QX_ASSERT(MODULE, parser != nullptr);
    QX_ASSERT(MODULE, i >= 0);
    QX_ASSERT(MODULE, i < static_cast<int>(ZUNF_MAX_PARTS));
    return parser->info[i].valid;
}
