// kiv-sandbox: init, pid 1 of the command's pid namespace.  It mounts the
// namespace's /proc (with the device's /proc/cmdline), starts COMMAND, reaps
// whatever gets orphaned, and kills every process of the namespace when
// COMMAND ends, on a power cut (told by the simulator) or when the sandbox
// goes away.  Then it reports to the sandbox how the run ended.

#include "sandbox.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace kiv::sandbox {

[[noreturn]] void run_init(const Options &o, const std::string &exe, const std::string &cwd,
                           const std::string &cmdline_file, int status_w, int lifeline_r, int cut_r,
                           int ack_w, int tty_slave, const sigset_t &orig_mask,
                           const struct sigaction &orig_pipe) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    auto die = [&](const std::string &msg) {
        std::fprintf(stderr, "kiv-sandbox: %s\n", msg.c_str());
        _exit(kExitFailure);
    };
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
        die(std::string("mount /proc: ") + std::strerror(errno));
    if (mount(cmdline_file.c_str(), "/proc/cmdline", nullptr, MS_BIND, nullptr) != 0)
        die(std::string("bind /proc/cmdline: ") + std::strerror(errno));

    sigset_t chld;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    sigprocmask(SIG_BLOCK, &chld, nullptr);
    int sfd = signalfd(-1, &chld, SFD_CLOEXEC | SFD_NONBLOCK);
    if (sfd < 0) die(std::string("signalfd: ") + std::strerror(errno));

    int exec_pipe[2];
    if (pipe2(exec_pipe, O_CLOEXEC) != 0) die(std::string("pipe: ") + std::strerror(errno));

    pid_t child = fork();
    if (child < 0) die(std::string("fork: ") + std::strerror(errno));
    if (child == 0) {
        close(exec_pipe[0]);
        sigaction(SIGPIPE, &orig_pipe, nullptr);
        sigprocmask(SIG_SETMASK, &orig_mask, nullptr);
        if (tty_slave >= 0) {
            dup2(tty_slave, STDOUT_FILENO);
            close(tty_slave);
        }
        if (chdir(cwd.c_str()) != 0 && chdir("/") != 0) _exit(kExitFailure);
        std::vector<char *> argv;
        for (const auto &a : o.command)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(exe.c_str(), argv.data());
        int e = errno;
        ssize_t w = write(exec_pipe[1], &e, sizeof e);
        (void)w;
        _exit(kExitNotFound);
    }
    close(exec_pipe[1]);
    if (tty_slave >= 0) close(tty_slave);

    Status st;
    bool child_done = false;
    bool killed_all = false;
    auto kill_all = [&] {
        // As pid 1 of the namespace, -1 reaches every other process in it and
        // nothing outside.  The signal is pending in all of them when kill()
        // returns.
        kill(-1, SIGKILL);
        killed_all = true;
    };
    for (;;) {
        // A negative descriptor (power cut already handled) is skipped by poll.
        pollfd pfd[3] = {{sfd, POLLIN, 0}, {cut_r, POLLIN, 0}, {lifeline_r, POLLIN, 0}};
        if (poll(pfd, 3, -1) < 0) {
            if (errno == EINTR) continue;
            die(std::string("poll: ") + std::strerror(errno));
        }
        if (pfd[2].revents) {
            // The sandbox is gone: nothing may outlive it.
            kill(-1, SIGKILL);
            _exit(kExitFailure);
        }
        if (cut_r >= 0 && pfd[1].revents) {
            char buf[64];
            ssize_t n = read(cut_r, buf, sizeof buf);
            if (n > 0) {
                kill_all();
                st.powercut = 1;
                ssize_t w = write(ack_w, "K", 1);
                (void)w;
            }
            close(cut_r);
            close(ack_w);
            cut_r = -1;
            ack_w = -1;
        }
        if (pfd[0].revents) {
            signalfd_siginfo si;
            while (read(sfd, &si, sizeof si) > 0) {
            }
            for (;;) {
                int ws = 0;
                pid_t pid = waitpid(-1, &ws, WNOHANG);
                if (pid > 0) {
                    if (pid == child) {
                        st.wstatus = ws;
                        child_done = true;
                        // Whatever COMMAND left behind ends with it.
                        if (!killed_all) kill_all();
                    }
                    continue;
                }
                if (pid < 0 && errno == EINTR) continue;
                if (pid < 0 && errno == ECHILD && child_done) {
                    int e = 0;
                    if (read(exec_pipe[0], &e, sizeof e) == static_cast<ssize_t>(sizeof e))
                        st.exec_errno = e;
                    ssize_t w = write(status_w, &st, sizeof st);
                    (void)w;
                    _exit(0);
                }
                break;
            }
        }
    }
}

} // namespace kiv::sandbox
