// kiv-sandbox internals: what the parts of the sandbox share.
//
//   sandbox.cpp          options, RUNDIR, starting the simulator and init, the
//                        event loop (log, tty relay, signals, timeout), exit status
//   sandbox_mounts.cpp   the mount namespace: kept paths, /dev and its nodes,
//                        fresh /tmp and /mnt, the flash at /dev/mtdN
//   sandbox_init.cpp     pid 1 of the new pid namespace
//   sandbox_syslog.cpp   the /dev/log socket and the RUNDIR/syslog lines
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kiv::sim {
struct Layout;
}

namespace kiv::sandbox {

inline constexpr int kExitFailure = 125;   // the sandbox itself failed
inline constexpr int kExitCannotRun = 126; // COMMAND found but not executable
inline constexpr int kExitNotFound = 127;  // COMMAND not found
inline constexpr int kExitTimeout = 124;
inline constexpr int kExitPowercut = 128 + SIGKILL;
// Where kiv-flashsim is mounted until its files are bound at /dev/mtdN.
inline constexpr const char *kStage = "/dev/.flashsim";

struct Options {
    std::string dir;
    std::string layout_file;
    std::string cmdline;
    bool have_cmdline = false;
    std::string hostcfg_default;
    std::vector<std::string> faults;
    std::vector<std::string> keeps;
    double timeout = 30.0;
    bool tty = false;
    std::string flashsim;
    std::vector<std::string> command;
};

// What init reports about the run.
struct Status {
    std::int32_t wstatus = 0;
    std::int32_t powercut = 0;
    std::int32_t exec_errno = 0;
};

// A path kept reachable under a replaced directory: opened before the
// replacement, bound back at the same path after it.
struct KeepMount {
    std::string target;
    int fd = -1;
    bool is_dir = true;
};

// ------------------------------------------------------------------ sandbox.cpp

[[noreturn]] void fail(const std::string &msg);
[[noreturn]] void fail_errno(const std::string &what);
std::string dirname_of(const std::string &path);
std::string absolute(const std::string &path);
std::string real(const std::string &path);
void write_file(const std::string &path, const std::string &data, mode_t mode);
void mkdir_p(const std::string &path, mode_t mode = 0755);
void write_all(int fd, const char *p, std::size_t n);

// ------------------------------------------------------------------ sandbox_mounts.cpp

// Our own mount namespace, from which nothing propagates to the host.
void enter_mount_namespace();
// Opens the paths under /tmp and /mnt that must stay reachable: COMMAND's
// directory, RUNDIR, the working directory and every --keep.
std::vector<KeepMount> open_kept_paths(const Options &o, const std::string &exe,
                                       const std::string &rundir, const std::string &cwd);
// Opens the host's device nodes, for when nodes cannot be made.
void open_host_nodes();
// A fresh /dev with the usual nodes, the host's /dev/pts and the staging
// directory of the simulator.
void populate_dev(int pts_fd);
// Fresh /tmp, /mnt and /mnt/appl, with the kept paths bound back.
void mount_fresh_dirs(const Options &o, const std::string &hostcfg,
                      const std::vector<KeepMount> &keeps);
// Binds the simulator's files at /dev/mtdN and drops the staging mount.
void bind_flash(const kiv::sim::Layout &layout);

// ------------------------------------------------------------------ sandbox_init.cpp

// pid 1 of the new pid namespace.  Never returns.
[[noreturn]] void run_init(const Options &o, const std::string &exe, const std::string &cwd,
                           const std::string &cmdline_file, int status_w, int lifeline_r, int cut_r,
                           int ack_w, int tty_slave, const sigset_t &orig_mask,
                           const struct sigaction &orig_pipe);

// ------------------------------------------------------------------ sandbox_syslog.cpp

// The /dev/log socket, bound and open to everyone.
int open_log_socket();
// Copies every queued message of SOCK to OUT_FD.
void drain_log(int sock, int out_fd);

} // namespace kiv::sandbox
