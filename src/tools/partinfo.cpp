// The partinfo action: describes (or forgets) one partition of the device in the partition
// info table, together with the content metadata the verify action checks against.
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "front/kiv_actions.hpp"
#include "front/kiv_helpers.hpp"
#include "front/kiv_log.hpp"
#include "hostconfig/hostconfig.hpp"
#include "kivl/kivl.hpp"
#include "util/qx.hpp"
#include "util/scan_text.hpp"

namespace {
constexpr const char *MODULE = "kiv";
constexpr int ACTION_OK = 0;
constexpr int ACTION_FAILED = 1;
constexpr int ARG_PARTIDX = 1;
constexpr int ARG_POOLNAME = 2;
constexpr int ARG_SIZE = 3;
constexpr int ARG_FIRST_OPTION = 4;
constexpr long PN_NOT_GIVEN = -1;
constexpr long PN_MAX = 255;
constexpr int BASE_BY_PREFIX = 0;
constexpr int BASE_HEX = 16;
constexpr int BASE_DECIMAL = 10;

// The action's own upgrade data and hostconfig: several kilobytes, kept off the stack of
// a small device.
kivl_data partinfo_data;
hostconfig partinfo_hostconfig;

const char *arg(const kiv_options *options, int i) {
    return i < options->nargs ? options->args[i] : nullptr;
}

// What "%i" converts at the start of word; nullopt when nothing converts or the number
// does not fit a long.
std::optional<long> scan_signed(const char *word) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(word, &end, BASE_BY_PREFIX);
    if (end == word || errno == ERANGE) return std::nullopt;
    return v;
}

// An unsigned 32-bit number at the start of word in the given base (0: by prefix).
// nullopt when nothing converts, the number is negative or does not fit 32 bits: a value
// the field cannot hold is refused, not wrapped.
std::optional<std::uint32_t> scan_u32(const char *word, int base) {
    const char *p = word;
    while (scan_is_space(*p))
        ++p;
    if (*p == '-' || *p == '+') return std::nullopt;
    char *end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(p, &end, base);
    if (end == p || errno == ERANGE || v > UINT32_MAX) return std::nullopt;
    return static_cast<std::uint32_t>(v);
}

// The value after prefix, when word starts with it and something follows.
const char *after(const char *word, std::string_view prefix) {
    std::string_view w(word);
    if (!w.starts_with(prefix) || w.size() == prefix.size()) return nullptr;
    return word + prefix.size();
}

// Copies text that has been measured to fit (shorter than N) into a zeroed field.
template <std::size_t N> void store_text(char (&field)[N], std::string_view text) {
    QX_ASSERT(MODULE, text.size() < N);
    std::memset(field, 0, N);
    // An absent option is an empty view with no data: memcpy must not see its null.
    if (!text.empty()) std::memcpy(field, text.data(), text.size());
}

// The set form's values, with the defaults of absent options.
struct partinfo_args {
    std::uint32_t offset = 0;
    std::string_view mount;
    std::string_view fstype;
    std::uint32_t metacrc = 0;
    std::uint32_t metalength = 0;
    long pn = PN_NOT_GIVEN;
};

// Why an option word was refused, or null when it was taken or ignored.
using refusal = const char *;

// Tries word against the option forms in their fixed order; the first form that matches
// takes it, and a word that matches none is ignored.
refusal take_option(const char *word, partinfo_args *a) {
    if (const char *v = after(word, "-offset=")) {
        // The offset is always hexadecimal, with or without 0x.
        if (auto offset = scan_u32(v, BASE_HEX)) {
            a->offset = *offset;
            return nullptr;
        }
        if (std::isxdigit(static_cast<unsigned char>(*v)) || *v == '-')
            return "partinfo action: offset invalid.\n";
    }
    if (auto mount = scan_text(word, "-mount=")) {
        a->mount = *mount;
        return nullptr;
    }
    if (auto fstype = scan_text(word, "-fstype=")) {
        a->fstype = *fstype;
        return nullptr;
    }
    if (const char *v = after(word, "-metacrc=")) {
        if (auto crc = scan_u32(v, BASE_DECIMAL)) {
            a->metacrc = *crc;
            return nullptr;
        }
        if (std::isdigit(static_cast<unsigned char>(*v)) || *v == '-')
            return "partinfo action: metacrc invalid.\n";
    }
    if (const char *v = after(word, "-metalength=")) {
        if (auto length = scan_u32(v, BASE_DECIMAL)) {
            a->metalength = *length;
            return nullptr;
        }
        if (std::isdigit(static_cast<unsigned char>(*v)) || *v == '-')
            return "partinfo action: metalength invalid.\n";
    }
    if (const char *v = after(word, "-pn=")) {
        if (auto pn = scan_signed(v)) {
            a->pn = *pn;
            return nullptr;
        }
        // A number too big for a long is still a number outside the range.
        if (std::isdigit(static_cast<unsigned char>(*v)) || *v == '-')
            return "partinfo action: pn invalid.\n";
    }
    return nullptr;
}

int refuse(const char *message) {
    kiv_log(LOG_ERR, "%s", message);
    return ACTION_FAILED;
}
} // namespace

int kiv_partinfo(kiv_options *options) {
    QX_ASSERT(MODULE, options != nullptr);
    kivl_data *data = &partinfo_data;
    hostconfig *hc = &partinfo_hostconfig;
    if (load(options, data, hc) != 1) return refuse("partinfo action: loading hostcfg failed.\n");

    const char *partidx_word = arg(options, ARG_PARTIDX);
    if (partidx_word == nullptr) return refuse("partinfo action: wrong syntax.\n");
    auto partidx = scan_signed(partidx_word);
    if (!partidx || *partidx < 0 || *partidx >= static_cast<long>(KIVL_PARTINFOS))
        return refuse("partinfo action: wrong syntax.\n");
    kivl_partinfo &entry = data->rec.partinfo[*partidx];

    const char *poolname = arg(options, ARG_POOLNAME);
    if (poolname == nullptr) {
        // The entry becomes unused; what was last written into the partition stays known.
        entry = kivl_partinfo{};
    } else {
        const char *size_word = arg(options, ARG_SIZE);
        if (size_word == nullptr || poolname[0] == '\0')
            return refuse("partinfo action: wrong syntax.\n");
        // The lookups read pool names as terminated text: the field must keep its NUL.
        if (std::strlen(poolname) >= KIVL_POOLNAME_LEN)
            return refuse("partinfo action: pool name too long.\n");
        auto size = scan_u32(size_word, BASE_BY_PREFIX);
        if (!size) return refuse("partinfo action: size invalid.\n");

        partinfo_args a;
        for (int i = ARG_FIRST_OPTION; i < options->nargs; ++i) {
            if (refusal why = take_option(options->args[i], &a)) return refuse(why);
        }
        if (a.pn < PN_NOT_GIVEN || a.pn > PN_MAX) return refuse("partinfo action: pn invalid.\n");
        if (a.mount.size() >= KIVL_MOUNTPNT_LEN) return refuse("mountpoint name too long.\n");
        if (a.fstype.size() >= KIVL_FSTYPE_LEN) return refuse("fstype name too long.\n");

        entry = kivl_partinfo{};
        store_text(entry.poolname, poolname);
        entry.pn = static_cast<std::uint8_t>(a.pn == PN_NOT_GIVEN ? *partidx : a.pn);
        entry.size = *size;
        entry.offset = a.offset;
        store_text(entry.mountpnt, a.mount);
        store_text(entry.fstype, a.fstype);

        zunf_pinfometa &meta = data->rec.pinfometa[*partidx];
        meta.hdr.body_length = a.metalength;
        meta.hdr.body_crc = a.metacrc;
        meta.sw.sw_version_major = static_cast<std::uint8_t>(options->meta_major);
        meta.sw.sw_version_minor = static_cast<std::uint8_t>(options->meta_minor);
        meta.sw.sw_build_number = static_cast<std::uint16_t>(options->meta_build);
    }

    if (options->verbose) kiv_dump(options, data);
    if (options->dryrun) return ACTION_OK;
    if (save(options, data, hc, "partinfo") != 1) {
        kiv_log_both(LOG_CRIT, "partset action: hostcfg saving failed.\n");
        return ACTION_FAILED;
    }
    return ACTION_OK;
}
