// Small questions about sets, pools and partitions, shared by the actions and the
// install planner. Only the pool generation and mark_meta_invalid change the data.
#include <cstring>
#include <string_view>

#include "kivl/kivl.hpp"
#include "util/fixed_text.hpp"
#include "util/qx.hpp"
#include "util/scan_text.hpp"

namespace {
constexpr const char *MODULE = "kivl";
constexpr std::string_view PRODUCTS_KEY = "products=";
} // namespace

int kivl_actset_get(const kivl_data *data) {
    QX_ASSERT(MODULE, data != nullptr);
    return data->rec.actset;
}

int kivl_getsetidx(const kivl_data *data, const char *name) {
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, name != nullptr);
    if (name[0] == '\0') return -2;
    for (std::size_t s = 0; s < KIVL_SETS; ++s)
        if (std::strncmp(name, data->rec.sets[s].name, KIVL_SET_NAME_LEN) == 0)
            return static_cast<int>(s);
    return -1;
}

int kivl_partinfo_owned_by_set(const kivl_data *data, int pidx, int except_set) {
    QX_ASSERT(MODULE, data != nullptr);
    // All 20 ref bytes are compared, also past a -1 terminator: when in doubt a partition
    // counts as another set's, so it is not overwritten from under that set.
    for (int s = 0; s < static_cast<int>(KIVL_SETS); ++s) {
        if (s == except_set) continue;
        for (std::int8_t ref : data->rec.sets[s].refs)
            if (ref == pidx) return 1;
    }
    return 0;
}

int kivl_partinfo_mark_meta_invalid(kivl_data *data, int pidx) {
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, pidx >= 0 && pidx < static_cast<int>(KIVL_PARTINFOS));
    kivl_partinfo &pi = data->rec.partinfo[pidx];
    std::memset(pi.mountpnt, 0, sizeof pi.mountpnt);
    std::memset(pi.fstype, 0, sizeof pi.fstype);
    std::memset(static_cast<void *>(&data->rec.pinfometa[pidx]), 0, sizeof(zunf_pinfometa));
    return 1;
}

int kivl_check_minver(const void *version, std::uint32_t major, std::uint32_t minor,
                      std::uint32_t build) {
    QX_ASSERT(MODULE, version != nullptr);
    const auto *v = static_cast<const kivl_version *>(version);
    if (v->major != major) return v->major > major ? 1 : 0;
    if (v->minor != minor) return v->minor > minor ? 1 : 0;
    return v->build.get() >= build ? 1 : 0;
}

void kivl_partpool_generate(kivl_data *data) {
    QX_ASSERT(MODULE, data != nullptr);
    std::memset(static_cast<void *>(data->pools), 0, sizeof data->pools);
    data->pools_count = 0;
    data->pools_valid = 0;
    for (std::size_t i = 0; i < KIVL_PARTINFOS; ++i) {
        const char *poolname = data->rec.partinfo[i].poolname;
        std::string_view name = field_view(poolname, KIVL_POOLNAME_LEN);
        if (name.empty()) continue;
        // With 20 entries there are at most 20 pools of at most 20 members: a slot is
        // always found before the table ends.
        for (kivl_pool &pool : data->pools) {
            if (pool.name[0] == '\0') {
                std::memcpy(pool.name, poolname, KIVL_POOLNAME_LEN);
                pool.items[0] = static_cast<std::uint8_t>(i);
                pool.cnt = 1;
                ++data->pools_count;
                break;
            }
            if (field_view(pool.name, KIVL_POOLNAME_LEN) == name) {
                pool.items[pool.cnt] = static_cast<std::uint8_t>(i);
                ++pool.cnt;
                break;
            }
        }
    }
    data->pools_valid = 1;
}

namespace {
const kivl_pool *find_pool(const kivl_data *data, const char *poolname) {
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, poolname != nullptr);
    if (data->pools_valid == 0) return nullptr;
    // Unused slots take part too: an empty name finds the first free slot.
    for (const kivl_pool &pool : data->pools)
        if (field_view(pool.name, KIVL_POOLNAME_LEN) == poolname) return &pool;
    return nullptr;
}
} // namespace

int kivl_partpool_items_count(const kivl_data *data, const char *poolname) {
    const kivl_pool *pool = find_pool(data, poolname);
    return pool ? pool->cnt : -1;
}

int kivl_partpool_items(const kivl_data *data, const char *poolname, std::uint8_t items[20]) {
    QX_ASSERT(MODULE, items != nullptr);
    const kivl_pool *pool = find_pool(data, poolname);
    if (pool == nullptr) return -1;
    std::memcpy(items, pool->items, sizeof pool->items);
    return pool->cnt;
}

int kivl_match_model(const zunf_content_header *rh_part, const char *model) {
    QX_ASSERT(MODULE, rh_part != nullptr);
    QX_ASSERT(MODULE, model != nullptr);
    // The body text sits behind the common and the release header, whatever hdr_length
    // says; it is bounded by body_length even when its NUL is missing.
    const char *body = reinterpret_cast<const char *>(rh_part) + ZUNF_RELEASE_PART_HDR_LEN;
    std::string_view text(body, strnlen(body, rh_part->body_length));
    std::size_t key = text.find(PRODUCTS_KEY);
    if (key == std::string_view::npos) return 0;
    const char *m = model;
    bool matching = true;
    for (char c : sv_slice(text, key + PRODUCTS_KEY.size())) {
        if (c == ',' || c == '\n') {
            if (matching && *m == '\0') return 1;
            if (c == '\n') return 0;
            m = model;
            matching = true;
        } else if (matching) {
            if (*m == c)
                ++m;
            else
                matching = false;
        }
    }
    // The list ran into the end of the text without its newline.
    return 0;
}

int kivl_parse_csv(const char *src, char **fields, int max) {
    QX_ASSERT(MODULE, src != nullptr);
    QX_ASSERT(MODULE, fields != nullptr && fields[0] != nullptr);
    char *buf = fields[0];
    std::strcpy(buf, src);
    if (buf[0] == '\0') return 0;
    if (max < 2) return -1;
    int count = 1;
    fields[count] = buf;
    for (char *pos = buf;;) {
        char *comma = std::strchr(pos, ',');
        if (comma == nullptr) return count;
        *comma = '\0';
        ++count;
        if (count >= max) return -1;
        fields[count] = comma + 1;
        if (comma[1] == '\0') return count;
        pos = comma + 1;
    }
}
