#include "support/sandbox.hpp"

#include "simconfig.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <stdexcept>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kiv::test {

namespace {

// How much longer than the sandbox's own timeout the helper waits before it
// kills the sandbox itself.
constexpr std::chrono::milliseconds kGrace{10000};

[[noreturn]] void fail(const std::string &msg) {
    throw std::runtime_error(msg);
}
[[noreturn]] void fail_errno(const std::string &what) {
    fail(what + ": " + std::strerror(errno));
}

// A file that may not exist yet reads as empty.
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

std::string indented(const std::string &s) {
    std::string out = "    ";
    for (char c : s)
        out += c == '\n' ? std::string("\n    ") : std::string(1, c);
    return out;
}

// Runs argv with stdin on /dev/null and collects stdout and stderr until the
// process has ended and both are closed, or until the deadline kills it.
ProcessResult spawn(const std::vector<std::string> &argv, const std::vector<std::string> &env,
                    const std::string &cwd, std::chrono::milliseconds timeout) {
    if (argv.empty()) fail("empty argv");
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) fail_errno("pipe");
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);

    pid_t pid = fork();
    if (pid < 0) fail_errno("fork");
    if (pid == 0) {
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        for (const auto &e : env)
            putenv(const_cast<char *>(e.c_str()));
        if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(127);
        execvp(args[0], args.data());
        dprintf(STDERR_FILENO, "cannot run %s: %s\n", args[0], std::strerror(errno));
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));

    ProcessResult r;
    int fds[2] = {out[0], err[0]};
    std::string *sinks[2] = {&r.out, &r.err};
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool exited = false;
    while (fds[0] >= 0 || fds[1] >= 0 || !exited) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) {
            kill(pid, SIGKILL);
            r.timed_out = true;
            break;
        }
        pollfd pfd[3] = {
            {fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}, {exited ? -1 : pidfd, POLLIN, 0}};
        if (poll(pfd, 3, static_cast<int>(left)) < 0 && errno != EINTR) fail_errno("poll");
        for (int i = 0; i < 2; ++i) {
            if (!pfd[i].revents) continue;
            char buf[65536];
            ssize_t n = read(fds[i], buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i]);
                fds[i] = -1;
            }
        }
        exited = exited || pfd[2].revents != 0;
    }
    int ws = 0;
    while (waitpid(pid, &ws, 0) < 0 && errno == EINTR) {
    }
    for (int fd : {fds[0], fds[1], pidfd})
        if (fd >= 0) close(fd);
    r.exit = WIFEXITED(ws) ? WEXITSTATUS(ws) : WIFSIGNALED(ws) ? 128 + WTERMSIG(ws) : -1;
    return r;
}

} // namespace

const std::string &kiv_bin() {
    static const std::string p = KIV_BIN;
    return p;
}
const std::string &sandbox_bin() {
    static const std::string p = KIV_SANDBOX_BIN;
    return p;
}
const std::string &flashsim_bin() {
    static const std::string p = KIV_FLASHSIM_BIN;
    return p;
}
const std::string &mkzunf_bin() {
    static const std::string p = MKZUNF_BIN;
    return p;
}
const std::string &source_dir() {
    static const std::string p = KIV_SOURCE_DIR;
    return p;
}
const std::string &binary_dir() {
    static const std::string p = KIV_BINARY_DIR;
    return p;
}

std::ostream &operator<<(std::ostream &os, const SyslogLine &line) {
    return os << line.facility << "." << line.severity << " [" << line.ident << "] \"" << line.text
              << "\"";
}

std::string ProcessResult::describe() const {
    return "exit " + std::to_string(exit) + (timed_out ? " (timed out)" : "") + "\n  stdout:\n" +
           indented(out) + "\n  stderr:\n" + indented(err) + "\n";
}

bool SandboxResult::logged(std::string_view needle) const {
    return std::any_of(syslog.begin(), syslog.end(), [&](const SyslogLine &l) {
        return l.text.find(needle) != std::string::npos;
    });
}

std::vector<std::string> SandboxResult::events_with(std::string_view prefix) const {
    std::vector<std::string> found;
    std::copy_if(events.begin(), events.end(), std::back_inserter(found),
                 [&](const std::string &e) { return e.starts_with(prefix); });
    return found;
}

std::string SandboxResult::describe() const {
    std::ostringstream os;
    os << ProcessResult::describe() << "  syslog:\n";
    for (const auto &l : syslog)
        os << "    " << l << "\n";
    os << "  events:\n";
    for (const auto &e : events)
        os << "    " << e << "\n";
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

ProcessResult run_process(const std::vector<std::string> &argv, std::chrono::milliseconds timeout) {
    return spawn(argv, {}, {}, timeout);
}

Device::Device(DeviceOptions options) : options_(std::move(options)) {
    const char *tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/kiv-dev-XXXXXX";
    if (!mkdtemp(tmpl.data())) fail_errno("mkdtemp " + tmpl);
    // The sandbox keeps this directory reachable by its real path.
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
    // Images exist from the start so tests can preset flash before a run.
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
    std::vector<std::string> cmd{sandbox_bin(), "--dir", rundir_};
    auto option = [&](const char *name, const std::string &value) {
        cmd.emplace_back(name);
        cmd.push_back(value);
    };
    if (!options_.layout.empty()) option("--layout", base_ + "/layout");
    if (options_.hostcfg_default) option("--hostcfg-default", base_ + "/hostcfg.default");
    if (options.cmdline) option("--cmdline", *options.cmdline);
    for (const auto &f : options.faults)
        option("--fault", f);
    for (const auto &k : {base_, source_dir(), binary_dir()})
        option("--keep", k);
    for (const auto &k : options.keep)
        option("--keep", k);
    option("--timeout", std::to_string(static_cast<double>(options.timeout.count()) / 1000.0));
    if (options.stdout_tty) cmd.emplace_back("--tty");
    cmd.emplace_back("--");
    cmd.insert(cmd.end(), argv.begin(), argv.end());

    // The run's own syslog messages and events are what it appends.
    const std::string syslog_path = rundir_ + "/syslog", events_path = rundir_ + "/events";
    const std::size_t syslog_start = read_if_any(syslog_path).size();
    const std::size_t events_start = read_if_any(events_path).size();
    SandboxResult r;
    static_cast<ProcessResult &>(r) =
        spawn(cmd, options.env, options.cwd, options.timeout + kGrace);
    r.syslog = parse_syslog(read_if_any(syslog_path).substr(syslog_start));
    r.events = split_lines(read_if_any(events_path).substr(events_start));
    return r;
}

} // namespace kiv::test
