// hc_probe: calls the MTD requests and the upgrade state functions one step at a time
// inside the device sandbox, printing one result line per step, so that the end-to-end
// tests reach codes and states no action asks for.
//
//   hc_probe STEP [ARGS] [+ STEP [ARGS]]...
//
//   erase PATH OFFSET LENGTH     "erase R"               mtd_fn_erase
//   locked PATH                  "locked R"              mtd_fn_is_locked
//   get-state SET                "get-state R"           get_upgrade_state
//   set-state SET STATE          "\nset-state R"         set_upgrade_state (after its message)
//   info                         (its own lines)         kivl_upgrade_info
//
// Exit status 0 when every step ran (whatever it returned), 2 on a usage error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "hostconfig/hostconfig_flags.hpp"
#include "hostconfig/mtd.hpp"

namespace {

int num(const char *s) {
    return static_cast<int>(std::strtol(s, nullptr, 0));
}

[[noreturn]] void usage(const std::string &step) {
    std::fprintf(stderr, "hc_probe: bad step '%s'\n", step.c_str());
    std::exit(2);
}

void step(const std::vector<const char *> &a) {
    const std::string cmd = a[0];
    auto need = [&](std::size_t n) {
        if (a.size() != n + 1) usage(cmd);
    };
    if (cmd == "erase") {
        need(3);
        std::printf("erase %d\n", mtd_fn_erase(a[1], static_cast<std::uint32_t>(num(a[2])),
                                               static_cast<std::uint32_t>(num(a[3]))));
    } else if (cmd == "locked") {
        need(1);
        std::printf("locked %d\n", mtd_fn_is_locked(a[1]));
    } else if (cmd == "get-state") {
        need(1);
        std::printf("get-state %d\n", get_upgrade_state(num(a[1])));
    } else if (cmd == "set-state") {
        need(2);
        int r = set_upgrade_state(num(a[1]), num(a[2]));
        std::printf("\nset-state %d\n", r);
    } else if (cmd == "info") {
        need(0);
        kivl_upgrade_info();
    } else {
        usage(cmd);
    }
    std::fflush(stdout);
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
