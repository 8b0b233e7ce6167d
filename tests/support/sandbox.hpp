// Test support for end-to-end tests: runs programs on a simulated device
// (kiv-sandbox + kiv-flashsim) or plainly on the host, with bounded time.
//
//   kiv::test::Device dev;                       // fresh flash, default layout
//   auto r = dev.run({kiv::test::kiv_bin(), "--help"});
//   EXPECT_EQ(r.exit, 0) << r.describe();
//   EXPECT_TRUE(r.logged("Unknown action"));
//   auto img = dev.flash(5);                     // what mtd5 holds now
//
// A Device's run directory persists across its runs, so a second run
// "reboots" on the flash the first one left.  It is removed when the Device
// is destroyed (set KIV_TEST_KEEP=1 to keep it for inspection).
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

// Paths of the built programs ("" when the target is not part of the build).
const std::string &kiv_bin();      // the product, target kiv
const std::string &sandbox_bin();  // kiv-sandbox
const std::string &flashsim_bin(); // kiv-flashsim
const std::string &mkzunf_bin();   // tools/mkzunf
const std::string &source_dir();   // top of the source tree
const std::string &binary_dir();   // top of the build tree

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

struct SandboxResult {
    int exit = -1; // COMMAND's status; 137 after a power cut, 124 on timeout
    std::string out, err;
    std::vector<SyslogLine> syslog;  // messages of this run only
    std::vector<std::string> events; // flash event lines of this run only
    bool timed_out = false;          // the helper had to kill the sandbox

    // True if some syslog message of this run contains needle.
    bool logged(std::string_view needle) const;
    // Event lines starting with prefix, e.g. events_with("erase mtd5").
    std::vector<std::string> events_with(std::string_view prefix) const;
    std::string describe() const;
};

struct ProcessOptions {
    std::chrono::milliseconds timeout{30000};
    std::string input;            // standard input; empty: /dev/null
    std::vector<std::string> env; // "NAME=VALUE" added to the environment
    std::string cwd;              // working directory; empty: unchanged
    // Standard output on a pseudo terminal (80x24, no "\n" -> "\r\n"
    // translation); standard error stays a pipe.
    bool stdout_tty = false;
};

// Runs argv[0] (searched in PATH) outside any sandbox.
ProcessResult run_process(const std::vector<std::string> &argv,
                          std::chrono::milliseconds timeout = std::chrono::seconds(30));
ProcessResult run_process(const std::vector<std::string> &argv, const ProcessOptions &options);

struct DeviceOptions {
    std::string layout;                         // layout text; empty: the default layout
    std::optional<std::string> cmdline;         // /proc/cmdline (without newline)
    std::optional<std::string> hostcfg_default; // content of /mnt/appl/hostcfg.default
    std::vector<std::string> faults;            // fault specs for every run
};

struct RunOptions {
    std::vector<std::string> faults;            // in addition to DeviceOptions::faults
    std::optional<std::string> cmdline;         // overrides DeviceOptions::cmdline
    std::optional<std::string> hostcfg_default; // overrides DeviceOptions::hostcfg_default
    std::string input;                          // standard input of the command
    std::vector<std::string> env;               // "NAME=VALUE" added to its environment
    std::vector<std::string> keep;              // more paths to keep reachable
    std::string cwd;                            // working directory; empty: unchanged
    std::chrono::milliseconds timeout{30000};   // the sandbox's --timeout
    bool stdout_tty = false;                    // as in ProcessOptions
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
    std::uint64_t flash_size(int mtd) const;
    std::uint32_t erase_size(int mtd) const;
    std::string image_path(int mtd) const;

    const std::string &dir() const { return rundir_; } // RUNDIR
    // A scratch file next to RUNDIR, reachable at the same path inside the
    // sandbox; returns its path.
    std::string write_file(std::string_view name, std::string_view content) const;
    std::string scratch_path(std::string_view name) const;

    // Everything logged over all runs so far.
    std::vector<SyslogLine> all_syslog() const;
    std::vector<std::string> all_events() const;

    DeviceOptions &options() { return options_; }

  private:
    DeviceOptions options_;
    std::string base_;   // temporary directory owning everything
    std::string rundir_; // base_/run
    std::vector<std::pair<int, std::pair<std::uint64_t, std::uint32_t>>> geometry_;
};

// Parses RUNDIR/syslog text ("F.S<TAB>IDENT<TAB>TEXT" lines).
std::vector<SyslogLine> parse_syslog(std::string_view text);
std::string unescape_syslog_text(std::string_view text);

// Small helpers for tests.
std::string read_text_file(const std::string &path);
std::vector<std::uint8_t> bytes_of(std::string_view text);

} // namespace kiv::test
