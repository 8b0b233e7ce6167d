// Program entry: the supervising parent and the working child of one kiv run.
#include <cstdio>
#include <unistd.h>

#include "front/kiv_cmdline.hpp"
#include "front/kiv_guard.hpp"
#include "front/kiv_log.hpp"

int main(int argc, char **argv) {
    kiv_log_open();
    if (!kiv_guard_signals()) return KIV_EXIT_SIGNAL_SETUP;

    // Nothing buffered may reach the child, or it would be printed twice.
    std::fflush(nullptr);
    pid_t child = ::fork();
    if (child < 0) {
        kiv_log(LOG_ERR, "Fork failed\n");
        return KIV_EXIT_FORK_FAILED;
    }
    if (child > 0) {
        kiv_role = KIV_ROLE_PARENT;
        return kiv_supervise();
    }

    kiv_role = KIV_ROLE_CHILD;
    if (!kiv_own_process_group()) return KIV_EXIT_NO_PROCESS_GROUP;
    return kiv_run(argc, argv);
}
