// Fault injection for the process guard's end-to-end tests, preloaded into the real kiv.
// KIV_GUARD_FAULT names the one C library call that misbehaves (see each function); without
// it every call goes straight to the C library. After taking the lock the child may abort,
// kill itself with SIGKILL, remove its lock file, or ("signals") send SIGTERM and SIGUSR1 to
// its parent and SIGINT and SIGUSR2 to itself, after a SIGHUP before the fork and a SIGQUIT
// during it.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool fault_is(const char *name) {
    const char *fault = std::getenv("KIV_GUARD_FAULT");
    return fault && std::strcmp(fault, name) == 0;
}

template <typename Fn> Fn real(const char *name) {
    return reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, name));
}

void unlink_file_of(int fd) {
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    char path[4096];
    ssize_t n = ::readlink(link, path, sizeof path - 1);
    if (n <= 0) return;
    path[n] = '\0';
    ::unlink(path);
}

} // namespace

extern "C" {

int flock(int fd, int operation) {
    int result = real<int (*)(int, int)>("flock")(fd, operation);
    if (result != 0 || !(operation & LOCK_EX)) return result;
    if (fault_is("abort")) std::abort();
    if (fault_is("kill")) ::kill(::getpid(), SIGKILL);
    if (fault_is("unlink")) unlink_file_of(fd);
    if (fault_is("signals")) {
        // A signal to oneself is handled before kill returns; the parent's arrives while
        // it waits, before the child can end.
        ::kill(::getppid(), SIGTERM);
        ::kill(::getpid(), SIGINT);
        ::kill(::getppid(), SIGUSR1);
        ::kill(::getpid(), SIGUSR2);
    }
    return result;
}

pid_t fork() {
    if (fault_is("fork")) {
        errno = EAGAIN;
        return -1;
    }
    // Signals are blocked around the fork: this one waits until the parent knows its role.
    if (fault_is("signals")) ::kill(::getpid(), SIGQUIT);
    return real<pid_t (*)()>("fork")();
}

// kiv flushes every stream right before it forks: a signal here arrives before the fork.
int fflush(FILE *stream) {
    if (stream == nullptr && fault_is("signals")) ::kill(::getpid(), SIGHUP);
    return real<int (*)(FILE *)>("fflush")(stream);
}

pid_t wait(int *status) {
    pid_t pid = real<pid_t (*)(int *)>("wait")(status);
    if (pid < 0) return pid;
    if (fault_is("wait")) {
        errno = ECHILD;
        return -1;
    }
    if (fault_is("wait_stopped")) *status = W_STOPCODE(SIGSTOP);
    if (fault_is("wait_sig65")) *status = W_EXITCODE(0, 65);
    return pid;
}

pid_t getpgrp() {
    if (fault_is("getpgrp")) {
        errno = EPERM;
        return -1;
    }
    return real<pid_t (*)()>("getpgrp")();
}

int setpgid(pid_t pid, pid_t pgid) {
    if (fault_is("setpgid")) {
        errno = EPERM;
        return -1;
    }
    if (fault_is("same_group")) return 0;
    return real<int (*)(pid_t, pid_t)>("setpgid")(pid, pgid);
}

int sigaction(int signum, const struct sigaction *action, struct sigaction *old) {
    if (signum == SIGUSR1 && action && fault_is("sigaction")) {
        errno = EINVAL;
        return -1;
    }
    using Fn = int (*)(int, const struct sigaction *, struct sigaction *);
    return real<Fn>("sigaction")(signum, action, old);
}

// The optional install hook, found by the dynamic loader like a plug-in's. It is present in
// every preloaded run; only the fault makes it refuse.
int kiv_install_hook_hcfg_fail(void *context, void *hostconfig, int rebuild_result) {
    (void)context;
    (void)hostconfig;
    (void)rebuild_result;
    return fault_is("install_hook") ? -1 : 0;
}

} // extern "C"
