// Hostconfig rebuild. When neither copy of the hostconfig can be read, an install starts
// from the default hostconfig of the application file system and recovers what the flash
// itself still tells: each fallback partition carries, behind its content, the 64-byte
// software block that was written with it (header and software header, CRCs included).
#include "tools/rebuild.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <string_view>
#include <unistd.h>

#include "front/kiv_helpers.hpp"
#include "front/kiv_log.hpp"
#include "hostconfig/hostconfig.hpp"
#include "kivl/kivl.hpp"
#include "tools/verify.hpp"
#include "util/fixed_text.hpp"
#include "util/qx.hpp"
#include "util/stdio_file.hpp"
#include "zunf/zunf_validate.hpp"

namespace {
constexpr const char *MODULE = "kiv";

struct fallback_partition {
    const char *pool;
    int index;
    std::uint32_t bytes;
};
constexpr fallback_partition FALLBACKS[] = {
    {"KNL-SAFE", 7, 2097152},
    {"ROOT-SAFE", 8, 8388608},
    {"APPL-SAFE", 19, 6291456},
};
constexpr int SAFESET = 0;
constexpr std::size_t FALLBACK_PATH_MAX = 19;
// The block's name field starts 12 bytes into it, and the block is 64 bytes long.
constexpr std::size_t NAME_OFFSET = offsetof(zunf_content_header, name);
constexpr std::size_t BLOCK_SIZE = sizeof(zunf_pinfometa);

struct free_deleter {
    void operator()(std::uint8_t *p) const { std::free(p); }
};

// The first block in buf[0..n) named after the pool whose CRCs hold over itself and over
// the partition's first body_length bytes; null when there is none.
const zunf_pinfometa *find_block(const std::uint8_t *buf, std::size_t n, std::string_view pool) {
    if (pool.empty() || n < BLOCK_SIZE) return nullptr;
    for (std::size_t p = 0; p < n; ++p) {
        const void *hit = std::memchr(buf + p, pool.front(), n - p);
        if (hit == nullptr) return nullptr;
        p = static_cast<std::size_t>(static_cast<const std::uint8_t *>(hit) - buf);
        if (p < NAME_OFFSET) continue;
        if (p >= n - (BLOCK_SIZE - NAME_OFFSET)) return nullptr;
        if (std::memcmp(buf + p, pool.data(), pool.size()) != 0) continue;
        const auto *block = reinterpret_cast<const zunf_pinfometa *>(buf + p - NAME_OFFSET);
        // Lengths that reach past what was read cannot be checked: pass over them.
        const std::size_t start = p - NAME_OFFSET;
        if (block->hdr.hdr_length.get() > n - start || block->hdr.body_length.get() > n) continue;
        if (zunf_validate_content_header(&block->hdr) != ZUNF_VALID) continue;
        if (zunf_validate_content_body(&block->hdr, buf) != ZUNF_VALID) continue;
        return block;
    }
    return nullptr;
}
} // namespace

int rebuild_meta(kivl_data *data, const char *pool_name, int index, std::uint32_t bytes) {
    QX_ASSERT(MODULE, data != nullptr && data->device != nullptr && pool_name != nullptr);
    QX_ASSERT(MODULE, index >= 0 && index < static_cast<int>(KIVL_PARTINFOS));
    char path[FALLBACK_PATH_MAX + 1];
    // A pattern that does not make a path of at most 19 characters names no device here.
    (void)kiv_device_path(path, sizeof path, data->device, index);
    std::unique_ptr<std::uint8_t, free_deleter> buf(
        static_cast<std::uint8_t *>(std::malloc(bytes)));
    if (!buf) {
        kiv_log(LOG_ERR, "rebuild_meta: malloc failed\n");
        return 0;
    }
    Fd device(path[0] != '\0' ? ::open(path, O_RDONLY | O_CLOEXEC) : -1);
    if (!device) {
        kiv_log(LOG_ERR, "rebuild_meta: Could not open %s for read\n", path);
        return 0;
    }
    std::memset(buf.get(), 0, bytes);
    const long n = kiv_read_full(device.get(), buf.get(), bytes);
    device.reset();
    if (n < 0) {
        kiv_log(LOG_ERR, "rebuild_meta: Could not load sw header for %s\n", pool_name);
        return 0;
    }
    const zunf_pinfometa *block =
        find_block(buf.get(), static_cast<std::size_t>(n), std::string_view(pool_name));
    if (block == nullptr) {
        kiv_log_both(LOG_NOTICE, "rebuild_meta: Failed to locate tsb for %s\n", pool_name);
        return 0;
    }
    std::memcpy(static_cast<void *>(&data->rec.pinfometa[index]), block, BLOCK_SIZE);
    return 1;
}

int rebuild_hostcfg(kiv_options *options, kivl_data *data, hostconfig *hc) {
    QX_ASSERT(MODULE, options != nullptr && data != nullptr && hc != nullptr);
    char configured[KIV_PATH_LEN];
    std::memcpy(configured, options->hostcfg, sizeof configured);
    qx_strlcpy(options->hostcfg, KIV_HOSTCFG_DEFAULT, sizeof options->hostcfg);
    const int loaded = load(options, data, hc);
    std::memcpy(options->hostcfg, configured, sizeof configured);
    if (loaded != 1) {
        kiv_log(LOG_ERR, "rebuild_hostcfg: hostcfg.default loading failed.\n");
        return 0;
    }
    kiv_log_both(LOG_NOTICE, "rebuild_hostcfg: Using %s as initial hostconfig\n",
                 KIV_HOSTCFG_DEFAULT);

    bool complete = true;
    for (const fallback_partition &f : FALLBACKS) {
        if (rebuild_meta(data, f.pool, f.index, f.bytes) == 1) continue;
        kiv_log_both(LOG_NOTICE, "rebuild_hostcfg: tsb for %s not found\n", f.pool);
        complete = false;
    }
    if (!complete) {
        kiv_log(LOG_ERR, "rebuild_hostcfg: rebuild of pinfometa failed.\n");
        return 0;
    }

    kivl_set &safe = data->rec.sets[SAFESET];
    if (field_view(safe.name, sizeof safe.name) != KIVL_SAFESET_NAME) {
        kiv_log(LOG_ERR, "rebuild_rhdr_refs: SAFESET not found");
        kiv_log(LOG_ERR, "rebuild_hostcfg: rebuild of rhds and refs failed.\n");
        return 0;
    }
    const zunf_software_header &appl = data->rec.pinfometa[FALLBACKS[2].index].sw;
    zunf_release_header &rhdr = data->rec.rhdr[SAFESET];
    rhdr.release_version_major = appl.sw_version_major;
    rhdr.release_version_minor = appl.sw_version_minor;
    rhdr.release_build_number = appl.sw_build_number.get();
    for (std::size_t k = 0; k < std::size(FALLBACKS); ++k)
        safe.refs[k] = static_cast<std::int8_t>(FALLBACKS[k].index);
    return 1;
}
