#include "hostconfig/hostconfig.hpp"

#include <cstring>

#include "util/crc32.hpp"
#include "util/qx.hpp"
#include "zunf/zunf_validate.hpp"

namespace {
constexpr const char *MODULE = "hostconfig";
constexpr std::uint32_t PART_ALIGN = 4;

std::uint8_t *bytes(void *p) {
    return static_cast<std::uint8_t *>(p);
}

// Room left for appending. A capacity below the bytes in use leaves no room instead of
// wrapping around to a huge unsigned value.
std::uint64_t room(const hostconfig *hc) {
    return hc->capacity > hc->used ? hc->capacity - hc->used : 0;
}

// Records a part that starts at `used` and occupies `length` bytes.
void commit_append(hostconfig *hc, std::uint32_t start, std::uint32_t length) {
    // The padding bytes are left as they are: a handle fresh from hostconfig_new has
    // zeros there, which is what a newly built image carries.
    hc->used = zunf_pad4(start + length);
    hc->parts[hc->count] = reinterpret_cast<zunf_content_header *>(hc->image + start);
    ++hc->count;
}

bool table_full(const hostconfig *hc) {
    return hc->count < 0 || static_cast<std::size_t>(hc->count) >= HOSTCONFIG_MAX_PARTS;
}
} // namespace

int hostconfig_new(hostconfig *hc, std::uint32_t capacity) {
    QX_ASSERT(MODULE, hc != nullptr);
    std::memset(static_cast<void *>(hc), 0, sizeof *hc);
    // Below the image header there is no room for any part: such a handle could only
    // ever produce an image without content, so it is refused like an oversized one.
    if (capacity > HOSTCONFIG_MAX_SIZE || capacity < ZUNF_FIRST_PART_OFFSET) return 0;
    hc->hdr = reinterpret_cast<zunf_image_header *>(hc->image + ZUNF_MAGIC_LEN);
    hc->capacity = capacity;
    hc->used = ZUNF_FIRST_PART_OFFSET;
    return 1;
}

int hostconfig_add(hostconfig *hc, const zunf_content_header *part) {
    QX_ASSERT(MODULE, hc != nullptr);
    QX_ASSERT(MODULE, part != nullptr);
    // The copy is padded after header and body together, the loader pads after the body
    // alone: the two agree only for a header length that is a multiple of 4, as every
    // part this system writes has. Any other part would be stored where no load finds it.
    if (part->hdr_length % PART_ALIGN != 0) return -1;
    std::uint64_t length = std::uint64_t{part->hdr_length} + part->body_length;
    if (length > room(hc)) return -1;
    if (table_full(hc)) return -1;
    std::uint32_t start = hc->used;
    std::memcpy(hc->image + start, part, static_cast<std::size_t>(length));
    commit_append(hc, start, static_cast<std::uint32_t>(length));
    return 1;
}

int hostconfig_add_body(hostconfig *hc, const void *body, std::uint32_t length, const char *name) {
    QX_ASSERT(MODULE, hc != nullptr);
    QX_ASSERT(MODULE, name != nullptr);
    QX_ASSERT(MODULE, body != nullptr || length == 0);
    std::uint64_t total = std::uint64_t{ZUNF_CONTENT_HDR_LEN} + length;
    if (total > room(hc)) return -1;
    if (table_full(hc)) return -1;
    std::uint32_t start = hc->used;
    auto *hdr = reinterpret_cast<zunf_content_header *>(hc->image + start);
    hdr->type_id = ZUNF_TYPE_DATA;
    hdr->hdr_length = ZUNF_CONTENT_HDR_LEN;
    hdr->body_length = length;
    qx_strlcpy(hdr->name, name, sizeof hdr->name);
    // Both CRC fields stay zero here; hostconfig_save computes them once the image is whole.
    if (length > 0) std::memcpy(hc->image + start + ZUNF_CONTENT_HDR_LEN, body, length);
    commit_append(hc, start, static_cast<std::uint32_t>(total));
    return 1;
}

zunf_content_header *hostconfig_find_part(hostconfig *hc, const char *name) {
    QX_ASSERT(MODULE, hc != nullptr);
    QX_ASSERT(MODULE, name != nullptr);
    std::size_t n = std::strlen(name);
    // A stored name has at most 16 bytes; a longer search text can match none of them.
    if (n > ZUNF_NAME_LEN) return nullptr;
    for (std::int32_t i = 0; i < hc->count && static_cast<std::size_t>(i) < HOSTCONFIG_MAX_PARTS;
         ++i) {
        zunf_content_header *part = hc->parts[i];
        if (std::strncmp(part->name, name, n) == 0) return part;
    }
    return nullptr;
}

std::uint8_t *hostconfig_get_body(hostconfig *hc, const char *name) {
    zunf_content_header *part = hostconfig_find_part(hc, name);
    return part ? bytes(part) + ZUNF_CONTENT_HDR_LEN : nullptr;
}

int hostconfig_load(hostconfig *hc, const char *path, const char *backup_path) {
    QX_ASSERT(MODULE, hc != nullptr);
    QX_ASSERT(MODULE, path != nullptr);
    int which = 1;
    if (hostconfig_load_raw(hc, path) != 0) {
        if (backup_path == nullptr) return -1;
        if (hostconfig_load_raw(hc, backup_path) != 0) return -1;
        which = 2;
    }
    // The parts are walked from offset 24, where a header of exactly 16 bytes ends; a
    // longer header would put the body elsewhere than the walk looks.
    if (hc->hdr->hdr_length != ZUNF_IMAGE_HDR_LEN) return -1;

    // load_raw checked that the body lies inside the bytes read, so every step below that
    // stays within `remaining` stays within the image.
    std::int64_t remaining = hc->hdr->body_length;
    std::uint32_t pos = ZUNF_FIRST_PART_OFFSET;
    for (;;) {
        // Not even a part header left: nothing could validate here.
        if (remaining < ZUNF_CONTENT_HDR_LEN) return -1;
        auto *part = reinterpret_cast<zunf_content_header *>(hc->image + pos);
        std::int64_t hdr_length = part->hdr_length;
        std::int64_t body_length = part->body_length;
        if (remaining < hdr_length) return -1;
        if (remaining - hdr_length < body_length) return -1;
        std::int64_t padded = zunf_pad4(static_cast<std::uint32_t>(body_length));
        remaining -= hdr_length + padded;
        if (zunf_validate_content_part(part, hc->image + pos + hdr_length) != ZUNF_VALID) return -1;
        // The table holds 20 parts; an image with more is not one this system wrote.
        if (table_full(hc)) return -1;
        hc->parts[hc->count] = part;
        ++hc->count;
        pos += static_cast<std::uint32_t>(hdr_length + padded);
        if (remaining <= ZUNF_CONTENT_HDR_LEN) return which;
    }
}

int hostconfig_finalize_content(zunf_content_header *part) {
    QX_ASSERT(MODULE, part != nullptr);
    if (part->body_length == 0) return -1;
    // The header CRC covers bytes 4 .. hdr_length-1; a header shorter than the common
    // one has no valid CRC range and is left alone.
    if (part->hdr_length < ZUNF_CONTENT_HDR_LEN) return -1;
    // Body first: the header CRC covers the body_crc field. The body is taken where the
    // loader checks it, after the whole header: for the parts built here that is offset
    // 32, and a carried-over part with a longer vendor header keeps a body CRC that loads.
    part->body_crc = crc32_calc(0, bytes(part) + part->hdr_length, part->body_length);
    part->hdr_crc = crc32_calc(0, bytes(part) + 4, part->hdr_length - 4u);
    return 1;
}

int hostconfig_finalize_zunf(hostconfig *hc) {
    QX_ASSERT(MODULE, hc != nullptr);
    QX_ASSERT(MODULE, hc->hdr != nullptr);
    zunf_image_header *hdr = hc->hdr;
    if (hdr->body_length == 0) return -1;
    std::uint64_t end = std::uint64_t{ZUNF_MAGIC_LEN} + hdr->hdr_length + hdr->body_length;
    if (hdr->hdr_length < ZUNF_IMAGE_HDR_LEN || end > HOSTCONFIG_MAX_SIZE) return -1;
    std::memcpy(hc->image, ZUNF_MAGIC, ZUNF_MAGIC_LEN);
    hdr->version = ZUNF_VERSION;
    hdr->body_crc = crc32_calc(0, bytes(hdr) + hdr->hdr_length, hdr->body_length);
    hdr->hdr_crc = crc32_calc(0, bytes(hdr) + 4, hdr->hdr_length - 4u);
    return 1;
}

namespace {
bool holds_valid_image(const char *path) {
    hostconfig stored;
    return hostconfig_new(&stored, HOSTCONFIG_MAX_SIZE) == 1 &&
           hostconfig_load_raw(&stored, path) == 0;
}
} // namespace

int hostconfig_save(hostconfig *hc, const char *path, const char *backup_path) {
    QX_ASSERT(MODULE, hc != nullptr);
    QX_ASSERT(MODULE, path != nullptr);
    QX_ASSERT(MODULE, hc->used <= HOSTCONFIG_MAX_SIZE);
    // Only a building handle with content can be written: an image without parts has no
    // valid CRCs, and a loaded handle (used still 24) would store a bare header. Either
    // would destroy a good copy on flash.
    if (hc->count <= 0 || hc->used <= ZUNF_FIRST_PART_OFFSET) return -1;
    hc->hdr->body_length = hc->used - ZUNF_FIRST_PART_OFFSET;
    hc->hdr->hdr_length = ZUNF_IMAGE_HDR_LEN;
    for (std::int32_t i = 0; i < hc->count && static_cast<std::size_t>(i) < HOSTCONFIG_MAX_PARTS;
         ++i)
        hostconfig_finalize_content(hc->parts[i]);
    hostconfig_finalize_zunf(hc);
    // One good copy stays on flash at every moment. Normally that is the primary, so the
    // backup goes first: if power fails while the primary is erased or half written, the
    // backup already holds the new image. When only the backup holds a valid image (this
    // run had to load it), it must not be erased before the primary holds the new image.
    if (backup_path != nullptr && !holds_valid_image(path) && holds_valid_image(backup_path)) {
        if (hostconfig_save_raw(hc, path) != 0) return -1;
        hostconfig_save_raw(hc, backup_path);
        return 1;
    }
    if (backup_path != nullptr) hostconfig_save_raw(hc, backup_path);
    return hostconfig_save_raw(hc, path) == 0 ? 1 : -1;
}
