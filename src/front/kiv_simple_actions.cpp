// The actions that need nothing beyond the upgrade data: initialize, info, partset, mount.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/mount.h>
#include <unistd.h>

#include "front/kiv_actions.hpp"
#include "front/kiv_helpers.hpp"
#include "front/kiv_log.hpp"
#include "hostconfig/hostconfig.hpp"
#include "kivl/kivl.hpp"
#include "tools/verify.hpp"
#include "util/fixed_text.hpp"
#include "util/qx.hpp"

namespace {
constexpr const char *MODULE = "kiv";
constexpr int ACTION_OK = 0;
constexpr int ACTION_FAILED = 1;
constexpr std::int8_t REFS_END = -1;
// Room for a partition device name made from the device pattern.
constexpr std::size_t DEVICE_NAME_LEN = 120;
constexpr std::string_view REFS_PREFIX = "-refs=";
constexpr int ARG_SETIDX = 1;
constexpr int ARG_SETNAME = 2;
constexpr int ARG_REFS = 3;

// Argument `i` of the action, or null when the command line stopped before it.
const char *arg(const kiv_options *options, int i) {
    return i < options->nargs ? options->args[i] : nullptr;
}

// What "%i" converts at the start of word. False when nothing converts or the number
// does not fit a long (where scanf's result would be undefined).
bool scan_int(const char *word, long *value) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(word, &end, 0);
    if (end == word || errno == ERANGE) return false;
    *value = v;
    return true;
}

// The refs list after "-refs=": numbers separated by commas; anything but a comma after a
// number ends the list. Returns the count stored in refs, or -1 for an element that is not
// a number, -2 for more numbers than a set has references. A list is refused whole rather
// than cut: a set that silently lost references would boot without a partition.
constexpr int REFS_NOT_A_NUMBER = -1;
constexpr int REFS_TOO_MANY = -2;
int parse_refs(const char *text, std::int8_t (&refs)[KIVL_REFS]) {
    std::size_t count = 0;
    const char *p = text;
    for (;;) {
        const char *rest = p;
        while (*rest == ' ' || (*rest >= '\t' && *rest <= '\r'))
            ++rest;
        if (*rest == '\0') break;
        char *end = nullptr;
        errno = 0;
        long v = std::strtol(p, &end, 0);
        if (end == p || errno == ERANGE) return REFS_NOT_A_NUMBER;
        if (count == KIVL_REFS) return REFS_TOO_MANY;
        // Only the low 8 bits are kept, as the field is a signed byte.
        refs[count++] = static_cast<std::int8_t>(static_cast<std::uint8_t>(v & 0xff));
        if (*end != ',') break;
        p = end + 1;
    }
    return static_cast<int>(count);
}

} // namespace

int kiv_initialize(kiv_options *options, kivl_data *data, hostconfig *hc) {
    QX_ASSERT(MODULE, options != nullptr);
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, hc != nullptr);
    if (kivl_init(data) != 1) {
        kiv_log(LOG_ERR, "initialize: kivl_init failed.\n");
        return ACTION_FAILED;
    }
    data->device = options->device;
    if (hostconfig_new(hc, HOSTCONFIG_MAX_SIZE) != 1) {
        kiv_log(LOG_ERR, "initialize: hostconfig_new failed.\n");
        return ACTION_FAILED;
    }
    if (kivl_hostconfig_export(data, hc) != 1) {
        kiv_log(LOG_ERR, "initialize: kivl_hostconfig_export failed.\n");
        return ACTION_FAILED;
    }
    // Whatever was stored before is replaced unread; -dryrun does not apply, since an
    // initialize that writes nothing would leave a device without a hostconfig.
    if (save(options, data, hc, "initialize") != 1) {
        kiv_log(LOG_ERR, "initialize: save failed.\n");
        return ACTION_FAILED;
    }
    if (options->verbose || !::isatty(STDOUT_FILENO)) kiv_log(LOG_INFO, "initialize: OK\n");
    return ACTION_OK;
}

int kiv_info(kiv_options *options, kivl_data *data, hostconfig *hc) {
    QX_ASSERT(MODULE, options != nullptr);
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, hc != nullptr);
    if (load(options, data, hc) != 1) {
        kiv_log(LOG_ERR, "info action: loading hostcfg failed.\n");
        return ACTION_FAILED;
    }
    kiv_dump(options, data);
    return ACTION_OK;
}

int kiv_partset(kiv_options *options, kivl_data *data, hostconfig *hc) {
    QX_ASSERT(MODULE, options != nullptr);
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, hc != nullptr);
    if (load(options, data, hc) != 1) {
        kiv_log(LOG_ERR, "partset action: loading hostcfg failed.\n");
        return ACTION_FAILED;
    }
    const char *setidx_word = arg(options, ARG_SETIDX);
    if (setidx_word == nullptr) {
        kiv_log(LOG_ERR, "partset action: missing set idx?\n");
        return ACTION_FAILED;
    }
    long setidx = 0;
    if (!scan_int(setidx_word, &setidx) || setidx < 0 || setidx >= static_cast<long>(KIVL_SETS)) {
        kiv_log(LOG_ERR, "partset action: invalid set idx?\n");
        return ACTION_FAILED;
    }

    std::int8_t refs[KIVL_REFS];
    std::memset(refs, REFS_END, sizeof refs);
    const char *refs_word = arg(options, ARG_REFS);
    if (refs_word != nullptr && std::string_view(refs_word).starts_with(REFS_PREFIX)) {
        int n = parse_refs(refs_word + REFS_PREFIX.size(), refs);
        if (n == REFS_NOT_A_NUMBER) {
            kiv_log(LOG_ERR, "partset action: invalid refs list.\n");
            return ACTION_FAILED;
        }
        if (n == REFS_TOO_MANY) {
            kiv_log(LOG_ERR, "partset action: too many refs.\n");
            return ACTION_FAILED;
        }
    }

    kivl_set &set = data->rec.sets[setidx];
    set.bootable = 0;
    std::memcpy(set.refs, refs, sizeof set.refs);
    std::memset(set.name, 0, sizeof set.name);
    if (const char *name = arg(options, ARG_SETNAME)) qx_strlcpy(set.name, name, sizeof set.name);

    zunf_release_header &rh = data->rec.rhdr[setidx];
    rh.release_version_major = static_cast<std::uint8_t>(options->meta_major);
    rh.release_version_minor = static_cast<std::uint8_t>(options->meta_minor);
    rh.release_build_number = static_cast<std::uint16_t>(options->meta_build);

    if (options->verbose) kiv_dump(options, data);
    if (options->dryrun) return ACTION_OK;
    if (save(options, data, hc, "partset") != 1) {
        kiv_log_both(LOG_CRIT, "hostcfg saving failed.\n");
        return ACTION_FAILED;
    }
    return ACTION_OK;
}

int kiv_mount(kiv_options *options, kivl_data *data, hostconfig *hc) {
    QX_ASSERT(MODULE, options != nullptr);
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, hc != nullptr);
    if (load(options, data, hc) != 1) {
        kiv_log(LOG_ERR, "mount: loading hostcfg failed.\n");
        return ACTION_FAILED;
    }
    const char *set_word = arg(options, ARG_SETIDX);
    if (set_word == nullptr) {
        kiv_log(LOG_ERR, "mount: missing set idx?\n");
        return ACTION_FAILED;
    }
    int setidx = kiv_parse_setid(data, set_word);
    if (setidx < 0) {
        kiv_log(LOG_ERR, "mount: invalid set idx?\n");
        return ACTION_FAILED;
    }
    // The pattern can come from the command line: refuse it before any line is printed.
    char device[DEVICE_NAME_LEN];
    if (kiv_device_path(device, sizeof device, data->device, 0) < 0) {
        kiv_log(LOG_ERR, "mount: invalid device pattern.\n");
        return ACTION_FAILED;
    }
    kivl_partpool_generate(data);

    for (std::int8_t ref : data->rec.sets[setidx].refs) {
        if (ref == REFS_END) break;
        // A damaged record may name an entry the table does not have.
        if (ref < 0 || ref >= static_cast<int>(KIVL_PARTINFOS)) continue;
        const kivl_partinfo &pi = data->rec.partinfo[ref];
        terminated mountpnt(pi.mountpnt);
        terminated fstype(pi.fstype);
        // The root file system is mounted by the kernel, never by us.
        if (fstype.text[0] == '\0' || mountpnt.text[0] == '\0' ||
            std::strcmp(mountpnt.text, "/") == 0)
            continue;
        kiv_device_path(device, sizeof device, data->device, pi.pn);
        qx_printf("KIV: Mounting %s on %s as %s...", device, mountpnt.text, fstype.text);
        if (options->dryrun) {
            qx_printf(" DRYRUN\n");
            continue;
        }
        if (::mount(device, mountpnt.text, fstype.text, 0, nullptr) == 0) {
            qx_printf(" OK\n");
        } else if (errno == EBUSY) {
            // Boot scripts mount again after a restart: an existing mount is not an error.
            qx_printf(" PASS: Already mounted or in use (EBUSY)\n");
        } else {
            qx_printf(" FAILED: %s\n", std::strerror(errno));
        }
    }
    return ACTION_OK;
}
