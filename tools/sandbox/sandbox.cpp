// kiv-sandbox: runs one command on a simulated device.
//
// The command gets its own mount and pid namespaces with the simulated flash
// at /dev/mtdN (served by kiv-flashsim), a replaceable /proc/cmdline, fresh
// /tmp and /mnt/appl, and a /dev/log whose messages end up in RUNDIR/syslog.
// Everything lives in RUNDIR, which survives the run, so that a later run
// "reboots" on the flash the previous one left behind.
//
// Processes:
//   sandbox (this process, host pid namespace, new mount namespace)
//     |- kiv-flashsim   FUSE daemon; mounted only inside our mount namespace
//     `- init           pid 1 of the new pid namespace: mounts /proc, reaps,
//          |            kills everything on a power cut
//          `- COMMAND
// The sandbox owns the /dev/log socket and copies its messages to the syslog
// file until init reports that COMMAND and everything it started are gone.
//
// This file: the options, RUNDIR, starting the simulator and init, and the
// event loop that relays the log and the terminal until the run ends.  The
// mounts are in sandbox_mounts.cpp, init in sandbox_init.cpp, the log lines
// in sandbox_syslog.cpp.

#include "sandbox.hpp"

#include "simconfig.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <string>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#ifndef KIV_FLASHSIM_DEFAULT
#define KIV_FLASHSIM_DEFAULT ""
#endif

namespace kiv::sandbox {

[[noreturn]] void fail(const std::string &msg) {
    std::fprintf(stderr, "kiv-sandbox: %s\n", msg.c_str());
    std::exit(kExitFailure);
}

[[noreturn]] void fail_errno(const std::string &what) {
    fail(what + ": " + std::strerror(errno));
}

std::string dirname_of(const std::string &path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string absolute(const std::string &path) {
    if (!path.empty() && path[0] == '/') return path;
    char buf[PATH_MAX];
    if (!getcwd(buf, sizeof buf)) fail_errno("getcwd");
    return std::string(buf) + "/" + path;
}

std::string real(const std::string &path) {
    char buf[PATH_MAX];
    if (!realpath(path.c_str(), buf)) fail_errno(path);
    return buf;
}

void write_file(const std::string &path, const std::string &data, mode_t mode) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) fail_errno(path);
    std::size_t done = 0;
    while (done < data.size()) {
        ssize_t w = write(fd, data.data() + done, data.size() - done);
        if (w < 0 && errno == EINTR) continue;
        if (w < 0) fail_errno(path);
        done += static_cast<std::size_t>(w);
    }
    close(fd);
}

void mkdir_p(const std::string &path, mode_t mode) {
    std::size_t pos = 1;
    for (;;) {
        pos = path.find('/', pos);
        std::string part = path.substr(0, pos);
        if (!part.empty() && mkdir(part.c_str(), mode) != 0 && errno != EEXIST)
            fail_errno("mkdir " + part);
        if (pos == std::string::npos) return;
        ++pos;
    }
}

void write_all(int fd, const char *p, std::size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return;
        p += w;
        n -= static_cast<std::size_t>(w);
    }
}

} // namespace kiv::sandbox

namespace {

using namespace kiv::sandbox;

constexpr int kReadyTimeoutMs = 10000;

[[noreturn]] void usage(int status) {
    std::fprintf(
        status ? stderr : stdout,
        "usage: kiv-sandbox --dir RUNDIR [--layout FILE] [--cmdline TEXT]\n"
        "                   [--hostcfg-default FILE] [--fault FAULT]... [--keep PATH]...\n"
        "                   [--timeout SECONDS] [--tty] [--flashsim PATH] -- COMMAND [ARGS...]\n"
        "\n"
        "Runs COMMAND on a simulated device whose flash images live in RUNDIR/flash.\n"
        "Exit status: that of COMMAND, 128+N if it was killed by signal N (137 after\n"
        "a power cut), 124 on timeout, 125 if the sandbox failed, 126/127 if COMMAND\n"
        "cannot be run or was not found.\n"
        "\n"
        "fault FAULT: erase:mtdN:BLOCK  write:mtdN:OFFSET  short:mtdN:OFFSET\n"
        "            bitflip:mtdN:OFFSET:BIT  powercut:N\n");
    std::exit(status ? kExitFailure : 0);
}

Options parse_args(int argc, char **argv) {
    Options o;
    enum {
        OptDir = 256,
        OptLayout,
        OptCmdline,
        OptHostcfg,
        OptFault,
        OptKeep,
        OptTimeout,
        OptTty,
        OptFlashsim
    };
    static const option opts[] = {
        {"dir", required_argument, nullptr, OptDir},
        {"layout", required_argument, nullptr, OptLayout},
        {"cmdline", required_argument, nullptr, OptCmdline},
        {"hostcfg-default", required_argument, nullptr, OptHostcfg},
        {"fault", required_argument, nullptr, OptFault},
        {"keep", required_argument, nullptr, OptKeep},
        {"timeout", required_argument, nullptr, OptTimeout},
        {"tty", no_argument, nullptr, OptTty},
        {"flashsim", required_argument, nullptr, OptFlashsim},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (;;) {
        // '+': stop at COMMAND even without "--", so its options stay its own.
        int c = getopt_long(argc, argv, "+h", opts, nullptr);
        if (c == -1) break;
        switch (c) {
        case OptDir:
            o.dir = optarg;
            break;
        case OptLayout:
            o.layout_file = optarg;
            break;
        case OptCmdline:
            o.cmdline = optarg;
            o.have_cmdline = true;
            break;
        case OptHostcfg:
            o.hostcfg_default = optarg;
            break;
        case OptFault:
            o.faults.emplace_back(optarg);
            break;
        case OptKeep:
            o.keeps.emplace_back(optarg);
            break;
        case OptTimeout: {
            char *end = nullptr;
            o.timeout = std::strtod(optarg, &end);
            if (!end || *end || !(o.timeout > 0))
                fail(std::string("bad --timeout '") + optarg + "'");
            break;
        }
        case OptTty:
            o.tty = true;
            break;
        case OptFlashsim:
            o.flashsim = optarg;
            break;
        case 'h':
            usage(0);
        default:
            usage(2);
        }
    }
    for (int i = optind; i < argc; ++i)
        o.command.emplace_back(argv[i]);
    if (o.dir.empty() || o.command.empty()) usage(2);
    return o;
}

void make_pipe(int fds[2]) {
    if (pipe2(fds, O_CLOEXEC) != 0) fail_errno("pipe");
}

std::int64_t now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool read_full(int fd, void *buf, std::size_t n) {
    auto *p = static_cast<char *>(buf);
    while (n > 0) {
        ssize_t r = read(fd, p, n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<std::size_t>(r);
    }
    return true;
}

// Finds COMMAND the way execvp would, so that its directory can be kept
// reachable.  Returns the errno of the failure, 0 on success.
int resolve_command(const std::string &name, std::string &out) {
    if (name.find('/') != std::string::npos) {
        out = absolute(name);
        if (access(out.c_str(), F_OK) != 0) return ENOENT;
        return access(out.c_str(), X_OK) == 0 ? 0 : EACCES;
    }
    const char *env = getenv("PATH");
    std::string path = env ? env : "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    int err = ENOENT;
    std::size_t start = 0;
    for (;;) {
        std::size_t colon = path.find(':', start);
        std::string dir = path.substr(start, colon - start);
        std::string cand = absolute((dir.empty() ? "." : dir) + "/" + name);
        struct stat st {};
        if (stat(cand.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
            if (access(cand.c_str(), X_OK) == 0) {
                out = cand;
                return 0;
            }
            err = EACCES;
        }
        if (colon == std::string::npos) return err;
        start = colon + 1;
    }
}

std::string find_flashsim(const Options &o) {
    if (!o.flashsim.empty()) return o.flashsim;
    if (const char *env = getenv("KIV_FLASHSIM"); env && *env) return env;
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        self[n] = 0;
        std::string dir = dirname_of(self);
        for (const char *rel : {"/kiv-flashsim", "/../flashsim/kiv-flashsim"}) {
            std::string cand = dir + rel;
            if (access(cand.c_str(), X_OK) == 0) return cand;
        }
    }
    if (*KIV_FLASHSIM_DEFAULT && access(KIV_FLASHSIM_DEFAULT, X_OK) == 0)
        return KIV_FLASHSIM_DEFAULT;
    fail("cannot find kiv-flashsim (use --flashsim or KIV_FLASHSIM)");
}

// The tty relay: copies what COMMAND wrote to its terminal to our standard
// output.  False once every writer is gone.
bool drain_tty(int master) {
    char buf[65536];
    for (;;) {
        ssize_t n = read(master, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n < 0 && errno == EAGAIN; // EIO: every writer is gone
        write_all(STDOUT_FILENO, buf, static_cast<std::size_t>(n));
    }
}

} // namespace

int main(int argc, char **argv) {
    // With a standard descriptor closed, the first descriptors opened here
    // would take its place and COMMAND's output could end up in a log file.
    for (int fd = 0; fd < 3; ++fd) {
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd)
            fail("cannot open /dev/null");
    }
    Options o = parse_args(argc, argv);

    // ---------------------------------------------------------- RUNDIR
    mkdir_p(absolute(o.dir));
    const std::string rundir = real(o.dir);
    // One run at a time per device: two simulators on the same images would
    // interleave their operations.  Held until exit.
    int lock_fd = open((rundir + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock_fd < 0) fail_errno(rundir + "/.lock");
    if (flock(lock_fd, LOCK_EX | LOCK_NB) != 0) fail(rundir + " is in use by another run");
    std::string layout_text, err;
    if (!o.layout_file.empty()) {
        if (!kiv::sim::read_file(o.layout_file, layout_text, err)) fail(err);
    } else {
        layout_text = std::string(kiv::sim::default_layout_text());
    }
    kiv::sim::Layout layout;
    if (!kiv::sim::parse_layout(layout_text, layout, err))
        fail((o.layout_file.empty() ? std::string("default layout") : o.layout_file) + ": " + err);
    if (layout.mtds.empty()) fail("the layout defines no flash device");
    for (const auto &text : o.faults) {
        kiv::sim::Fault f;
        if (!kiv::sim::parse_fault(text, f, err) || !kiv::sim::check_fault(f, layout, err))
            fail(err);
    }
    std::string cmdline = o.have_cmdline   ? o.cmdline
                          : layout.cmdline ? *layout.cmdline
                                           : std::string(kiv::sim::kDefaultCmdline);
    if (!kiv::sim::ensure_images(rundir + "/flash", layout, err)) fail(err);
    write_file(rundir + "/layout", layout_text, 0644);
    const std::string cmdline_file = rundir + "/cmdline";
    write_file(cmdline_file, cmdline + "\n", 0644);
    std::string hostcfg;
    if (!o.hostcfg_default.empty() && !kiv::sim::read_file(o.hostcfg_default, hostcfg, err))
        fail(err);

    int syslog_fd =
        open((rundir + "/syslog").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (syslog_fd < 0) fail_errno(rundir + "/syslog");
    int events_fd =
        open((rundir + "/events").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (events_fd < 0) fail_errno(rundir + "/events");
    close(events_fd);
    int simlog_fd =
        open((rundir + "/flashsim.log").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (simlog_fd < 0) fail_errno(rundir + "/flashsim.log");

    // ---------------------------------------------------------- COMMAND
    std::string exe;
    if (int e = resolve_command(o.command[0], exe); e != 0) {
        std::fprintf(stderr, "kiv-sandbox: %s: %s\n", o.command[0].c_str(),
                     e == ENOENT ? "command not found" : std::strerror(e));
        return e == ENOENT ? kExitNotFound : kExitCannotRun;
    }
    char cwd_buf[PATH_MAX];
    if (!getcwd(cwd_buf, sizeof cwd_buf)) fail_errno("getcwd");
    const std::string cwd = cwd_buf;

    // Our own mount namespace from here on.  Descriptors used as sources of
    // bind mounts are opened after this: a bind only takes mounts of the
    // caller's namespace.
    enter_mount_namespace();
    std::vector<KeepMount> keeps = open_kept_paths(o, exe, rundir, cwd);

    const std::string flashsim = find_flashsim(o);
    // Opened now and started through the descriptor: its path may be under
    // /tmp, which is about to be replaced.
    int flashsim_fd = open(flashsim.c_str(), O_RDONLY | O_CLOEXEC);
    if (flashsim_fd < 0) fail_errno(flashsim);
    int pts_fd = open("/dev/pts", O_PATH | O_CLOEXEC | O_DIRECTORY);
    open_host_nodes();

    int tty_master = -1, tty_slave = -1;
    if (o.tty) {
        winsize ws{};
        ws.ws_row = 24;
        ws.ws_col = 80;
        if (openpty(&tty_master, &tty_slave, nullptr, nullptr, &ws) != 0) fail_errno("openpty");
        // Output is copied verbatim; no "\n" to "\r\n" translation.
        termios tio{};
        if (tcgetattr(tty_slave, &tio) == 0) {
            tio.c_oflag &= ~static_cast<tcflag_t>(OPOST);
            tcsetattr(tty_slave, TCSANOW, &tio);
        }
        fcntl(tty_master, F_SETFD, FD_CLOEXEC);
        fcntl(tty_master, F_SETFL, O_NONBLOCK);
        fcntl(tty_slave, F_SETFD, FD_CLOEXEC);
    }

    // Signals arrive through a descriptor so that the event loop sees them.
    sigset_t orig_mask, handled;
    sigemptyset(&handled);
    for (int s : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaddset(&handled, s);
    sigprocmask(SIG_BLOCK, &handled, &orig_mask);
    int sig_fd = signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK);
    if (sig_fd < 0) fail_errno("signalfd");
    struct sigaction ign {
    }, orig_pipe{};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ign, &orig_pipe);

    // ---------------------------------------------------------- mounts
    populate_dev(pts_fd);
    mount_fresh_dirs(o, hostcfg, keeps);

    // ---------------------------------------------------------- flash
    int ready[2], cut[2], ack[2];
    make_pipe(ready);
    make_pipe(cut);
    make_pipe(ack);
    pid_t sandbox_pid = getpid();
    pid_t sim = fork();
    if (sim < 0) fail_errno("fork");
    if (sim == 0) {
        // Its own process group: a ^C on the terminal must not take the
        // flash away from the program under test.
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != sandbox_pid) _exit(1);
        sigprocmask(SIG_SETMASK, &orig_mask, nullptr);
        int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, STDIN_FILENO);
        dup2(simlog_fd, STDOUT_FILENO);
        dup2(simlog_fd, STDERR_FILENO);
        // Moved out of the way first so that the dup2s cannot clobber each other.
        int r = fcntl(ready[1], F_DUPFD, 10), c = fcntl(cut[1], F_DUPFD, 10),
            a = fcntl(ack[0], F_DUPFD, 10);
        dup2(r, 3);
        dup2(c, 4);
        dup2(a, 5);
        std::vector<std::string> args{"kiv-flashsim",
                                      "--images",
                                      rundir + "/flash",
                                      "--layout",
                                      rundir + "/layout",
                                      "--events",
                                      rundir + "/events",
                                      "--ready-fd",
                                      "3",
                                      "--powercut-fd",
                                      "4",
                                      "--powercut-ack-fd",
                                      "5"};
        for (const auto &f : o.faults) {
            args.emplace_back("--fault");
            args.push_back(f);
        }
        args.emplace_back(kStage);
        std::vector<char *> av;
        for (auto &arg : args)
            av.push_back(arg.data());
        av.push_back(nullptr);
        fexecve(flashsim_fd, av.data(), environ);
        std::fprintf(stderr, "kiv-flashsim: exec %s: %s\n", flashsim.c_str(), std::strerror(errno));
        _exit(1);
    }
    close(ready[1]);
    close(cut[1]);
    close(ack[0]);
    close(flashsim_fd);

    // While the simulator starts: the log socket.
    int log_sock = open_log_socket();

    {
        pollfd pfd{ready[0], POLLIN, 0};
        int pr;
        do
            pr = poll(&pfd, 1, kReadyTimeoutMs);
        while (pr < 0 && errno == EINTR);
        char c = 0;
        if (pr <= 0 || read(ready[0], &c, 1) != 1) {
            kill(sim, SIGKILL);
            waitpid(sim, nullptr, 0);
            fail("the flash simulator did not start; see " + rundir + "/flashsim.log");
        }
        close(ready[0]);
    }
    bind_flash(layout);

    // ---------------------------------------------------------- run
    int status_pipe[2], lifeline[2];
    make_pipe(status_pipe);
    make_pipe(lifeline);
    if (unshare(CLONE_NEWPID) != 0) fail_errno("unshare(CLONE_NEWPID)");
    pid_t init = fork();
    if (init < 0) fail_errno("fork");
    if (init == 0) {
        close(status_pipe[0]);
        close(lifeline[1]);
        close(log_sock);
        close(sig_fd);
        close(syslog_fd);
        close(simlog_fd);
        if (tty_master >= 0) close(tty_master);
        run_init(o, exe, cwd, cmdline_file, status_pipe[1], lifeline[0], cut[0], ack[1], tty_slave,
                 orig_mask, orig_pipe);
    }
    close(status_pipe[1]);
    close(lifeline[0]);
    close(cut[0]);
    close(ack[1]);
    close(simlog_fd);
    if (tty_slave >= 0) close(tty_slave);

    const std::int64_t deadline = now_ms() + static_cast<std::int64_t>(o.timeout * 1000.0);
    Status st;
    bool have_status = false, timed_out = false;
    int stop_signal = 0;
    for (;;) {
        pollfd pfd[4] = {{status_pipe[0], POLLIN, 0},
                         {log_sock, POLLIN, 0},
                         {sig_fd, POLLIN, 0},
                         {tty_master, POLLIN, 0}};
        std::int64_t left = deadline - now_ms();
        if (left <= 0) {
            timed_out = true;
            break;
        }
        int pr = poll(pfd, tty_master >= 0 ? 4 : 3,
                      static_cast<int>(std::min<std::int64_t>(left, 1 << 30)));
        if (pr < 0 && errno == EINTR) continue;
        if (pr < 0) fail_errno("poll");
        if (pfd[1].revents) drain_log(log_sock, syslog_fd);
        if (tty_master >= 0 && pfd[3].revents && !drain_tty(tty_master)) {
            close(tty_master);
            tty_master = -1;
        }
        if (pfd[2].revents) {
            signalfd_siginfo si{};
            if (read(sig_fd, &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
                stop_signal = static_cast<int>(si.ssi_signo);
                break;
            }
        }
        if (pfd[0].revents) {
            have_status = read_full(status_pipe[0], &st, sizeof st);
            break;
        }
    }
    if (!have_status) kill(init, SIGKILL); // takes every process of the namespace with it
    int ws = 0;
    while (waitpid(init, &ws, 0) < 0 && errno == EINTR) {
    }
    // Everything that could log has ended; whatever it sent is queued.
    drain_log(log_sock, syslog_fd);
    if (tty_master >= 0) drain_tty(tty_master);
    // Every flash request has been answered, so the images are complete.  The
    // mounts go away with this mount namespace.
    kill(sim, SIGKILL);
    while (waitpid(sim, nullptr, 0) < 0 && errno == EINTR) {
    }

    if (timed_out) {
        std::fprintf(stderr, "kiv-sandbox: timed out after %g s\n", o.timeout);
        return kExitTimeout;
    }
    if (stop_signal) return 128 + stop_signal;
    if (!have_status) {
        if (WIFEXITED(ws) && WEXITSTATUS(ws) == kExitFailure)
            return kExitFailure; // init explained on stderr
        std::fprintf(stderr, "kiv-sandbox: the sandbox's init process died\n");
        return kExitFailure;
    }
    if (st.powercut) return kExitPowercut;
    if (st.exec_errno) {
        std::fprintf(stderr, "kiv-sandbox: cannot run %s: %s\n", exe.c_str(),
                     std::strerror(st.exec_errno));
        return st.exec_errno == ENOENT ? kExitNotFound : kExitCannotRun;
    }
    if (WIFSIGNALED(st.wstatus)) return 128 + WTERMSIG(st.wstatus);
    return WEXITSTATUS(st.wstatus);
}
