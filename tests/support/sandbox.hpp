// Test support for end-to-end tests: runs programs on a simulated device
// (kiv-sandbox + kiv-flashsim), or plainly on the host, with bounded time.
//
//   kiv::test::Device dev;                       // fresh flash, default layout
//   auto r = dev.run_kiv({"help"});
//   EXPECT_EQ(r.exit, 0) << r.describe();
//   auto img = dev.flash(5);                     // what mtd5 holds now
//
// A Device's flash persists across its runs, so a second run "reboots" on what
// the first one left.  Its directory is removed with the Device (set
// KIV_TEST_KEEP=1 to keep it for inspection).
#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kiv::test {

// Paths of the built programs and of the source and build trees.
const std::string &kiv_bin();
const std::string &sandbox_bin();
const std::string &flashsim_bin();
const std::string &mkzunf_bin();
const std::string &source_dir();
const std::string &binary_dir();

// One message the command sent to /dev/log.
struct SyslogLine {
    int facility = 0; // LOG_USER is 1
    int severity = 0; // LOG_ERR is 3
    std::string ident;
    std::string text; // as sent: real newlines, tabs and backslashes

    bool operator==(const SyslogLine &) const = default;
};
std::ostream &operator<<(std::ostream &os, const SyslogLine &line);

struct ProcessResult {
    int exit = -1; // exit status, or 128+N when killed by signal N
    std::string out, err;
    bool timed_out = false; // killed by the helper's deadline

    std::string describe() const; // everything, for assertion messages
};

struct SandboxResult : ProcessResult { // exit: 137 after a power cut, 124 on timeout
    std::vector<SyslogLine> syslog;    // messages of this run only
    std::vector<std::string> events;   // flash event lines of this run only

    // True if some syslog message of this run contains needle.
    bool logged(std::string_view needle) const;
    // Event lines starting with prefix, e.g. events_with("erase mtd5").
    std::vector<std::string> events_with(std::string_view prefix) const;
    std::string describe() const;
};

// Runs argv[0] (searched in PATH) outside any sandbox, standard input /dev/null.
ProcessResult run_process(const std::vector<std::string> &argv,
                          std::chrono::milliseconds timeout = std::chrono::seconds(30));

struct DeviceOptions {
    std::string layout;                         // layout text; empty: the default layout
    std::optional<std::string> hostcfg_default; // content of /mnt/appl/hostcfg.default
};

struct RunOptions {
    std::vector<std::string> faults;          // --fault words of this run
    std::optional<std::string> cmdline;       // /proc/cmdline (without newline)
    std::vector<std::string> env;             // "NAME=VALUE" added to the environment
    std::vector<std::string> keep;            // more paths to keep reachable
    std::string cwd;                          // working directory; empty: unchanged
    std::chrono::milliseconds timeout{30000}; // the sandbox's --timeout
    bool stdout_tty = false; // standard output on a terminal; standard error stays a pipe
};

class Device {
  public:
    explicit Device(DeviceOptions options = {});
    ~Device();
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    // Runs argv in the sandbox.  argv[0] is searched in PATH.
    SandboxResult run(std::vector<std::string> argv, RunOptions options = {});
    // Runs the product: run({kiv_bin(), args...}).
    SandboxResult run_kiv(std::vector<std::string> args, RunOptions options = {});

    // Backing images, read and written directly (never while a run is active).
    std::vector<std::uint8_t> flash(int mtd) const;
    void set_flash(int mtd, std::span<const std::uint8_t> bytes, std::size_t offset = 0);
    void set_flash(int mtd, std::string_view bytes, std::size_t offset = 0);
    void erase_flash(int mtd); // all 0xFF

    // RUNDIR: flash images, "events" and "syslog" of all runs.
    const std::string &dir() const { return rundir_; }
    // A scratch file, reachable at the same path inside the sandbox.
    std::string write_file(std::string_view name, std::string_view content) const;
    std::string scratch_path(std::string_view name) const;

  private:
    std::string image_path(int mtd) const;

    DeviceOptions options_;
    std::string base_;   // temporary directory owning everything
    std::string rundir_; // base_/run
};

// Reads a whole file; throws when it cannot.
std::string read_text_file(const std::string &path);
std::vector<std::uint8_t> bytes_of(std::string_view text);

} // namespace kiv::test
