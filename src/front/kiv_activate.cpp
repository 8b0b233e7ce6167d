// The activate and upgrade actions: which set the device runs, and its upgrade state.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "front/kiv_actions.hpp"
#include "front/kiv_helpers.hpp"
#include "front/kiv_hooks.hpp"
#include "front/kiv_log.hpp"
#include "hostconfig/hostconfig.hpp"
#include "hostconfig/hostconfig_flags.hpp"
#include "kivl/kivl.hpp"
#include "tools/verify.hpp"
#include "util/fnfile.hpp"
#include "util/qx.hpp"
#include "util/stdio_file.hpp"

namespace {
constexpr const char *MODULE = "kiv";
constexpr const char *KERNEL_CMDLINE = "/proc/cmdline";
constexpr int SAFESET = 0;

// The set the boot loader started: "KIVSET=SAFESET" or "KIVSET=SET<n>" on the kernel
// command line. Without either (or without the file) the device came up from the safe set.
int boot_set() {
    StdioFile f(KERNEL_CMDLINE, "r");
    if (!f) return SAFESET;
    char word[81];
    while (std::fscanf(f.get(), "%80s", word) == 1) {
        if (std::strcmp(word, "KIVSET=SAFESET") == 0) return SAFESET;
        int set;
        if (std::sscanf(word, "KIVSET=SET%d", &set) == 1) return set;
    }
    return SAFESET;
}

bool is_set_index(int set) {
    return set >= 0 && set < static_cast<int>(KIVL_SETS);
}
} // namespace

int kiv_activate(kiv_options *options) {
    QX_ASSERT(MODULE, options != nullptr);
    kivl_data data;
    hostconfig hc;
    if (load(options, &data, &hc) != 1) {
        kiv_log(LOG_ERR, "activate action: hostcfg loading failed.\n");
        return 1;
    }
    const char *word = options->args[1];
    const int set = kiv_parse_setid(&data, word);
    if (set < 0) {
        kiv_log(LOG_ERR, "%s: invalid set id: %s\n", "activate", word ? word : "(none)");
        return 1;
    }
    if (!options->force) {
        const int r = verify_set(options, &data, set, options->verbose);
        if (r != 0) {
            kiv_log(LOG_ERR, "%s: set %d validation err=%d\n", "activate", set, r);
            return 1;
        }
    }
    data.rec.actset = static_cast<std::uint8_t>(set);
    if (options->verbose) kiv_dump(options, &data);
    if (!options->dryrun) {
        if (save(options, &data, &hc, "activate") != 1) {
            kiv_log_both(LOG_CRIT, "activate action: hostcfg saving failed.\n");
            return 1;
        }
        // The save erased the state bytes with the hostconfig device. With the hostconfig
        // kept elsewhere they stay as they were, and a set in TEST cannot be made VALID
        // without an erase: that request is refused.
        if (set_upgrade_state(set, KIV_UPGRADE_STATE_VALID) != 0) {
            kiv_log_both(LOG_CRIT, "cannot set normal mode\n");
            return 1;
        }
    }
    if (kiv_activate_hook_post != nullptr) (void)kiv_activate_hook_post(&data, &hc);
    return 0;
}

int kiv_upgrade(kiv_options *options) {
    QX_ASSERT(MODULE, options != nullptr);
    if (options->nargs < 2) {
        kiv_log(LOG_ERR, "%s: Missing argument\n", "upgrade");
        return 1;
    }
    kivl_data data;
    hostconfig hc;
    if (load(options, &data, &hc) != 1) {
        kiv_log(LOG_ERR, "upgrade action: hostcfg loading failed.\n");
        return 1;
    }
    const int bootset = boot_set();
    const char *command = options->args[1];

    bool changes = false;
    int target_set = bootset;
    int target_state = KIV_UPGRADE_STATE_VALID;
    if (std::strcmp(command, "activate") == 0) {
        int set;
        // No file, or nothing in it that reads as a number: the install did not ask for
        // a switch, which is not an error worth a message.
        if (fnscanf(options->activesetfile, "%d", &set) != 1) return 1;
        // Everything after this point takes actset as a set index: refuse before writing.
        if (!is_set_index(set)) {
            kiv_log(LOG_ERR, "upgrade: invalid set %d in activeset file\n", set);
            return 1;
        }
        target_set = set;
        changes = static_cast<std::uint8_t>(set) != data.rec.actset;
        target_state =
            options->test && bootset > SAFESET ? KIV_UPGRADE_STATE_TEST : KIV_UPGRADE_STATE_VALID;
        data.rec.actset = static_cast<std::uint8_t>(set);
    } else if (std::strcmp(command, "validate") == 0) {
        const int state = get_upgrade_state(bootset);
        if (state < 0) {
            qx_printf("Upgrade state is invalid\n");
            return 1;
        }
        if (state == KIV_UPGRADE_STATE_VALID) {
            qx_printf("Already validated\n");
            return 0;
        }
        changes = true;
        target_state = KIV_UPGRADE_STATE_VALID;
    } else if (std::strcmp(command, "test") == 0) {
        const int state = get_upgrade_state(bootset);
        if (state < 0) {
            qx_printf("Upgrade state is invalid\n");
            return 1;
        }
        changes = state == KIV_UPGRADE_STATE_BOOT;
        target_state = KIV_UPGRADE_STATE_TEST;
    } else {
        kiv_log_both(LOG_CRIT, "upgrade: unknown command.\n");
        return 1;
    }

    if (options->verbose) kiv_dump(options, &data);
    if (!changes || options->dryrun) return 0;
    // The save erases the hostconfig device and with it the state bytes: the state can
    // only be written after it.
    if (save(options, &data, &hc, "upgrade") != 1) {
        kiv_log_both(LOG_CRIT, "upgrade: hostcfg saving failed.\n");
        return 1;
    }
    if (set_upgrade_state(target_set, target_state) != 0) {
        kiv_log_both(LOG_CRIT, "failed to set upgrade state\n");
        return 1;
    }
    return 0;
}
