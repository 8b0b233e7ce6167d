// Planning an install in the upgrade data: for every release metadata element, keep the
// content where a partition of its pool already holds it intact, or choose the partition to
// write it into; then give the target set its new references and release header. Nothing
// here touches flash except the CRC reads of candidate partitions, and nothing is saved.
#include <cstring>
#include <string_view>

#include "kivl/kivl.hpp"
#include "tools/verify.hpp"
#include "util/fixed_text.hpp"
#include "util/qx.hpp"

namespace {
constexpr const char *MODULE = "kivl";

std::string_view pool_of(const kivl_kivm_elem &e) {
    return field_view(e.poolname, sizeof e.poolname);
}

bool in_pool(const kivl_data *kdata, int i, std::string_view pool) {
    return field_view(kdata->rec.partinfo[i].poolname, KIVL_POOLNAME_LEN) == pool;
}

const kivl_version &version_of(const zunf_pinfometa &meta) {
    return *reinterpret_cast<const kivl_version *>(&meta.sw);
}

// The element's pool name as a C string: its field may be full.
struct pool_name {
    char text[KIVM_POOLNAME_LEN + 1] = {};
    explicit pool_name(const kivl_kivm_elem &e) {
        std::memcpy(text, e.poolname, KIVM_POOLNAME_LEN);
    }
};

// An element without version uses what its pool holds: the single partition of a
// singleton, else the partition recording the newest version (the lowest index on a tie,
// an empty record counting as 0.0-0). -1 when the pool is unknown (also when the pool table
// was never generated) or has no member.
int newest_in_pool(const kivl_data *kdata, const kivl_kivm_elem &e) {
    std::uint8_t items[KIVL_PARTINFOS];
    const int members = kivl_partpool_items(kdata, pool_name(e).text, items);
    if (members <= 0) return -1;
    if (members == 1) return items[0];
    int best = -1;
    for (int i = 0; i < static_cast<int>(KIVL_PARTINFOS); ++i) {
        if (!in_pool(kdata, i, pool_of(e))) continue;
        if (best < 0 || kivl_version_cmp(version_of(kdata->rec.pinfometa[i]),
                                         version_of(kdata->rec.pinfometa[best])) > 0)
            best = i;
    }
    return best;
}

bool is_used(const kivl_kivm_elem *elems, std::size_t k) {
    return k < KIVM_MAX_ELEMS && elems[k].used != 0;
}
} // namespace

int kivl_find_installed_partinfo(const kivl_data *kdata, const kivl_kivm_elem *elem,
                                 const void *version) {
    QX_ASSERT(MODULE, kdata != nullptr && elem != nullptr && version != nullptr);
    const auto &wanted = *static_cast<const kivl_version *>(version);
    for (int i = 0; i < static_cast<int>(KIVL_PARTINFOS); ++i) {
        // The CRC check reads the whole partition: only candidates that pass the cheap
        // tests get there.
        if (kivl_version_cmp(version_of(kdata->rec.pinfometa[i]), wanted) != 0) continue;
        if (!in_pool(kdata, i, pool_of(*elem))) continue;
        if (crc32_check(kdata, i, elem->wts) == KIV_CRC_OK) return i;
    }
    return -1;
}

int late_action_update(kivl_data *kdata, kivl_kivm_elem *elem, const void *swhdr) {
    QX_ASSERT(MODULE, kdata != nullptr && elem != nullptr && swhdr != nullptr);
    const int found = kivl_find_installed_partinfo(kdata, elem, swhdr);
    if (found >= 0) {
        elem->partinfo_idx = found;
        elem->action = KIV_ACTION_KEEP;
    } else {
        elem->action = KIV_ACTION_WRITE;
    }
    return found;
}

int kivl_get_unused_partinfo(const kivl_data *kdata, const char *poolname, int setidx) {
    QX_ASSERT(MODULE, kdata != nullptr);
    QX_ASSERT(MODULE, poolname != nullptr);
    int refs[KIVL_PARTINFOS] = {};
    for (int s = 0; s < static_cast<int>(KIVL_SETS); ++s) {
        if (s == setidx) continue;
        for (std::int8_t ref : kdata->rec.sets[s].refs) {
            if (ref < 0) break;
            if (ref < static_cast<int>(KIVL_PARTINFOS)) ++refs[ref];
        }
    }
    for (int i = 0; i < static_cast<int>(KIVL_PARTINFOS); ++i)
        if (refs[i] == 0 && in_pool(kdata, i, poolname)) return i;
    return -1;
}

void kivl_meta_import_pinfometa(kivl_data *kdata, const zunf_content_header *content_part,
                                const kivl_kivm_elem *elem) {
    QX_ASSERT(MODULE, kdata != nullptr && content_part != nullptr && elem != nullptr);
    const int i = elem->partinfo_idx;
    QX_ASSERT(MODULE, i >= 0 && i < static_cast<int>(KIVL_PARTINFOS));
    // The record is the part's first 64 bytes: its common header and software header. A
    // part that ends sooner (a short header and body at the image end) is recorded as far
    // as it reaches, the rest zero, so nothing past the image is read.
    const std::uint32_t extent =
        content_part->hdr_length.get() + zunf_pad4(content_part->body_length.get());
    const std::size_t n = extent < sizeof(zunf_pinfometa) ? extent : sizeof(zunf_pinfometa);
    zunf_pinfometa &meta = kdata->rec.pinfometa[i];
    std::memset(static_cast<void *>(&meta), 0, sizeof meta);
    std::memcpy(static_cast<void *>(&meta), content_part, n);
    kivl_partinfo &pi = kdata->rec.partinfo[i];
    // Copied up to the field width; a column that fills it stays unterminated, as the
    // fixed-width fields of the record allow.
    std::strncpy(pi.mountpnt, elem->mountpnt, sizeof pi.mountpnt);
    std::strncpy(pi.fstype, elem->fstype, sizeof pi.fstype);
}

int kivl_meta_install_part1(kivl_data *kdata, int setidx, const void *rhdr, kivl_kivm_elem *elems,
                            const char *platform, int force) {
    QX_ASSERT(MODULE, kdata != nullptr && rhdr != nullptr && elems != nullptr);
    QX_ASSERT(MODULE, platform != nullptr);
    for (std::size_t k = 0; is_used(elems, k); ++k) {
        elems[k].action = KIV_ACTION_NONE;
        elems[k].partinfo_idx = -1;
    }
    if (!is_used(elems, 0)) return KIVL_META_INSTALL_ERR_NO_CONTENT;

    const std::string_view wanted_platform(platform);
    for (std::size_t k = 0; is_used(elems, k); ++k) {
        kivl_kivm_elem &e = elems[k];
        const std::string_view plf = field_view(e.platform, sizeof e.platform);
        if (!wanted_platform.empty() && plf != "-" && plf != wanted_platform) continue;

        int found;
        if (e.meta_valid == KIVM_META_NONE) {
            found = newest_in_pool(kdata, e);
            if (found < 0) return KIVL_META_INSTALL_ERR_FATAL;
        } else {
            found = kivl_find_installed_partinfo(kdata, &e, &e.sw_version_major);
        }
        if (found >= 0) {
            e.partinfo_idx = found;
            e.action = KIV_ACTION_KEEP;
            continue;
        }

        if (e.cidx == -1) return KIVL_META_INSTALL_ERR_DEPENDENCY;
        e.partinfo_idx = -1;
        e.action = e.meta_valid == KIVM_META_VERSION ? KIV_ACTION_WRITE : KIV_ACTION_LATE;
        const pool_name pool(e);
        std::uint8_t items[KIVL_PARTINFOS];
        const int members = kivl_partpool_items(kdata, pool.text, items);
        if (members <= 0) return KIVL_META_INSTALL_ERR_EMPTY_POOL;
        if (members == 1) {
            if (force == 0) return KIVL_META_INSTALL_ERR_SINGLETON;
            e.partinfo_idx = items[0];
        } else {
            e.partinfo_idx = kivl_get_unused_partinfo(kdata, pool.text, setidx);
            if (e.partinfo_idx < 0) return KIVL_META_INSTALL_ERR_NO_FREE_PARTINFO;
        }
    }
    return KIVL_META_INSTALL_OK;
}

int kivl_meta_install(kivl_data *kdata, int setidx, const void *rhdr, kivl_kivm_elem *elems,
                      const zunf_content_header *const *content_parts, const char *platform,
                      int force) {
    QX_ASSERT(MODULE, kdata != nullptr && rhdr != nullptr && elems != nullptr);
    QX_ASSERT(MODULE, content_parts != nullptr);
    QX_ASSERT(MODULE, setidx >= 0 && setidx < static_cast<int>(KIVL_SETS));
    if (!is_used(elems, 0))
        return kivl_meta_install_part1(kdata, setidx, rhdr, elems, platform, force);

    std::int8_t refs[KIVL_REFS];
    std::memset(refs, -1, sizeof refs);
    std::size_t count = 0;
    for (std::size_t k = 0; is_used(elems, k); ++k) {
        kivl_kivm_elem &e = elems[k];
        if (e.action != KIV_ACTION_WRITE && e.action != KIV_ACTION_KEEP) {
            // A late element never decided: its software part never arrived where the
            // metadata said it would.
            if (e.action == KIV_ACTION_LATE) return KIVL_META_INSTALL_ERR_PARTINFO_MATCH;
            continue;
        }
        if (e.partinfo_idx < 0 || e.partinfo_idx >= static_cast<int>(KIVL_PARTINFOS))
            return KIVL_META_INSTALL_ERR_PARTINFO_MATCH;
        if (e.action == KIV_ACTION_WRITE) {
            const bool carried = e.cidx >= 0 && e.cidx < static_cast<int>(ZUNF_MAX_PARTS) &&
                                 content_parts[e.cidx] != nullptr;
            if (!carried) return KIVL_META_INSTALL_ERR_PARTINFO_MATCH;
        }
        // A set holds 20 references: more planned contents cannot be recorded.
        if (count == KIVL_REFS) return KIVL_META_INSTALL_ERR_FATAL;
        refs[count++] = static_cast<std::int8_t>(e.partinfo_idx);
    }
    // Only a plan that fits is recorded: the metadata of the parts to be written, then the
    // set's references and release header.
    for (std::size_t k = 0; is_used(elems, k); ++k)
        if (elems[k].action == KIV_ACTION_WRITE)
            kivl_meta_import_pinfometa(kdata, content_parts[elems[k].cidx], &elems[k]);
    std::memcpy(kdata->rec.sets[setidx].refs, refs, sizeof refs);
    std::memcpy(static_cast<void *>(&kdata->rec.rhdr[setidx]), rhdr, sizeof(zunf_release_header));
    return KIVL_META_INSTALL_OK;
}
