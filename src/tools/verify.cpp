// Partition content check by CRC-32 and the verify action.
#include "tools/verify.hpp"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "front/kiv_actions.hpp"
#include "front/kiv_helpers.hpp"
#include "front/kiv_log.hpp"
#include "hostconfig/hostconfig.hpp"
#include "kivl/kivl.hpp"
#include "util/crc32.hpp"
#include "util/fixed_text.hpp"
#include "util/qx.hpp"
#include "util/stdio_file.hpp"

namespace {
constexpr const char *MODULE = "kiv";

// Partitions of many megabytes are streamed through this one buffer on the stack: the
// check runs inside the install's critical region, where nothing may be allocated.
constexpr std::size_t CHECK_CHUNK = 4096;
// The first check tries the install's default layout (body from offset 0).
constexpr int WTS_BODY = 1;
constexpr int WTS_HEADER_FIRST = 2;
constexpr int WTS_HEADER_BEHIND = 3;

} // namespace

long kiv_read_full(int fd, std::uint8_t *buf, std::size_t n) {
    std::size_t got = 0;
    while (got < n) {
        ssize_t r = ::read(fd, buf + got, n - got);
        if (r < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (r == 0) break;
        got += static_cast<std::size_t>(r);
    }
    return static_cast<long>(got);
}

namespace {

bool is_recorded(const zunf_pinfometa &meta) {
    return meta.hdr.body_length.get() != 0 && meta.hdr.body_crc.get() != 0;
}

bool names_partinfo(int ref) {
    return ref >= 0 && ref < static_cast<int>(KIVL_PARTINFOS);
}

const char *check_word(int result) {
    if (result == KIV_CRC_OK) return "ok";
    if (result == KIV_CRC_NOT_RECORDED) return "empty";
    return "bad";
}
} // namespace

int kiv_device_path(char *out, std::size_t out_size, const char *pattern, int pn) {
    QX_ASSERT(MODULE, out != nullptr && out_size > 0);
    QX_ASSERT(MODULE, pattern != nullptr);
    out[0] = '\0';
    // The pattern comes from the command line: anything but one integer conversion would
    // make the formatter read arguments that are not there.
    int conversions = 0;
    for (const char *p = pattern; *p != '\0'; ++p) {
        if (*p != '%') continue;
        ++p;
        if (*p == '%') continue;
        while (*p != '\0' && std::strchr("-+ #0", *p) != nullptr)
            ++p;
        while (*p >= '0' && *p <= '9')
            ++p;
        if (*p != 'd' && *p != 'i') return -1;
        ++conversions;
    }
    if (conversions != 1) return -1;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int n = std::snprintf(out, out_size, pattern, pn);
#pragma GCC diagnostic pop
    // A cut name would name some other device.
    if (n < 0 || static_cast<std::size_t>(n) > KIV_DEVICE_PATH_MAX ||
        static_cast<std::size_t>(n) >= out_size) {
        out[0] = '\0';
        return -1;
    }
    return n;
}

int crc32_check(const kivl_data *data, int i, int wts) {
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, data->device != nullptr);
    QX_ASSERT(MODULE, names_partinfo(i));
    const zunf_pinfometa &meta = data->rec.pinfometa[i];
    const std::uint32_t length = meta.hdr.body_length.get();
    const std::uint32_t recorded_crc = meta.hdr.body_crc.get();
    if (length == 0 || recorded_crc == 0) return KIV_CRC_NOT_RECORDED;

    char path[KIV_DEVICE_PATH_MAX + 1];
    if (kiv_device_path(path, sizeof path, data->device, data->rec.partinfo[i].pn) < 0)
        return KIV_CRC_UNREADABLE;
    Fd device(::open(path, O_RDONLY | O_CLOEXEC));
    if (!device) return KIV_CRC_UNREADABLE;

    std::uint8_t buf[CHECK_CHUNK];
    if (wts == WTS_HEADER_FIRST) {
        // Only the 64 recorded header bytes can be compared; a longer (or empty) recorded
        // header cannot be confirmed and counts as a header fault.
        const std::size_t hdr_length = meta.hdr.hdr_length.get();
        if (hdr_length == 0 || hdr_length > sizeof(zunf_pinfometa)) return KIV_CRC_UNREADABLE;
        if (kiv_read_full(device.get(), buf, hdr_length) != static_cast<long>(hdr_length))
            return KIV_CRC_UNREADABLE;
        if (std::memcmp(buf, zunf_bytes(&meta), hdr_length) != 0) return KIV_CRC_UNREADABLE;
    }

    std::uint32_t crc = 0;
    std::uint32_t remaining = length;
    while (remaining > 0) {
        const std::size_t want = remaining < CHECK_CHUNK ? remaining : CHECK_CHUNK;
        const long got = kiv_read_full(device.get(), buf, want);
        if (got < 0) return KIV_CRC_UNREADABLE;
        crc = crc32_calc(crc, buf, static_cast<std::uint32_t>(got));
        remaining -= static_cast<std::uint32_t>(got);
        // A device shorter than the content: compare what there is (it will not match).
        if (static_cast<std::size_t>(got) < want) break;
    }
    return crc == recorded_crc ? KIV_CRC_OK : KIV_CRC_MISMATCH;
}

int verify_set(const kiv_options *options, const kivl_data *data, int set, int verbose) {
    (void)options;
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, set >= 0 && set < static_cast<int>(KIVL_SETS));
    const kivl_record &rec = data->rec;
    const kivl_set &s = rec.sets[set];
    if (verbose) qx_printf("%s: Set %d: %.*s\n", "verify_set", set, field_width(s.name), s.name);
    if (s.refs[0] < 0) {
        if (verbose) qx_printf("%s:   no refs\n", "verify_set");
        return KIV_VERIFY_SET_NO_REFS;
    }
    int result = KIV_CRC_OK;
    for (std::int8_t ref : s.refs) {
        if (ref < 0) break;
        int r;
        int pool_width = 0;
        int name_width = 0;
        const char *pool = "";
        const char *name = "";
        if (names_partinfo(ref)) {
            const kivl_partinfo &pi = rec.partinfo[ref];
            const zunf_pinfometa &meta = rec.pinfometa[ref];
            r = is_recorded(meta) ? crc32_check(data, ref, WTS_BODY) : KIV_CRC_NOT_RECORDED;
            pool = pi.poolname;
            pool_width = field_width(pi.poolname);
            name = meta.hdr.name;
            name_width = field_width(meta.hdr.name);
        } else {
            // A reference past the partition info table names nothing that could be checked.
            r = KIV_CRC_UNREADABLE;
        }
        if (verbose)
            qx_printf("%s:   ref %2d: %-12.*s %-12.*s: %s\n", "verify_set", ref, pool_width, pool,
                      name_width, name, check_word(r));
        if (r != KIV_CRC_OK) result = r;
    }
    return result;
}

namespace {
// The content check of the whole-device listing: the layouts in the order the install uses
// them most, so the first match tells how the partition was written.
void list_partitions(const kiv_options *options, kivl_data *data) {
    const kivl_record &rec = data->rec;
    int singleton_pools = 0;
    int multi_pools = 0;
    for (const kivl_pool &pool : data->pools) {
        if (pool.name[0] == '\0') continue;
        if (pool.cnt == 1)
            ++singleton_pools;
        else
            ++multi_pools;
    }
    if (options->verbose) kiv_dump(options, data);
    qx_printf("Verifying partitions:\n");

    int singleton_disparities = 0;
    int multi_disparities = 0;
    int active = -1; // fetched at the first singleton disparity
    bool active_set_hit = false;
    for (int i = 0; i < static_cast<int>(KIVL_PARTINFOS); ++i) {
        qx_printf(" %2i  ", i);
        const kivl_partinfo &pi = rec.partinfo[i];
        const zunf_pinfometa &meta = rec.pinfometa[i];
        if (pi.poolname[0] == '\0') {
            qx_printf("Not handled by KIV\n");
            continue;
        }
        if (meta.hdr.body_length.get() == 0) {
            qx_printf("Nothing installed\n");
            continue;
        }
        qx_printf("Belongs to pool %-15.*s  ", field_width(pi.poolname), pi.poolname);
        qx_printf("CRC32 content check: ");
        if (crc32_check(data, i, WTS_BODY) == KIV_CRC_OK) {
            qx_printf("OK\n");
            continue;
        }
        if (crc32_check(data, i, WTS_HEADER_FIRST) == KIV_CRC_OK) {
            qx_printf("OK (wts=2)\n");
            continue;
        }
        if (crc32_check(data, i, WTS_HEADER_BEHIND) == KIV_CRC_OK) {
            qx_printf("OK (wts=3)\n");
            continue;
        }
        if (meta.hdr.body_crc.get() == 0) {
            qx_printf("UNKNOWN\n");
            continue;
        }
        qx_printf("DISPARITY\n");
        if (kivl_partpool_items_count(data, terminated(pi.poolname).text) == 1) {
            if (++singleton_disparities == 1) active = kivl_actset_get(data);
            // Any broken singleton of the running set makes the next boot a gamble. A
            // corrupt record may name a set that does not exist; it owns nothing.
            if (active >= 0 && active < static_cast<int>(KIVL_SETS)) {
                for (std::int8_t ref : rec.sets[active].refs)
                    if (ref == i) active_set_hit = true;
            }
        } else {
            ++multi_disparities;
        }
    }

    if (multi_disparities > 0)
        kiv_log(LOG_ERR,
                "WARNING: %i/%i multi pools have a disparity between\n"
                "             calculated and hostconfig recorded\n"
                "             CRC32 values.\n",
                multi_disparities, multi_pools);
    if (singleton_disparities > 0) {
        kiv_log(LOG_ERR,
                "WARNING: %i/%i singleton pools have a disparity between\n"
                "             calculated and hostconfig recorded \n"
                "             CRC32 values.\n",
                singleton_disparities, singleton_pools);
        if (active_set_hit) {
            qx_printf("             AT LEAST ONE OF THESE SINGLETONS IS PART OF THE ACTIVE SET\n");
            qx_printf("             DO NOT REBOOT UNTIL THIS ISSUE HAS BEEN FIXED!\n");
        }
    }
}
} // namespace

int verify_sets(kiv_options *options) {
    QX_ASSERT(MODULE, options != nullptr);
    kivl_data data;
    hostconfig hc;
    if (load(options, &data, &hc) != 1) {
        kiv_log(LOG_ERR, "verify action: loading hostcfg failed.\n");
        return 1;
    }
    kivl_partpool_generate(&data);

    if (options->nargs < 2) {
        list_partitions(options, &data);
        return 0;
    }

    // A word that names no set checks them all, and says so.
    const int set = kiv_parse_setid(&data, options->args[1]);
    const int report = options->verbose || set == -1;
    if (report) qx_printf("%s: Checking set %d\n", "verify_sets", set);
    int failed = 0;
    for (int s = 0; s < static_cast<int>(KIVL_SETS); ++s) {
        if (set != -1 && s != set) continue;
        if (verify_set(options, &data, s, report) != 0) failed = 1;
    }
    return failed;
}
