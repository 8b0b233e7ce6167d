#include "front/kiv_helpers.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "front/kiv_log.hpp"
#include "hostconfig/hostconfig.hpp"
#include "hostconfig/hostconfig_flags.hpp"
#include "hostconfig/mtd.hpp"
#include "kivl/kivl.hpp"
#include "util/qx.hpp"
#include "util/stdio_file.hpp"

namespace {
constexpr const char *MODULE = "kiv";
constexpr int MTD_UNLOCKED = 0;

// The backup copy takes part only when it is configured and its MTD device answers
// "not locked": a locked device, a regular file or a path that cannot be opened keep it
// out of both reading and writing.
const char *usable_backup(const kiv_options *options) {
    const char *backup = options->hostcfg_backup;
    if (backup[0] == '\0') return nullptr;
    return mtd_fn_is_locked(backup) == MTD_UNLOCKED ? backup : nullptr;
}

bool is_kiv_data(const zunf_content_header *part) {
    // Exactly that name: the comparison includes the terminator of "KIV data".
    return std::strncmp(part->name, KIVL_PART_NAME, sizeof part->name) == 0;
}

// A part named "KIV data" plus more characters is carried over, yet the import finds the
// upgrade data by that prefix: kept ahead of the new record, it would be read back in its
// place and the change just saved would be lost without a word.
bool shadows_kiv_data(const zunf_content_header *part) {
    return std::strncmp(part->name, KIVL_PART_NAME, std::strlen(KIVL_PART_NAME)) == 0;
}
} // namespace

int load(const kiv_options *options, kivl_data *data, hostconfig *hc) {
    QX_ASSERT(MODULE, options != nullptr);
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, hc != nullptr);
    int init = kivl_init(data);
    data->device = options->device;
    if (init != 1) {
        kiv_log(LOG_DEBUG, "kivl_init failed.\n");
        return -1;
    }
    if (hostconfig_new(hc, HOSTCONFIG_MAX_SIZE) != 1) {
        kiv_log(LOG_DEBUG, "hostconfig_new failed.\n");
        return -1;
    }
    const char *backup = usable_backup(options);
    int r = hostconfig_load(hc, options->hostcfg, backup);
    if (r == 2) {
        kiv_log(LOG_DEBUG, "hostconfig_load failed; loaded backup (%s) successfully.\n", backup);
    } else if (r != 1) {
        kiv_log(LOG_DEBUG, "hostconfig_load failed.\n");
        return -1;
    }
    if (kivl_hostconfig_import(data, hc) != 1) {
        kiv_log(LOG_DEBUG, "kivl_hostconfig_import failed.\n");
        return -1;
    }
    return 1;
}

int save(const kiv_options *options, kivl_data *data, const hostconfig *loaded,
         const char *caller) {
    QX_ASSERT(MODULE, options != nullptr);
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, loaded != nullptr);
    QX_ASSERT(MODULE, caller != nullptr);
    // A loaded handle is never written back: its `used` does not describe its parts.
    // The image is rebuilt so that "KIV data" always ends up last.
    hostconfig fresh;
    if (hostconfig_new(&fresh, HOSTCONFIG_MAX_SIZE) != 1) {
        kiv_log(LOG_DEBUG, "hostconfig_new failed.\n");
        return -1;
    }
    for (std::int32_t i = 0;
         i < loaded->count && i < static_cast<std::int32_t>(HOSTCONFIG_MAX_PARTS); ++i) {
        const zunf_content_header *part = loaded->parts[i];
        if (is_kiv_data(part)) continue;
        if (shadows_kiv_data(part) || hostconfig_add(&fresh, part) != 1) {
            kiv_log(LOG_DEBUG, "hostconfig_add failed.\n");
            return -1;
        }
    }
    if (kivl_hostconfig_export(data, &fresh) != 1) {
        kiv_log(LOG_DEBUG, "kivl_hostconfig_export failed.\n");
        return -1;
    }
    kiv_critical_start("critical part start: hostconfig_save called by %s\n", caller);
    int r = hostconfig_save(&fresh, options->hostcfg, usable_backup(options));
    kiv_critical_end("critical part end: hostconfig_save\n");
    if (r != 1) {
        kiv_log(LOG_DEBUG, "hostconfig_save failed.\n");
        return -1;
    }
    return 1;
}

std::size_t kiv_feed_file(const char *path, void *buffer, std::size_t size,
                          kiv_feed_consumer consumer, void *context) {
    QX_ASSERT(MODULE, path != nullptr);
    QX_ASSERT(MODULE, buffer != nullptr);
    QX_ASSERT(MODULE, consumer != nullptr);
    StdioFile f(path, "r");
    if (!f) return 0;
    auto *bytes = static_cast<unsigned char *>(buffer);
    std::size_t total = 0;
    // One read normally fills the buffer or meets the end of the file; a second read
    // picks up what a short first read (a pipe, a signal) left, and then it stops.
    for (int pass = 0; pass < 2; ++pass) {
        bool last = pass == 1;
        std::size_t got = std::fread(bytes + total, 1, size - total, f.get());
        if (std::ferror(f.get())) return 0;
        if (std::feof(f.get())) last = true;
        std::size_t consumed = consumer(buffer, 1, got, context);
        // Taking more than it was given is as wrong as taking less, and would push the
        // next read past the buffer.
        if (consumed != got) return 0;
        total += consumed;
        if (total == size || last) break;
    }
    return total;
}

int kiv_parse_setid(const kivl_data *data, const char *word) {
    QX_ASSERT(MODULE, data != nullptr);
    if (word == nullptr) return -1;
    long value;
    if (word[0] >= '0' && word[0] <= '9') {
        // strtol with base 0 reads what "%i" reads (0x.. hex, leading 0 octal) and, unlike
        // scanf, has a defined result for numbers out of range.
        char *end = nullptr;
        errno = 0;
        value = std::strtol(word, &end, 0);
        if (end == word || errno == ERANGE) return -1;
    } else {
        value = kivl_getsetidx(data, word);
    }
    if (value < 0 || value >= static_cast<long>(KIVL_SETS)) return -1;
    return static_cast<int>(value);
}

void kiv_dump(const kiv_options *, kivl_data *data) {
    QX_ASSERT(MODULE, data != nullptr);
    kivl_partpool_generate(data);
    kivl_dump_info(data);
    kivl_upgrade_info();
}
