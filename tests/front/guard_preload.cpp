// Preloaded into kiv by kiv_front_e2e_test: KIV_GUARD_FAULT names the C library call that fails.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <initializer_list>
#include <string_view>
#include <sys/file.h>
#include <unistd.h>

namespace {

std::string_view fault() {
    const char *name = std::getenv("KIV_GUARD_FAULT");
    return name ? name : "";
}

template <typename Fn> Fn real(const char *name) {
    return reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, name));
}

int failed(int error) {
    errno = error;
    return -1;
}

} // namespace

extern "C" {

// Right after taking the lock the child aborts or is signalled; before, its lock file is
// replaced; before letting go of it, it loses the lock file.
int flock(int fd, int operation) {
    if (operation == LOCK_UN && fault() == "unlock") return -1;
    if (operation == LOCK_UN && fault() == "unlink") ::unlink(std::getenv("KIV_GUARD_LOCK"));
    if ((operation & LOCK_EX) && fault() == "replaced") { // by the run before, then a third
        ::unlink(std::getenv("KIV_GUARD_LOCK"));
        ::close(::open(std::getenv("KIV_GUARD_LOCK"), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    }
    int result = real<int (*)(int, int)>("flock")(fd, operation);
    if (result != 0 || !(operation & LOCK_EX)) return result;
    if (fault() == "abort") std::abort();
    // SIGALRM is not caught by kiv: blocked, it must never arrive.
    if (fault() == "signals")
        for (int sig : {SIGTERM, SIGINT, SIGUSR1, SIGUSR2, SIGALRM})
            ::kill(sig == SIGTERM || sig == SIGUSR1 ? ::getppid() : ::getpid(), sig);
    return result;
}

// Signals are blocked around the fork: SIGQUIT waits until the parent knows its role.
pid_t fork() {
    if (fault() == "fork") return failed(EAGAIN);
    if (fault() == "signals") ::kill(::getpid(), SIGQUIT);
    return real<pid_t (*)()>("fork")();
}

// kiv flushes every stream right before it forks: a SIGHUP here arrives before the fork.
int fflush(FILE *stream) {
    if (stream == nullptr && fault() == "signals") ::kill(::getpid(), SIGHUP);
    return real<int (*)(FILE *)>("fflush")(stream);
}

pid_t wait(int *status) {
    pid_t pid = real<pid_t (*)(int *)>("wait")(status);
    if (pid >= 0 && fault() == "wait") return failed(ECHILD);
    if (pid >= 0 && fault().starts_with("status=")) *status = std::atoi(fault().data() + 7);
    return pid;
}

pid_t getpgrp() {
    return fault() == "getpgrp" ? failed(EPERM) : real<pid_t (*)()>("getpgrp")();
}

int setpgid(pid_t pid, pid_t pgid) {
    if (fault() == "same_group") return 0;
    return fault() == "setpgid" ? failed(EPERM) : real<int (*)(pid_t, pid_t)>("setpgid")(pid, pgid);
}

int sigaction(int signum, const struct sigaction *action, struct sigaction *old) {
    using Fn = int (*)(int, const struct sigaction *, struct sigaction *);
    if (signum == SIGUSR1 && action && fault() == "sigaction") return failed(EINVAL);
    return real<Fn>("sigaction")(signum, action, old);
}

} // extern "C"
