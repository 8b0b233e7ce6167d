#include "support/sandbox.hpp"

#include "simconfig.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <ostream>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#ifndef KIV_BIN
#define KIV_BIN ""
#endif
#ifndef KIV_SANDBOX_BIN
#define KIV_SANDBOX_BIN ""
#endif
#ifndef KIV_FLASHSIM_BIN
#define KIV_FLASHSIM_BIN ""
#endif
#ifndef MKZUNF_BIN
#define MKZUNF_BIN ""
#endif
#ifndef KIV_SOURCE_DIR
#define KIV_SOURCE_DIR ""
#endif
#ifndef KIV_BINARY_DIR
#define KIV_BINARY_DIR ""
#endif

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

std::int64_t now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::uint64_t file_size(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
}

std::string read_from(const std::string &path, std::uint64_t offset) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return {};
    std::string out;
    char buf[65536];
    auto pos = static_cast<off_t>(offset);
    for (;;) {
        ssize_t n = pread(fd, buf, sizeof buf, pos);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<std::size_t>(n));
        pos += n;
    }
    close(fd);
    return out;
}

void write_whole(const std::string &path, std::string_view data) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) fail_errno(path);
    std::size_t done = 0;
    while (done < data.size()) {
        ssize_t w = write(fd, data.data() + done, data.size() - done);
        if (w < 0 && errno == EINTR) continue;
        if (w < 0) {
            int e = errno;
            close(fd);
            errno = e;
            fail_errno(path);
        }
        done += static_cast<std::size_t>(w);
    }
    close(fd);
}

std::vector<std::string> split_lines(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        std::size_t nl = text.find('\n');
        if (nl == std::string_view::npos) {
            lines.emplace_back(text);
            break;
        }
        lines.emplace_back(text.substr(0, nl));
        text.remove_prefix(nl + 1);
    }
    return lines;
}

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    remove(path);
    return 0;
}

void remove_tree(const std::string &path) {
    nftw(path.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string quote_bytes(const std::string &s) {
    std::string out;
    for (char c : s) {
        if (c == '\n')
            out += "\n    ";
        else
            out += c;
    }
    return out;
}

int status_code(int ws) {
    if (WIFEXITED(ws)) return WEXITSTATUS(ws);
    if (WIFSIGNALED(ws)) return 128 + WTERMSIG(ws);
    return -1;
}

} // namespace

// ------------------------------------------------------------------ paths

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

// ------------------------------------------------------------------ results

std::ostream &operator<<(std::ostream &os, const SyslogLine &line) {
    return os << line.facility << "." << line.severity << " [" << line.ident << "] \"" << line.text
              << "\"";
}

std::string ProcessResult::describe() const {
    std::ostringstream os;
    os << "exit " << exit << (timed_out ? " (timed out)" : "") << "\n  stdout:\n    "
       << quote_bytes(out) << "\n  stderr:\n    " << quote_bytes(err) << "\n";
    return os.str();
}

bool SandboxResult::logged(std::string_view needle) const {
    return std::any_of(syslog.begin(), syslog.end(), [&](const SyslogLine &l) {
        return l.text.find(needle) != std::string::npos;
    });
}

std::vector<std::string> SandboxResult::events_with(std::string_view prefix) const {
    std::vector<std::string> found;
    for (const auto &e : events)
        if (std::string_view(e).starts_with(prefix)) found.push_back(e);
    return found;
}

std::string SandboxResult::describe() const {
    std::ostringstream os;
    os << "exit " << exit << (timed_out ? " (timed out)" : "") << "\n  stdout:\n    "
       << quote_bytes(out) << "\n  stderr:\n    " << quote_bytes(err) << "\n  syslog:\n";
    for (const auto &l : syslog)
        os << "    " << l << "\n";
    os << "  events:\n";
    for (const auto &e : events)
        os << "    " << e << "\n";
    return os.str();
}

std::string unescape_syslog_text(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        char c = text[++i];
        out += c == 'n' ? '\n' : c == 't' ? '\t' : c;
    }
    return out;
}

std::vector<SyslogLine> parse_syslog(std::string_view text) {
    std::vector<SyslogLine> lines;
    for (const auto &raw : split_lines(text)) {
        SyslogLine l;
        std::size_t tab1 = raw.find('\t');
        std::size_t tab2 = tab1 == std::string::npos ? tab1 : raw.find('\t', tab1 + 1);
        if (tab2 == std::string::npos) continue;
        std::string pri = raw.substr(0, tab1);
        std::size_t dot = pri.find('.');
        if (dot == std::string::npos) continue;
        l.facility = std::atoi(pri.substr(0, dot).c_str());
        l.severity = std::atoi(pri.substr(dot + 1).c_str());
        l.ident = raw.substr(tab1 + 1, tab2 - tab1 - 1);
        l.text = unescape_syslog_text(std::string_view(raw).substr(tab2 + 1));
        lines.push_back(std::move(l));
    }
    return lines;
}

std::string read_text_file(const std::string &path) {
    std::string out, err;
    if (!kiv::sim::read_file(path, out, err)) fail(err);
    return out;
}

std::vector<std::uint8_t> bytes_of(std::string_view text) {
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

// ------------------------------------------------------------------ processes

ProcessResult run_process(const std::vector<std::string> &argv, std::chrono::milliseconds timeout) {
    ProcessOptions o;
    o.timeout = timeout;
    return run_process(argv, o);
}

ProcessResult run_process(const std::vector<std::string> &argv, const ProcessOptions &options) {
    if (argv.empty()) fail("run_process: empty argv");
    // A command that exits without reading its input must not kill the test.
    signal(SIGPIPE, SIG_IGN);

    int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
    int master = -1, slave = -1;
    if (!options.input.empty() && pipe2(in, O_CLOEXEC) != 0) fail_errno("pipe");
    if (pipe2(err, O_CLOEXEC) != 0) fail_errno("pipe");
    if (options.stdout_tty) {
        winsize ws{};
        ws.ws_row = 24;
        ws.ws_col = 80;
        if (openpty(&master, &slave, nullptr, nullptr, &ws) != 0) fail_errno("openpty");
        termios tio{};
        if (tcgetattr(slave, &tio) == 0) {
            tio.c_oflag &= ~static_cast<tcflag_t>(OPOST);
            tcsetattr(slave, TCSANOW, &tio);
        }
        fcntl(master, F_SETFD, FD_CLOEXEC);
        fcntl(slave, F_SETFD, FD_CLOEXEC);
    } else if (pipe2(out, O_CLOEXEC) != 0) {
        fail_errno("pipe");
    }

    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);

    pid_t pid = fork();
    if (pid < 0) fail_errno("fork");
    if (pid == 0) {
        if (options.stdout_tty) {
            // Like forkpty: a session of its own with the pty as its
            // controlling terminal.
            setsid();
            ioctl(slave, TIOCSCTTY, 0);
            dup2(slave, STDOUT_FILENO);
        } else {
            dup2(out[1], STDOUT_FILENO);
        }
        if (in[0] >= 0) {
            dup2(in[0], STDIN_FILENO);
        } else {
            int devnull = open("/dev/null", O_RDONLY);
            dup2(devnull, STDIN_FILENO);
        }
        dup2(err[1], STDERR_FILENO);
        for (const auto &e : options.env)
            putenv(const_cast<char *>(e.c_str()));
        if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(127);
        signal(SIGPIPE, SIG_DFL);
        execvp(args[0], args.data());
        std::string msg = "cannot run " + argv[0] + ": " + std::strerror(errno) + "\n";
        ssize_t w = write(STDERR_FILENO, msg.data(), msg.size());
        (void)w;
        _exit(127);
    }

    int out_fd = options.stdout_tty ? master : out[0];
    if (options.stdout_tty)
        close(slave);
    else
        close(out[1]);
    close(err[1]);
    if (in[0] >= 0) {
        close(in[0]);
        fcntl(in[1], F_SETFL, O_NONBLOCK);
    }
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));

    ProcessResult r;
    std::size_t input_done = 0;
    int in_fd = in[1];
    const std::int64_t deadline = now_ms() + options.timeout.count();
    bool exited = false;
    int ws = 0;
    char buf[65536];
    while (out_fd >= 0 || err[0] >= 0 || !exited) {
        pollfd pfd[4] = {{out_fd, POLLIN, 0},
                         {err[0], POLLIN, 0},
                         {in_fd, POLLOUT, 0},
                         {exited ? -1 : pidfd, POLLIN, 0}};
        std::int64_t left = deadline - now_ms();
        if (left <= 0) {
            kill(pid, SIGKILL);
            r.timed_out = true;
            break;
        }
        int pr = poll(pfd, 4, static_cast<int>(std::min<std::int64_t>(left, 1000)));
        if (pr < 0 && errno != EINTR) fail_errno("poll");
        if (pidfd < 0 && !exited && waitpid(pid, &ws, WNOHANG) == pid) exited = true;
        if (pr <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (!pfd[i].revents) continue;
            int &fd = i == 0 ? out_fd : err[0];
            ssize_t n = read(fd, buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) { // EOF, or EIO once a pty has no writer left
                close(fd);
                fd = -1;
                continue;
            }
            (i == 0 ? r.out : r.err).append(buf, static_cast<std::size_t>(n));
        }
        if (in_fd >= 0 && pfd[2].revents) {
            ssize_t n =
                write(in_fd, options.input.data() + input_done, options.input.size() - input_done);
            if (n > 0) input_done += static_cast<std::size_t>(n);
            if ((n < 0 && errno != EAGAIN && errno != EINTR) ||
                input_done == options.input.size()) {
                close(in_fd);
                in_fd = -1;
            }
        }
        if (!exited && pfd[3].revents && waitpid(pid, &ws, WNOHANG) == pid) exited = true;
    }
    if (!exited) {
        while (waitpid(pid, &ws, 0) < 0 && errno == EINTR) {
        }
    }
    for (int fd : {out_fd, err[0], in_fd, pidfd})
        if (fd >= 0) close(fd);
    r.exit = status_code(ws);
    return r;
}

// ------------------------------------------------------------------ Device

Device::Device(DeviceOptions options) : options_(std::move(options)) {
    const char *tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/kiv-dev-XXXXXX";
    if (!mkdtemp(tmpl.data())) fail_errno("mkdtemp " + tmpl);
    char real[PATH_MAX];
    base_ = realpath(tmpl.c_str(), real) ? real : tmpl;
    rundir_ = base_ + "/run";
    if (mkdir(rundir_.c_str(), 0755) != 0 || mkdir((base_ + "/files").c_str(), 0755) != 0)
        fail_errno("mkdir " + rundir_);

    kiv::sim::Layout layout;
    std::string err;
    std::string_view text = options_.layout.empty() ? kiv::sim::default_layout_text()
                                                    : std::string_view(options_.layout);
    if (!kiv::sim::parse_layout(text, layout, err)) fail("Device layout: " + err);
    if (!options_.layout.empty()) write_whole(base_ + "/layout", options_.layout);
    for (const auto &m : layout.mtds)
        geometry_.push_back({m.index, {m.size, m.erasesize}});
    // Images exist from the start so tests can preset flash before a run.
    if (!kiv::sim::ensure_images(rundir_ + "/flash", layout, err)) fail(err);
}

Device::~Device() {
    const char *keep = std::getenv("KIV_TEST_KEEP");
    if (keep && *keep && std::string_view(keep) != "0") return;
    remove_tree(base_);
}

std::string Device::image_path(int mtd) const {
    flash_size(mtd); // throws for an unknown device
    return rundir_ + "/flash/" + kiv::sim::image_name(mtd);
}

std::uint64_t Device::flash_size(int mtd) const {
    for (const auto &g : geometry_)
        if (g.first == mtd) return g.second.first;
    fail("mtd" + std::to_string(mtd) + " is not in this device's layout");
}

std::uint32_t Device::erase_size(int mtd) const {
    flash_size(mtd);
    for (const auto &g : geometry_)
        if (g.first == mtd) return g.second.second;
    return 0;
}

std::vector<std::uint8_t> Device::flash(int mtd) const {
    std::string data = read_text_file(image_path(mtd));
    return std::vector<std::uint8_t>(data.begin(), data.end());
}

void Device::set_flash(int mtd, std::span<const std::uint8_t> bytes, std::size_t offset) {
    std::string path = image_path(mtd);
    if (offset + bytes.size() > flash_size(mtd))
        fail("set_flash: " + std::to_string(bytes.size()) + " bytes at " + std::to_string(offset) +
             " do not fit in mtd" + std::to_string(mtd));
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) fail_errno(path);
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t w =
            pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) {
            close(fd);
            fail_errno(path);
        }
        done += static_cast<std::size_t>(w);
    }
    close(fd);
}

void Device::set_flash(int mtd, std::string_view bytes, std::size_t offset) {
    set_flash(mtd,
              std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t *>(bytes.data()),
                                            bytes.size()),
              offset);
}

void Device::erase_flash(int mtd) {
    std::vector<std::uint8_t> ff(flash_size(mtd), 0xFF);
    set_flash(mtd, ff);
}

std::string Device::scratch_path(std::string_view name) const {
    return base_ + "/files/" + std::string(name);
}

std::string Device::write_file(std::string_view name, std::string_view content) const {
    std::string path = scratch_path(name);
    write_whole(path, content);
    return path;
}

std::vector<SyslogLine> Device::all_syslog() const {
    return parse_syslog(read_from(rundir_ + "/syslog", 0));
}

std::vector<std::string> Device::all_events() const {
    return split_lines(read_from(rundir_ + "/events", 0));
}

SandboxResult Device::run_kiv(std::vector<std::string> args, RunOptions options) {
    if (kiv_bin().empty()) fail("the kiv target is not part of this build");
    args.insert(args.begin(), kiv_bin());
    return run(std::move(args), std::move(options));
}

SandboxResult Device::run(std::vector<std::string> argv, RunOptions options) {
    if (sandbox_bin().empty()) fail("kiv-sandbox is not part of this build (KIV_BUILD_TOOLS=OFF?)");
    if (argv.empty()) fail("Device::run: empty argv");
    std::vector<std::string> cmd{sandbox_bin(), "--dir", rundir_};
    if (!options_.layout.empty()) {
        cmd.emplace_back("--layout");
        cmd.push_back(base_ + "/layout");
    }
    const auto &cmdline = options.cmdline ? options.cmdline : options_.cmdline;
    if (cmdline) {
        cmd.emplace_back("--cmdline");
        cmd.push_back(*cmdline);
    }
    const auto &hostcfg =
        options.hostcfg_default ? options.hostcfg_default : options_.hostcfg_default;
    if (hostcfg) {
        std::string path = base_ + "/hostcfg.default";
        write_whole(path, *hostcfg);
        cmd.emplace_back("--hostcfg-default");
        cmd.push_back(path);
    }
    for (const auto *list : {&options_.faults, &options.faults}) {
        for (const auto &f : *list) {
            cmd.emplace_back("--fault");
            cmd.push_back(f);
        }
    }
    std::vector<std::string> keeps{base_};
    for (const auto &d : {source_dir(), binary_dir()})
        if (!d.empty()) keeps.push_back(d);
    keeps.insert(keeps.end(), options.keep.begin(), options.keep.end());
    for (const auto &k : keeps) {
        cmd.emplace_back("--keep");
        cmd.push_back(k);
    }
    cmd.emplace_back("--timeout");
    cmd.push_back(std::to_string(static_cast<double>(options.timeout.count()) / 1000.0));
    cmd.emplace_back("--");
    cmd.insert(cmd.end(), argv.begin(), argv.end());

    const std::string syslog_path = rundir_ + "/syslog", events_path = rundir_ + "/events";
    std::uint64_t syslog_start = file_size(syslog_path), events_start = file_size(events_path);

    ProcessOptions po;
    po.timeout = options.timeout + kGrace;
    po.input = std::move(options.input);
    po.env = std::move(options.env);
    po.stdout_tty = options.stdout_tty;
    po.cwd = std::move(options.cwd);
    ProcessResult p = run_process(cmd, po);

    SandboxResult r;
    r.exit = p.exit;
    r.out = std::move(p.out);
    r.err = std::move(p.err);
    r.timed_out = p.timed_out;
    r.syslog = parse_syslog(read_from(syslog_path, syslog_start));
    r.events = split_lines(read_from(events_path, events_start));
    return r;
}

} // namespace kiv::test
