#include "support/sandbox.hpp"

#include "simconfig.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <signal.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace kiv::test {

namespace {

// How much longer than the sandbox's own timeout the helper waits before killing it.
constexpr std::chrono::milliseconds kGrace{10000};

[[noreturn]] void fail(const std::string &msg) {
    throw std::runtime_error(msg);
}
[[noreturn]] void fail_errno(const std::string &what) {
    fail(what + ": " + std::strerror(errno));
}

std::string read_if_any(const std::string &path) {
    std::string out, err;
    return kiv::sim::read_file(path, out, err) ? out : std::string();
}

void write_whole(const std::string &path, std::string_view data) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(data.data(), static_cast<std::streamsize>(data.size()));
    f.close();
    if (!f) fail("cannot write " + path);
}

std::vector<std::string> split_lines(std::string_view text) {
    std::vector<std::string> lines;
    for (std::size_t nl; !text.empty(); text.remove_prefix(std::min(nl + 1, text.size()))) {
        nl = text.find('\n');
        lines.emplace_back(text.substr(0, nl));
    }
    return lines;
}

// Lines "F.S<TAB>IDENT<TAB>TEXT", TEXT with \n, \t and \\ escaped.
std::vector<SyslogLine> parse_syslog(std::string_view text) {
    std::vector<SyslogLine> lines;
    for (const auto &raw : split_lines(text)) {
        SyslogLine l;
        std::size_t tab1 = raw.find('\t'), tab2 = raw.find('\t', tab1 + 1);
        if (tab2 == std::string::npos ||
            std::sscanf(raw.c_str(), "%d.%d", &l.facility, &l.severity) != 2)
            continue;
        l.ident = raw.substr(tab1 + 1, tab2 - tab1 - 1);
        for (std::size_t i = tab2 + 1; i < raw.size(); ++i) {
            char c = raw[i];
            if (c == '\\' && i + 1 < raw.size()) {
                c = raw[++i];
                c = c == 'n' ? '\n' : c == 't' ? '\t' : c;
            }
            l.text += c;
        }
        lines.push_back(std::move(l));
    }
    return lines;
}

// Runs argv, stdout and stderr into files of `dir`; timeout(1) backs the sandbox's limit.
SandboxResult spawn(std::vector<std::string> argv, const std::vector<std::string> &env,
                    const std::string &dir, std::chrono::milliseconds limit) {
    argv.insert(argv.begin(), {"timeout", "-s", "KILL", std::to_string(limit.count() / 1000 + 1)});
    const std::string out = dir + "/stdout", err = dir + "/stderr";
    pid_t pid = fork();
    if (pid < 0) fail_errno("fork");
    if (pid == 0) {
        std::vector<char *> args;
        for (auto &a : argv)
            args.push_back(a.data());
        args.push_back(nullptr);
        if (!freopen("/dev/null", "r", stdin) || !freopen(out.c_str(), "w", stdout) ||
            !freopen(err.c_str(), "w", stderr))
            _exit(127);
        for (const auto &e : env)
            putenv(const_cast<char *>(e.c_str()));
        execvp(args[0], args.data());
        _exit(127);
    }
    const auto start = std::chrono::steady_clock::now();
    int ws = 0;
    while (waitpid(pid, &ws, 0) < 0)
        if (errno != EINTR) fail_errno("waitpid");
    SandboxResult r;
    r.exit = WIFEXITED(ws) ? WEXITSTATUS(ws) : WIFSIGNALED(ws) ? 128 + WTERMSIG(ws) : -1;
    r.timed_out = std::chrono::steady_clock::now() - start >= limit;
    r.out = read_if_any(out);
    r.err = read_if_any(err);
    return r;
}

} // namespace

const std::string &kiv_bin() {
    static const std::string p = KIV_BIN;
    return p;
}
const std::string &source_dir() {
    static const std::string p = KIV_SOURCE_DIR;
    return p;
}

std::ostream &operator<<(std::ostream &os, const SyslogLine &line) {
    return os << line.facility << "." << line.severity << " [" << line.ident << "] \"" << line.text
              << "\"";
}

std::string SandboxResult::describe() const {
    std::ostringstream os;
    os << "exit " << exit << (timed_out ? " (timed out)" : "") << "\n--- stdout\n"
       << out << "\n--- stderr\n"
       << err << "\n--- syslog\n";
    for (const auto &l : syslog)
        os << l << "\n";
    os << "--- events\n";
    for (const auto &e : events)
        os << e << "\n";
    return os.str();
}

std::string read_text_file(const std::string &path) {
    std::string out, err;
    if (!kiv::sim::read_file(path, out, err)) fail(err);
    return out;
}

std::vector<std::uint8_t> bytes_of(std::string_view text) {
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

Device::Device(DeviceOptions options) : options_(std::move(options)) {
    const char *tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/kiv-dev-XXXXXX";
    if (!mkdtemp(tmpl.data())) fail_errno("mkdtemp " + tmpl);
    base_ = std::filesystem::canonical(tmpl);
    rundir_ = base_ + "/run";
    std::filesystem::create_directories(rundir_);
    std::filesystem::create_directories(base_ + "/files");

    kiv::sim::Layout layout;
    std::string err;
    std::string_view text = options_.layout.empty() ? kiv::sim::default_layout_text()
                                                    : std::string_view(options_.layout);
    if (!kiv::sim::parse_layout(text, layout, err)) fail("Device layout: " + err);
    if (!options_.layout.empty()) write_whole(base_ + "/layout", options_.layout);
    if (options_.hostcfg_default)
        write_whole(base_ + "/hostcfg.default", *options_.hostcfg_default);
    if (!kiv::sim::ensure_images(rundir_ + "/flash", layout, err)) fail(err);
}

Device::~Device() {
    const char *keep = std::getenv("KIV_TEST_KEEP");
    if (keep && *keep && std::string_view(keep) != "0") return;
    std::error_code ec;
    std::filesystem::remove_all(base_, ec);
}

std::string Device::image_path(int mtd) const {
    std::string path = rundir_ + "/flash/" + kiv::sim::image_name(mtd);
    if (access(path.c_str(), F_OK) != 0)
        fail("mtd" + std::to_string(mtd) + " is not in this device's layout");
    return path;
}

std::vector<std::uint8_t> Device::flash(int mtd) const {
    return bytes_of(read_text_file(image_path(mtd)));
}

void Device::set_flash(int mtd, std::span<const std::uint8_t> bytes, std::size_t offset) {
    std::string path = image_path(mtd);
    // Writing past the end would grow the device instead of failing the test.
    if (offset + bytes.size() > std::filesystem::file_size(path))
        fail("set_flash: " + std::to_string(bytes.size()) + " bytes at " + std::to_string(offset) +
             " do not fit in mtd" + std::to_string(mtd));
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(static_cast<std::streamoff>(offset));
    f.write(reinterpret_cast<const char *>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
    f.close();
    if (!f) fail("cannot write " + path);
}

void Device::set_flash(int mtd, std::string_view bytes, std::size_t offset) {
    set_flash(mtd, bytes_of(bytes), offset);
}

void Device::erase_flash(int mtd) {
    set_flash(mtd, std::vector<std::uint8_t>(std::filesystem::file_size(image_path(mtd)), 0xFF));
}

std::string Device::scratch_path(std::string_view name) const {
    return base_ + "/files/" + std::string(name);
}

std::string Device::write_file(std::string_view name, std::string_view content) const {
    std::string path = scratch_path(name);
    write_whole(path, content);
    return path;
}

SandboxResult Device::run_kiv(std::vector<std::string> args, RunOptions options) {
    args.insert(args.begin(), kiv_bin());
    return run(std::move(args), std::move(options));
}

SandboxResult Device::run(std::vector<std::string> argv, RunOptions options) {
    std::vector<std::string> cmd{KIV_SANDBOX_BIN, "--dir", rundir_};
    auto option = [&](const char *name, const std::string &value) {
        cmd.emplace_back(name);
        cmd.push_back(value);
    };
    if (!options_.layout.empty()) option("--layout", base_ + "/layout");
    if (options_.hostcfg_default) option("--hostcfg-default", base_ + "/hostcfg.default");
    if (options.cmdline) option("--cmdline", *options.cmdline);
    for (const auto &f : options.faults)
        option("--fault", f);
    for (const auto &k : {base_, source_dir(), std::string(KIV_BINARY_DIR)})
        option("--keep", k);
    for (const auto &k : options.keep)
        option("--keep", k);
    option("--timeout", std::to_string(static_cast<double>(options.timeout.count()) / 1000.0));
    if (options.stdout_tty) cmd.emplace_back("--tty");
    cmd.emplace_back("--");
    cmd.insert(cmd.end(), argv.begin(), argv.end());

    const std::string syslog_path = rundir_ + "/syslog", events_path = rundir_ + "/events";
    const std::size_t syslog_start = read_if_any(syslog_path).size();
    const std::size_t events_start = read_if_any(events_path).size();
    SandboxResult r = spawn(cmd, options.env, base_, options.timeout + kGrace);
    r.syslog = parse_syslog(read_if_any(syslog_path).substr(syslog_start));
    r.events = split_lines(read_if_any(events_path).substr(events_start));
    return r;
}

} // namespace kiv::test
