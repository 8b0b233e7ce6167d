// The human-readable listing of the upgrade data (the info action and -v).
#include <cstring>
#include <ctime>
#include <limits>

#include "kivl/kivl.hpp"
#include "util/fixed_text.hpp"
#include "util/qx.hpp"
#include "util/signals_held.hpp"

namespace {
constexpr const char *MODULE = "kivl";

bool field_empty(const char *f) {
    return f[0] == '\0';
}

int print_sets_versions(const kivl_data *data) {
    const kivl_record &rec = data->rec;
    qx_printf("Sets: (p1/2)\n");
    int r = qx_printf("     name:            bootable:  rhdr:      refs:\n");
    for (std::size_t s = 0; s < KIVL_SETS; ++s) {
        const kivl_set &set = rec.sets[s];
        if (field_empty(set.name)) continue;
        const zunf_release_header &rh = rec.rhdr[s];
        qx_printf(" %2i  %-15s  %1i         ", static_cast<int>(s), terminated(set.name).text,
                  set.bootable);
        qx_printf("%2i.%02i %-4i  ", rh.release_version_major, rh.release_version_minor,
                  rh.release_build_number.get());
        for (std::int8_t ref : set.refs) {
            if (ref == -1) break;
            qx_printf("%i ", ref);
        }
        if (s == rec.actset) qx_printf("   ACTIVE SET");
        r = qx_printf("\n");
    }
    return r;
}

int print_sets_releases(const kivl_data *data) {
    const kivl_record &rec = data->rec;
    qx_printf("Sets: (p2/2)\n");
    int r = qx_printf("     name:            release date:        release id:\n");
    for (std::size_t s = 0; s < KIVL_SETS; ++s) {
        const kivl_set &set = rec.sets[s];
        if (field_empty(set.name)) continue;
        const zunf_release_header &rh = rec.rhdr[s];
        qx_printf(" %2i  %-15s  ", static_cast<int>(s), terminated(set.name).text);
        kivl_printf_time(rh.release_date.get());
        qx_printf("  %-20s", terminated(rh.release_build_id).text);
        r = qx_printf("\n");
    }
    return r;
}

int print_partitions_layout(const kivl_data *data) {
    const kivl_record &rec = data->rec;
    qx_printf("Partitions: (p1/2)\n");
    int r = qx_printf(
        "     pn: poolname:        offset:     size:        ver:       fstype:   mountpnt:\n");
    for (std::size_t i = 0; i < KIVL_PARTINFOS; ++i) {
        const kivl_partinfo &pi = rec.partinfo[i];
        if (field_empty(pi.poolname)) continue;
        const zunf_software_header &sw = rec.pinfometa[i].sw;
        qx_printf(" %2i  %2d  %-15s  0x%-8X  0x%-8X  %2i.%02i %-4i", static_cast<int>(i), pi.pn,
                  terminated(pi.poolname).text, pi.offset.get(), pi.size.get(), sw.sw_version_major,
                  sw.sw_version_minor, sw.sw_build_number.get());
        r = qx_printf("  %-8s  %s\n", terminated(pi.fstype).text, terminated(pi.mountpnt).text);
    }
    return r;
}

int print_partitions_content(const kivl_data *data) {
    const kivl_record &rec = data->rec;
    qx_printf("Partitions: (p2/2)\n");
    int r = qx_printf("     poolname:        content name:     length:     crc32:\n");
    for (std::size_t i = 0; i < KIVL_PARTINFOS; ++i) {
        const kivl_partinfo &pi = rec.partinfo[i];
        if (field_empty(pi.poolname)) continue;
        const zunf_content_header &meta = rec.pinfometa[i].hdr;
        r = qx_printf(" %2i  %-15s  %-16s  0x%-8X  0x%-8X\n", static_cast<int>(i),
                      terminated(pi.poolname).text, terminated(meta.name).text,
                      meta.body_length.get(), meta.body_crc.get());
    }
    return r;
}

int print_pools(const kivl_data *data) {
    qx_printf("Pools:\n");
    int r = qx_printf("     pool:            cnt:   type:\n");
    for (std::size_t p = 0; p < KIVL_POOLS; ++p) {
        const kivl_pool &pool = data->pools[p];
        if (field_empty(pool.name)) continue;
        qx_printf(" %2i  %-15s  %-2i     ", static_cast<int>(p), terminated(pool.name).text,
                  pool.cnt);
        r = qx_printf(pool.cnt == 1 ? "singleton\n" : "multi\n");
    }
    return r;
}
} // namespace

int kivl_printf_time(std::uint32_t t) {
    // With a 32-bit time_t (the ARM device) the times from 2038 on do not fit: they
    // cannot be converted rather than wrapping to 1901.
    bool fits =
        std::uint64_t{t} <= static_cast<std::uint64_t>(std::numeric_limits<std::time_t>::max());
    std::time_t when = static_cast<std::time_t>(t);
    std::tm tm{};
    bool converted = false;
    if (fits) {
        SignalsHeld held; // the conversion holds the C library's time zone lock
        converted = gmtime_r(&when, &tm) != nullptr;
    }
    if (!converted) return qx_printf("INVALID TIME");
    return qx_printf("%4i.%02i.%02i %02i:%02i:%02i", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                     tm.tm_hour, tm.tm_min, tm.tm_sec);
}

int kivl_dump_info(const kivl_data *data) {
    QX_ASSERT(MODULE, data != nullptr);
    print_sets_versions(data);
    print_sets_releases(data);
    print_partitions_layout(data);
    print_partitions_content(data);
    return print_pools(data);
}
