// The CSV reports for scripts on the device: release headers (getrh) and partition sets
// (getpartset), in a fixed format or with the fields a -pif= list selects.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "front/kiv_actions.hpp"
#include "front/kiv_helpers.hpp"
#include "front/kiv_log.hpp"
#include "hostconfig/hostconfig.hpp"
#include "kivl/kivl.hpp"
#include "util/fixed_text.hpp"
#include "util/qx.hpp"

namespace {
constexpr const char *MODULE = "kiv";
constexpr const char *PIF_PREFIX = "-pif=";
constexpr std::size_t PIF_PREFIX_LEN = 5;
// Longest field list after "-pif=", and the most fields it may name.
constexpr std::size_t PIF_TEXT_MAX = 99;
constexpr int PIF_FIELDS_MAX = 19;
constexpr int PIF_SLOTS = PIF_FIELDS_MAX + 1; // kivl_parse_csv keeps slot 0 for the buffer

// One message for both reports: scripts look for this exact text.
constexpr const char *PIF_REFUSED = "getpartset action: PIF could not parse or too long.\n";

bool is_set_index(int set) {
    return set >= 0 && set < static_cast<int>(KIVL_SETS);
}

// A -pif= list split into its field names.
struct pif_list {
    char text[PIF_TEXT_MAX + 1];
    char *fields[PIF_SLOTS];
    int count = 0;
};

enum class pif_result { none, fields, refused };

// A word that is not a -pif= option, or names no field, leaves the default format.
pif_result parse_pif(const char *word, pif_list &pif) {
    if (word == nullptr || std::strncmp(word, PIF_PREFIX, PIF_PREFIX_LEN) != 0)
        return pif_result::none;
    const char *list = word + PIF_PREFIX_LEN;
    if (list[0] == '\0') return pif_result::none;
    if (std::strlen(list) > PIF_TEXT_MAX) return pif_result::refused;
    pif.fields[0] = pif.text;
    pif.count = kivl_parse_csv(list, pif.fields, PIF_SLOTS);
    if (pif.count <= 0) return pif_result::refused;
    return pif_result::fields;
}

// Exact match of a name with a fixed-width field that need not hold its NUL.
template <std::size_t N> bool same_name(const char *name, const char (&field)[N]) {
    const std::size_t width = strnlen(field, N);
    return std::strlen(name) == width && std::strncmp(name, field, width) == 0;
}

bool is(const char *field, const char *name) {
    return std::strcmp(field, name) == 0;
}

void print_rh_field(const char *field, const zunf_release_header &rh) {
    if (is(field, "ver"))
        qx_printf("%i.%.2i", rh.release_version_major, rh.release_version_minor);
    else if (is(field, "ver_major"))
        qx_printf("%i", rh.release_version_major);
    else if (is(field, "ver_minor"))
        qx_printf("%.2i", rh.release_version_minor);
    else if (is(field, "build_num"))
        qx_printf("%i", rh.release_build_number.get());
    else if (is(field, "build_id"))
        qx_printf("%.*s", field_width(rh.release_build_id), rh.release_build_id);
    else if (is(field, "build_time"))
        kivl_printf_time(rh.release_date.get());
}

void print_part_field(const char *field, int pidx, const kivl_partinfo &pi,
                      const zunf_pinfometa &meta) {
    const zunf_software_header &sw = meta.sw;
    if (is(field, "pidx"))
        qx_printf("%i", pidx);
    else if (is(field, "pool"))
        qx_printf("%.*s", field_width(pi.poolname), pi.poolname);
    else if (is(field, "pn"))
        qx_printf("%i", pi.pn);
    else if (is(field, "offset"))
        qx_printf("0x%08X", pi.offset.get());
    else if (is(field, "size"))
        qx_printf("0x%08X", pi.size.get());
    else if (is(field, "size_dec"))
        qx_printf("%u", pi.size.get());
    else if (is(field, "mountpnt"))
        qx_printf("%.*s", field_width(pi.mountpnt), pi.mountpnt);
    else if (is(field, "fstype"))
        qx_printf("%.*s", field_width(pi.fstype), pi.fstype);
    else if (is(field, "len"))
        qx_printf("0x%08X", meta.hdr.body_length.get());
    else if (is(field, "len_dec"))
        qx_printf("%u", meta.hdr.body_length.get());
    else if (is(field, "ver"))
        qx_printf("%i.%.2i", sw.sw_version_major, sw.sw_version_minor);
    else if (is(field, "ver_major"))
        qx_printf("%i", sw.sw_version_major);
    else if (is(field, "ver_minor"))
        qx_printf("%.2i", sw.sw_version_minor);
    else if (is(field, "build_num"))
        qx_printf("%i", sw.sw_build_number.get());
    else if (is(field, "build_id"))
        qx_printf("%.*s", field_width(sw.sw_build_id), sw.sw_build_id);
}
} // namespace

int kiv_getrh(kiv_options *options) {
    QX_ASSERT(MODULE, options != nullptr);
    if (options->nargs < 2) {
        kiv_log(LOG_ERR, "getrh: missing set idx?\n");
        return 1;
    }
    kivl_data data;
    hostconfig hc;
    if (load(options, &data, &hc) != 1) {
        kiv_log(LOG_ERR, "getrh: loading hostcfg failed.\n");
        return 1;
    }
    const char *word = options->args[1];
    // A corrupt record may name an active set that does not exist: refused like a bad word.
    const int set =
        std::strcmp(word, "active") == 0 ? kivl_actset_get(&data) : kiv_parse_setid(&data, word);
    if (!is_set_index(set)) {
        kiv_log(LOG_ERR, "getrh: invalid set idx?\n");
        return 1;
    }
    pif_list pif;
    const pif_result format = parse_pif(options->args[2], pif);
    if (format == pif_result::refused) {
        kiv_log(LOG_ERR, "%s", PIF_REFUSED);
        return 1;
    }

    const zunf_release_header &rh = data.rec.rhdr[set];
    if (format == pif_result::fields) {
        for (int f = 1; f <= pif.count; ++f) {
            if (f > 1) qx_printf(",");
            print_rh_field(pif.fields[f], rh);
        }
        qx_printf("\n");
        return 0;
    }
    qx_printf("# KIV Release Header CSV version 1.0\n");
    qx_printf("# Selected Partition Set: %i\n", set);
    qx_printf("# ver,build,build_id,build_time\n");
    qx_printf("%i.%i,%i,%.*s,", rh.release_version_major, rh.release_version_minor,
              rh.release_build_number.get(), field_width(rh.release_build_id), rh.release_build_id);
    kivl_printf_time(rh.release_date.get());
    qx_printf("\n");
    qx_printf("# End of list\n");
    return 0;
}

int kiv_getpartset(kiv_options *options) {
    QX_ASSERT(MODULE, options != nullptr);
    if (options->nargs < 2) {
        kiv_log(LOG_ERR, "getpartset action: SETIDX is missing.\n");
        return 1;
    }
    const char *word = options->args[1];
    const bool active = std::strcmp(word, "active") == 0;
    int set = -1;
    if (!active) {
        // Numbers only, in the "%i" conventions (0x.. hexadecimal, leading 0 octal); set
        // names are not taken here.
        char *end = nullptr;
        errno = 0;
        const long value = std::strtol(word, &end, 0);
        if (end == word || errno == ERANGE || value < 0 || value >= static_cast<long>(KIVL_SETS)) {
            kiv_log(LOG_ERR, "getpartset action: SETIDX is illegal.\n");
            return 1;
        }
        set = static_cast<int>(value);
    }
    // A word that does not look like an option is the pool name filter; the field list
    // then follows it.
    const char *name = nullptr;
    const char *pif_word = options->args[2];
    if (pif_word != nullptr && pif_word[0] != '-') {
        name = pif_word;
        pif_word = options->args[3];
    }
    pif_list pif;
    const pif_result format = parse_pif(pif_word, pif);
    if (format == pif_result::refused) {
        kiv_log(LOG_ERR, "%s", PIF_REFUSED);
        return 1;
    }

    kivl_data data;
    hostconfig hc;
    if (load(options, &data, &hc) != 1) {
        kiv_log(LOG_ERR, "getpartset action: loading hostcfg failed.\n");
        return 1;
    }
    if (options->verbose) kiv_dump(options, &data);
    if (active) {
        set = kivl_actset_get(&data);
        if (!is_set_index(set)) {
            kiv_log(LOG_ERR, "getpartset action: SETIDX is illegal.\n");
            return 1;
        }
    }

    const kivl_record &rec = data.rec;
    const bool comments = name == nullptr && format == pif_result::none;
    if (comments) {
        qx_printf("# KIV Partion Set CSV version 1.0\n");
        qx_printf("# Selected Partition Set: %i\n", set);
        qx_printf("# pidx,pool,pn,offset,size,mountpnt,fstype,crc,len,ver,build,build_id\n");
    }
    for (std::int8_t ref : rec.sets[set].refs) {
        if (ref < 0) break;
        // A reference past the partition info table names no partition to report.
        if (ref >= static_cast<int>(KIVL_PARTINFOS)) continue;
        const kivl_partinfo &pi = rec.partinfo[ref];
        const zunf_pinfometa &meta = rec.pinfometa[ref];
        if (name != nullptr && !same_name(name, pi.poolname)) continue;
        if (format == pif_result::fields) {
            for (int f = 1; f <= pif.count; ++f) {
                if (f > 1) qx_printf(",");
                print_part_field(pif.fields[f], ref, pi, meta);
            }
            qx_printf("\n");
            continue;
        }
        const zunf_software_header &sw = meta.sw;
        qx_printf("%i,%.*s,%i,0x%08X,0x%08X,%.*s,%.*s,0x%08X,0x%08X,%i.%i,%i,%.*s\n", ref,
                  field_width(pi.poolname), pi.poolname, pi.pn, pi.offset.get(), pi.size.get(),
                  field_width(pi.mountpnt), pi.mountpnt, field_width(pi.fstype), pi.fstype,
                  meta.hdr.body_crc.get(), meta.hdr.body_length.get(), sw.sw_version_major,
                  sw.sw_version_minor, sw.sw_build_number.get(), field_width(sw.sw_build_id),
                  sw.sw_build_id);
    }
    if (comments) qx_printf("# End of list\n");
    return 0;
}
