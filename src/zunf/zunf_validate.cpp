#include "zunf/zunf_validate.hpp"

#include "util/crc32.hpp"
#include "util/qx.hpp"

static constexpr const char *MODULE = "zunf_validate";

int zunf_validate_header(const zunf_image_header *header) {
    QX_ASSERT(MODULE, header != nullptr);
    if (header->version != ZUNF_VERSION) return ZUNF_ERR_VERSION;
    std::uint16_t len = header->hdr_length;
    if (len < ZUNF_IMAGE_HDR_LEN) return ZUNF_ERR_HDR_LENGTH;
    if (crc32_calc(0, zunf_bytes(header) + 4, len - 4u) != header->hdr_crc) return ZUNF_ERR_HDR_CRC;
    return ZUNF_VALID;
}

int zunf_validate_body(const zunf_image_header *header, const void *body) {
    return crc32_calc(0, body, header->body_length) == header->body_crc ? ZUNF_VALID
                                                                        : ZUNF_ERR_BODY_CRC;
}

int zunf_validate_content_header(const zunf_content_header *part) {
    QX_ASSERT(MODULE, part != nullptr);
    std::uint16_t len = part->hdr_length;
    if (len < ZUNF_CONTENT_HDR_LEN) return ZUNF_ERR_HDR_LENGTH;
    return crc32_calc(0, zunf_bytes(part) + 4, len - 4u) == part->hdr_crc ? ZUNF_VALID
                                                                          : ZUNF_ERR_HDR_CRC;
}

int zunf_validate_content_body(const zunf_content_header *part, const void *body) {
    QX_ASSERT(MODULE, part != nullptr);
    QX_ASSERT(MODULE, body != nullptr);
    return crc32_calc(0, body, part->body_length) == part->body_crc ? ZUNF_VALID
                                                                    : ZUNF_ERR_BODY_CRC;
}

int zunf_validate_content_part(const zunf_content_header *part, const void *body) {
    int r = zunf_validate_content_header(part);
    return r != ZUNF_VALID ? r : zunf_validate_content_body(part, body);
}
