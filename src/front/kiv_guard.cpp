#include "front/kiv_guard.hpp"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "front/kiv_log.hpp"
#include "util/stdio_file.hpp"

volatile std::sig_atomic_t kiv_role = KIV_ROLE_UNKNOWN;
int kiv_lock_fd = -1;

namespace {
// The usual ways a terminal, an init system or an operator ends a process. A flash write
// must not stop half-way, so each of them is only noted.
constexpr std::array<int, 6> CAUGHT_SIGNALS = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2};
constexpr mode_t LOCK_FILE_MODE = 0600;

// A run removes its lock file once it has let go of the lock. A run that opened the file
// before that and locks it after holds a file no longer on the path, where a third run
// may already have created and locked a new one: it must not go on beside that run.
bool still_named(int fd, const char *path) {
    struct stat held = {}, named = {};
    return ::fstat(fd, &held) == 0 && ::stat(path, &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}
} // namespace

int kiv_catch_signal(int signal, const struct sigaction *action, sigset_t *unblock) {
    if (sigaction(signal, action, nullptr) != 0) {
        kiv_log(LOG_ERR, "Could not catch signal #%d\n", signal);
        return 0;
    }
    sigaddset(unblock, signal);
    return 1;
}

void kiv_signal_handler(int signal) {
    const char *role = kiv_role == KIV_ROLE_PARENT  ? "parent"
                       : kiv_role == KIV_ROLE_CHILD ? "child"
                                                    : "yet unknown if child";
    kiv_log(LOG_INFO, "%s: Got signal #%i\n", role, signal);
}

int kiv_guard_signals() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);

    struct sigaction action = {};
    action.sa_handler = kiv_signal_handler;
    sigemptyset(&action.sa_mask);
    // The parent's wait and the child's reads and writes resume after the note.
    action.sa_flags = SA_RESTART;

    sigset_t unblock;
    sigemptyset(&unblock);
    for (int signal : CAUGHT_SIGNALS)
        if (!kiv_catch_signal(signal, &action, &unblock)) return 0;
    // Everything else stays blocked for the whole run, in both processes.
    sigprocmask(SIG_UNBLOCK, &unblock, nullptr);
    return 1;
}

int kiv_exit_code_of(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (!WIFSIGNALED(status)) {
        kiv_log_both(LOG_CRIT, "child terminated for some unknown reason\n");
        return KIV_EXIT_CHILD_UNKNOWN_END;
    }
    int signal = WTERMSIG(status);
    if (signal >= 1 && signal <= KIV_MAX_KNOWN_SIGNAL) {
        kiv_log_both(LOG_CRIT, "child terminated by signal #%i\n", signal);
        return KIV_EXIT_SIGNAL_BASE + signal;
    }
    kiv_log_both(LOG_CRIT, "child terminated by unknown signal #%i\n", signal);
    return KIV_EXIT_SIGNAL_BASE;
}

int kiv_supervise() {
    int status = 0;
    if (::wait(&status) < 0) {
        kiv_log_both(LOG_CRIT, "wait() did not succeed\n");
        return KIV_EXIT_WAIT_FAILED;
    }
    return kiv_exit_code_of(status);
}

int kiv_own_process_group() {
    // Signals that a terminal sends to its foreground group then reach the parent only.
    pid_t old_group = ::getpgrp();
    if (old_group < 0) {
        kiv_log(LOG_ERR, "getpgrp() failed\n");
        return 0;
    }
    if (::setpgid(0, 0) != 0) {
        kiv_log(LOG_ERR, "setpgid() failed\n");
        return 0;
    }
    if (::getpgrp() == old_group) {
        kiv_log(LOG_ERR, "No new process group created?\n");
        return 0;
    }
    return 1;
}

int kiv_lock(const kiv_options *options) {
    Fd fd(::open(options->lockfile, O_RDONLY | O_CREAT | O_CLOEXEC, LOCK_FILE_MODE));
    if (!fd) {
        kiv_log(LOG_ERR, "Could not acquire kiv lock\n");
        return 0;
    }
    // Never wait: a second run on the same device gives up at once.
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 || !still_named(fd.get(), options->lockfile)) {
        fd.reset();
        kiv_log(LOG_ERR, "Could not acquire kiv lock\n");
        return 0;
    }
    kiv_lock_fd = fd.release();
    return 1;
}

void kiv_unlock(const kiv_options *options) {
    int unlocked = ::flock(kiv_lock_fd, LOCK_UN);
    int closed = ::close(kiv_lock_fd);
    kiv_lock_fd = -1;
    if (unlocked != 0 || closed != 0) {
        kiv_log(LOG_ERR, "WARNING: kiv_unlock failed\n");
        return;
    }
    if (::unlink(options->lockfile) != 0 && errno != EBUSY)
        kiv_log(LOG_ERR, "WARNING: kiv_unlock failed\n");
}
