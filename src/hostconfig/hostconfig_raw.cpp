// Reading and writing one stored copy of the hostconfig image.
#include <cstdint>

#include "hostconfig/hostconfig.hpp"
#include "hostconfig/mtd.hpp"
#include "util/fnfile.hpp"
#include "util/qx.hpp"
#include "zunf/zunf_validate.hpp"

namespace {
constexpr const char *MODULE = "hostconfig";
}

int hostconfig_load_raw(hostconfig *hc, const char *path) {
    QX_ASSERT(MODULE, hc != nullptr);
    QX_ASSERT(MODULE, path != nullptr);
    std::int32_t length = HOSTCONFIG_MAX_SIZE;
    if (!mtd_path_is_mtd(path)) {
        length = fnsize(path);
        if (length < static_cast<std::int32_t>(ZUNF_FIRST_PART_OFFSET) ||
            length > static_cast<std::int32_t>(HOSTCONFIG_MAX_SIZE))
            return -1;
    }
    if (fnread(path, hc->image, static_cast<std::size_t>(length)) != length) return -1;
    hc->hdr = reinterpret_cast<zunf_image_header *>(hc->image + ZUNF_MAGIC_LEN);

    // The header CRC is the only guard of the lengths, and a CRC is checked over the range
    // those lengths name: a header that names bytes beyond what was read is refused
    // before any CRC touches them.
    std::uint64_t end = std::uint64_t{ZUNF_MAGIC_LEN} + hc->hdr->hdr_length + hc->hdr->body_length;
    if (end > static_cast<std::uint64_t>(length)) return -1;
    if (zunf_validate_header(hc->hdr) != ZUNF_VALID) return -1;
    if (zunf_validate_body(hc->hdr, hc->image + ZUNF_MAGIC_LEN + hc->hdr->hdr_length) != ZUNF_VALID)
        return -1;
    return 0;
}

int hostconfig_save_raw(hostconfig *hc, const char *path) {
    QX_ASSERT(MODULE, hc != nullptr);
    QX_ASSERT(MODULE, path != nullptr);
    QX_ASSERT(MODULE, hc->used <= HOSTCONFIG_MAX_SIZE);
    // NOR flash only turns bits from 1 to 0 when written; the old image must be erased
    // first or the new one would be ANDed into it.
    if (mtd_path_is_mtd(path) && mtd_fn_erase(path, 0, 0) != 0) return -1;
    std::int32_t put = fnwrite(path, hc->image, hc->used);
    return put == static_cast<std::int32_t>(hc->used) ? 0 : -1;
}
