// Program entry: the supervising parent and the working child of one kiv run.
#include <csignal>
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
    // The child may run well ahead of its parent and signal it at once. Signals wait,
    // blocked, until each process knows its role, so that every note names it.
    sigset_t all, guarded;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &guarded);
    pid_t child = ::fork();
    if (child > 0)
        kiv_role = KIV_ROLE_PARENT;
    else if (child == 0)
        kiv_role = KIV_ROLE_CHILD;
    sigprocmask(SIG_SETMASK, &guarded, nullptr);
    if (child < 0) {
        kiv_log(LOG_ERR, "Fork failed\n");
        return KIV_EXIT_FORK_FAILED;
    }
    if (child > 0) return kiv_supervise();

    if (!kiv_own_process_group()) return KIV_EXIT_NO_PROCESS_GROUP;
    return kiv_run(argc, argv);
}
