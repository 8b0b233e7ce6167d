// hc_probe: calls the hostconfig store and the action helpers one step at a time inside
// the device sandbox, printing one result line per step, so that the end-to-end tests
// see the real MTD requests, state bytes and flash events without going through an
// action.
//
//   hc_probe STEP [ARGS] [+ STEP [ARGS]]...
//
//   erase PATH OFFSET LENGTH     "erase R"               mtd_fn_erase
//   locked PATH                  "locked R"              mtd_fn_is_locked
//   flags                        "flags R B1 B2"         hostconfig_flags_read (hex bytes)
//   flags-write SET VALUE        "flags-write R"         upgrade_flags_write
//   get-state SET                "get-state R"           get_upgrade_state
//   set-state SET STATE          "set-state R"           set_upgrade_state
//   info                         (its own lines)         kivl_upgrade_info
//   load CFG BACKUP|-            "load R COUNT"          hostconfig_load
//   save CFG BACKUP|- ACTSET     "save R"                fresh record, hostconfig_save
//   kiv-load CFG BACKUP|-        "kiv-load R ACTSET"     load (backup "" for -)
//   kiv-save CFG BACKUP|- ACTSET "kiv-save R"            load, set actset, save
//   kiv-init-save CFG BACKUP|-   "kiv-init-save R"       fresh record, save without load
//
// Exit status 0 when every step ran (whatever it returned), 2 on a usage error.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "front/kiv_helpers.hpp"
#include "hostconfig/hostconfig.hpp"
#include "hostconfig/hostconfig_flags.hpp"
#include "hostconfig/mtd.hpp"
#include "kivl/kivl.hpp"

namespace {

long num(const char *s) {
    return std::strtol(s, nullptr, 0);
}

const char *opt_path(const char *s) {
    return std::strcmp(s, "-") == 0 ? nullptr : s;
}

void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
void say(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::fflush(stdout);
}

[[noreturn]] void usage(const std::string &step) {
    std::fprintf(stderr, "hc_probe: bad step '%s'\n", step.c_str());
    std::exit(2);
}

kiv_options options_for(const char *cfg, const char *backup) {
    kiv_options o{};
    std::snprintf(o.hostcfg, sizeof o.hostcfg, "%s", cfg);
    std::snprintf(o.hostcfg_backup, sizeof o.hostcfg_backup, "%s", opt_path(backup) ? backup : "");
    std::snprintf(o.device, sizeof o.device, "%s", "/dev/mtd%i");
    return o;
}

void step(const std::vector<const char *> &a) {
    const std::string cmd = a[0];
    auto need = [&](std::size_t n) {
        if (a.size() != n + 1) usage(cmd);
    };
    auto data = std::make_unique<kivl_data>();
    auto hc = std::make_unique<hostconfig>();
    if (cmd == "erase") {
        need(3);
        say("erase %d\n", mtd_fn_erase(a[1], static_cast<std::uint32_t>(num(a[2])),
                                       static_cast<std::uint32_t>(num(a[3]))));
    } else if (cmd == "locked") {
        need(1);
        say("locked %d\n", mtd_fn_is_locked(a[1]));
    } else if (cmd == "flags") {
        need(0);
        std::uint8_t b[2] = {0, 0};
        int r = hostconfig_flags_read(b);
        say("flags %d %02x %02x\n", r, unsigned{b[0]}, unsigned{b[1]});
    } else if (cmd == "flags-write") {
        need(2);
        say("flags-write %d\n",
            upgrade_flags_write(static_cast<int>(num(a[1])), static_cast<int>(num(a[2]))));
    } else if (cmd == "get-state") {
        need(1);
        say("get-state %d\n", get_upgrade_state(static_cast<int>(num(a[1]))));
    } else if (cmd == "set-state") {
        need(2);
        int r = set_upgrade_state(static_cast<int>(num(a[1])), static_cast<int>(num(a[2])));
        say("\nset-state %d\n", r);
    } else if (cmd == "info") {
        need(0);
        kivl_upgrade_info();
    } else if (cmd == "load") {
        need(2);
        hostconfig_new(hc.get(), HOSTCONFIG_MAX_SIZE);
        int r = hostconfig_load(hc.get(), a[1], opt_path(a[2]));
        say("load %d %d\n", r, static_cast<int>(hc->count));
    } else if (cmd == "save") {
        need(3);
        kivl_init(data.get());
        data->rec.actset = static_cast<std::uint8_t>(num(a[3]));
        hostconfig_new(hc.get(), HOSTCONFIG_MAX_SIZE);
        kivl_hostconfig_export(data.get(), hc.get());
        say("save %d\n", hostconfig_save(hc.get(), a[1], opt_path(a[2])));
    } else if (cmd == "kiv-load") {
        need(2);
        kiv_options o = options_for(a[1], a[2]);
        int r = load(&o, data.get(), hc.get());
        say("kiv-load %d %d\n", r, int{data->rec.actset});
    } else if (cmd == "kiv-save") {
        need(3);
        kiv_options o = options_for(a[1], a[2]);
        int r = load(&o, data.get(), hc.get());
        if (r == 1) {
            data->rec.actset = static_cast<std::uint8_t>(num(a[3]));
            r = save(&o, data.get(), hc.get(), "hc_probe");
        }
        say("kiv-save %d\n", r);
    } else if (cmd == "kiv-init-save") {
        need(2);
        kiv_options o = options_for(a[1], a[2]);
        kivl_init(data.get());
        hostconfig_new(hc.get(), HOSTCONFIG_MAX_SIZE);
        say("kiv-init-save %d\n", save(&o, data.get(), hc.get(), "hc_probe"));
    } else {
        usage(cmd);
    }
}

} // namespace

int main(int argc, char **argv) {
    std::vector<const char *> cur;
    for (int i = 1; i <= argc; ++i) {
        if (i == argc || std::strcmp(argv[i], "+") == 0) {
            if (cur.empty()) usage("");
            step(cur);
            cur.clear();
        } else {
            cur.push_back(argv[i]);
        }
    }
    return 0;
}
