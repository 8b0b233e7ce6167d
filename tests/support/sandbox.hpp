// kiv and other programs on a simulated device (kiv-sandbox + kiv-flashsim), bounded in
// time. A Device's flash persists across its runs, so a second run "reboots" on what the
// first left; its directory goes with it (KIV_TEST_KEEP=1 keeps it for inspection).
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

const std::string &kiv_bin();
const std::string &source_dir();

struct SyslogLine {
    int facility = 0; // LOG_USER is 1
    int severity = 0; // LOG_ERR is 3
    std::string ident;
    std::string text; // as sent: real newlines, tabs and backslashes

    bool operator==(const SyslogLine &) const = default;
};
std::ostream &operator<<(std::ostream &os, const SyslogLine &line);

struct SandboxResult {
    int exit = -1; // 128+N when killed by signal N: 137 after a power cut; 124 on timeout
    std::string out, err;
    bool timed_out = false;          // ran into the helper's deadline
    std::vector<SyslogLine> syslog;  // messages of this run only
    std::vector<std::string> events; // flash event lines of this run only

    std::string describe() const; // everything, for assertion messages
};

struct DeviceOptions {
    std::string layout;                         // layout text; empty: the default layout
    std::optional<std::string> hostcfg_default; // content of /mnt/appl/hostcfg.default
};

struct RunOptions {
    std::vector<std::string> faults;          // --fault words of this run
    std::optional<std::string> cmdline;       // /proc/cmdline (without newline)
    std::vector<std::string> env;             // "NAME=VALUE" added to the environment
    std::vector<std::string> keep;            // more paths to keep reachable
    std::chrono::milliseconds timeout{30000}; // the sandbox's --timeout
    bool stdout_tty = false; // standard output on a terminal; standard error stays a pipe
};

class Device {
  public:
    explicit Device(DeviceOptions options = {});
    ~Device();
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    SandboxResult run(std::vector<std::string> argv, RunOptions options = {});
    SandboxResult run_kiv(std::vector<std::string> args, RunOptions options = {});

    std::vector<std::uint8_t> flash(int mtd) const;
    void set_flash(int mtd, std::span<const std::uint8_t> bytes, std::size_t offset = 0);
    void set_flash(int mtd, std::string_view bytes, std::size_t offset = 0);
    void erase_flash(int mtd); // all 0xFF

    const std::string &dir() const { return rundir_; }
    std::string write_file(std::string_view name, std::string_view content) const;
    std::string scratch_path(std::string_view name) const;

  private:
    std::string image_path(int mtd) const;

    DeviceOptions options_;
    std::string base_;   // temporary directory owning everything
    std::string rundir_; // base_/run
};

std::string read_text_file(const std::string &path);
std::vector<std::uint8_t> bytes_of(std::string_view text);

} // namespace kiv::test
