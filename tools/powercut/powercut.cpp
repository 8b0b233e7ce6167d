// kiv-powercut: proves that a command survives a power cut at every flash operation.
//
// The command (the scenario) runs on a copy of a simulated device's state (a kiv-sandbox
// run directory). A first run without faults counts its flash operations. Then, for each
// chosen operation i, the state is restored, the scenario runs again with the power lost
// right after operation i, and the check command runs on the flash that cut left behind,
// as the device's next boot would. The check decides: exit 0 is a pass, the status given
// with --expected marks a loss the design accepts, anything else is a failure.
//
// The starting state is never modified. Each cut point starts from it again: the devices
// a run erased or wrote (from its event log) are copied back, the others are left alone.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <set>
#include <string>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kExitFailed = 1; // a cut point failed, or the uncut run wrote unerased flash
constexpr int kExitUsage = 2;  // bad usage, or the sweep itself could not run
constexpr int kPowercutStatus = 128 + 9;

struct Options {
    std::string dir;
    std::string work;
    std::string check;
    std::string sandbox;
    std::vector<std::string> sandbox_args; // passed to every sandbox run
    long from = 1;
    long to = LONG_MAX;
    long every = 1;
    int expected = -1;
    bool verbose = false;
    std::vector<std::string> scenario;
};

[[noreturn]] void die(const std::string &msg) {
    std::fprintf(stderr, "kiv-powercut: %s\n", msg.c_str());
    std::exit(kExitUsage);
}

[[noreturn]] void die_errno(const std::string &what) {
    die(what + ": " + std::strerror(errno));
}

[[noreturn]] void usage(int status) {
    std::fprintf(
        status ? stderr : stdout,
        "usage: kiv-powercut --dir RUNDIR --check COMMAND [--from N] [--to N] [--every K]\n"
        "                    [--expected STATUS] [--work DIR] [--verbose] [--sandbox PATH]\n"
        "                    [--layout FILE] [--cmdline TEXT] [--hostcfg-default FILE]\n"
        "                    [--keep PATH]... [--timeout SECONDS] -- SCENARIO [ARGS...]\n"
        "\n"
        "Runs SCENARIO on a copy of the simulated device in RUNDIR, cuts the power after\n"
        "each of its flash operations in turn and runs COMMAND (with /bin/sh -c) on what\n"
        "each cut left. Prints one line per failing cut point and a summary\n"
        "\"N cut points, F failed\". Exit status: 0 all passed, 1 a cut point failed,\n"
        "2 usage error or the sweep could not run.\n");
    std::exit(status ? kExitUsage : 0);
}

long number(const char *text, const char *what, long min) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno || end == text || *end || v < min) die(std::string("bad ") + what + ": " + text);
    return v;
}

std::string dirname_of(const std::string &path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string find_sandbox(const Options &o) {
    if (!o.sandbox.empty()) return o.sandbox;
    if (const char *env = std::getenv("KIV_SANDBOX"); env && *env) return env;
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        self[n] = 0;
        std::string dir = dirname_of(self);
        for (const char *rel : {"/kiv-sandbox", "/../sandbox/kiv-sandbox"}) {
            std::string cand = dir + rel;
            if (access(cand.c_str(), X_OK) == 0) return cand;
        }
    }
    return "kiv-sandbox"; // from PATH
}

Options parse_args(int argc, char **argv) {
    Options o;
    enum { OptDir = 256, OptWork, OptCheck, OptFrom, OptTo, OptEvery, OptExpected, OptSandbox };
    enum { OptLayout = 300, OptCmdline, OptHostcfg, OptKeep, OptTimeout };
    static const option opts[] = {
        {"dir", required_argument, nullptr, OptDir},
        {"work", required_argument, nullptr, OptWork},
        {"check", required_argument, nullptr, OptCheck},
        {"from", required_argument, nullptr, OptFrom},
        {"to", required_argument, nullptr, OptTo},
        {"every", required_argument, nullptr, OptEvery},
        {"expected", required_argument, nullptr, OptExpected},
        {"sandbox", required_argument, nullptr, OptSandbox},
        {"verbose", no_argument, nullptr, 'v'},
        {"layout", required_argument, nullptr, OptLayout},
        {"cmdline", required_argument, nullptr, OptCmdline},
        {"hostcfg-default", required_argument, nullptr, OptHostcfg},
        {"keep", required_argument, nullptr, OptKeep},
        {"timeout", required_argument, nullptr, OptTimeout},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (;;) {
        int index = 0;
        int c = getopt_long(argc, argv, "+hv", opts, &index);
        if (c == -1) break;
        switch (c) {
        case OptDir:
            o.dir = optarg;
            break;
        case OptWork:
            o.work = optarg;
            break;
        case OptCheck:
            o.check = optarg;
            break;
        case OptFrom:
            o.from = number(optarg, "--from", 1);
            break;
        case OptTo:
            o.to = number(optarg, "--to", 1);
            break;
        case OptEvery:
            o.every = number(optarg, "--every", 1);
            break;
        case OptExpected:
            o.expected = static_cast<int>(number(optarg, "--expected", 1));
            break;
        case OptSandbox:
            o.sandbox = optarg;
            break;
        case 'v':
            o.verbose = true;
            break;
        case OptLayout:
        case OptCmdline:
        case OptHostcfg:
        case OptKeep:
        case OptTimeout:
            o.sandbox_args.push_back(std::string("--") + opts[index].name);
            o.sandbox_args.push_back(optarg);
            break;
        case 'h':
            usage(0);
        default:
            usage(1);
        }
    }
    for (int i = optind; i < argc; ++i)
        o.scenario.push_back(argv[i]);
    if (o.dir.empty() || o.check.empty() || o.scenario.empty()) usage(1);
    if (o.expected > 255) die("bad --expected: must be an exit status from 1 to 255");
    if (o.work.empty()) o.work = o.dir + ".sweep";
    o.sandbox = find_sandbox(o);
    return o;
}

// ------------------------------------------------------------------ the device state

void copy_file(const std::string &from, const std::string &to) {
    int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) die_errno("cannot read " + from);
    struct stat st {};
    if (fstat(in, &st) != 0) die_errno("cannot stat " + from);
    int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) die_errno("cannot write " + to);
    off_t done = 0;
    while (done < st.st_size) {
        ssize_t n = sendfile(out, in, &done, static_cast<std::size_t>(st.st_size - done));
        if (n <= 0) die_errno("cannot copy " + from);
    }
    if (close(out) != 0) die_errno("cannot write " + to);
    close(in);
}

void make_dir(const std::string &path) {
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) die_errno("cannot create " + path);
}

std::vector<std::string> images_in(const std::string &flash_dir) {
    std::vector<std::string> names;
    DIR *d = opendir(flash_dir.c_str());
    if (!d) return names; // a device never run: the sandbox starts it erased
    while (dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".img") == 0) names.push_back(name);
    }
    closedir(d);
    return names;
}

// The scratch device a run works on: a copy of the starting state's flash images.
struct Scratch {
    std::string origin; // RUNDIR/flash
    std::string run;    // WORK/run: the run directory of every sandbox run
    std::set<std::string> present;

    void reset(const std::set<std::string> &dirty) {
        const std::string flash = run + "/flash";
        for (const std::string &dev : dirty) {
            const std::string name = dev + ".img";
            if (present.count(name))
                copy_file(origin + "/" + name, flash + "/" + name);
            else
                unlink((flash + "/" + name).c_str()); // started erased: the sandbox recreates it
        }
        unlink((run + "/events").c_str());
        unlink((run + "/syslog").c_str());
    }

    void populate() {
        make_dir(run);
        make_dir(run + "/flash");
        for (const std::string &name : images_in(run + "/flash"))
            unlink((run + "/flash/" + name).c_str());
        for (const std::string &name : images_in(origin)) {
            present.insert(name);
            copy_file(origin + "/" + name, run + "/flash/" + name);
        }
        unlink((run + "/events").c_str());
    }
};

// The flash operations of the runs since the last reset, in order, the devices they
// touched, and the first write that wanted to set bits the flash held at 0.
struct Events {
    std::vector<std::string> ops; // "erase mtd7 0 65536"
    std::set<std::string> devices;
    std::string violation; // "violation mtd5 100 1", or empty
};

Events read_events(const std::string &path) {
    Events ev;
    FILE *f = std::fopen(path.c_str(), "re");
    if (!f) return ev;
    char line[256];
    while (std::fgets(line, sizeof line, f)) {
        line[std::strcspn(line, "\n")] = 0;
        char kind[16], dev[16];
        if (std::sscanf(line, "%15s %15s", kind, dev) != 2) continue;
        if (std::strcmp(kind, "violation") == 0 && ev.violation.empty()) ev.violation = line;
        if (std::strcmp(kind, "erase") != 0 && std::strcmp(kind, "write") != 0) continue;
        ev.ops.push_back(line);
        ev.devices.insert(dev);
    }
    std::fclose(f);
    return ev;
}

// ------------------------------------------------------------------ running

// Runs the sandbox with COMMAND, its output into OUTPUT. Returns the exit status.
int run_sandbox(const Options &o, const std::string &run_dir, const std::vector<std::string> &extra,
                const std::vector<std::string> &command, const std::string &output) {
    std::vector<std::string> args = {o.sandbox, "--dir", run_dir};
    args.insert(args.end(), o.sandbox_args.begin(), o.sandbox_args.end());
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back("--");
    args.insert(args.end(), command.begin(), command.end());
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) die_errno("fork");
    if (pid == 0) {
        int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || dup2(fd, 1) < 0 || dup2(fd, 2) < 0) _exit(kExitUsage);
        close(fd);
        execvp(argv[0], argv.data());
        std::fprintf(stderr, "kiv-powercut: cannot run %s: %s\n", argv[0], std::strerror(errno));
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) die_errno("waitpid");
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
}

// The last non-empty line of a run's output: what the check said.
std::string last_line(const std::string &path) {
    std::string last, line;
    FILE *f = std::fopen(path.c_str(), "re");
    if (!f) return last;
    int c;
    while ((c = std::fgetc(f)) != EOF) {
        if (c != '\n') {
            if (line.size() < 200) line.push_back(static_cast<char>(c));
            continue;
        }
        if (!line.empty()) last = line;
        line.clear();
    }
    if (!line.empty()) last = line;
    std::fclose(f);
    return last;
}

std::string describe(int status, const std::string &said) {
    std::string text = "check exit " + std::to_string(status);
    if (!said.empty()) text += ": " + said;
    return text;
}

} // namespace

int main(int argc, char **argv) {
    Options o = parse_args(argc, argv);
    struct stat st {};
    if (stat(o.dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) die("no run directory " + o.dir);
    make_dir(o.work);
    Scratch scratch{o.dir + "/flash", o.work + "/run", {}};
    scratch.populate();
    const std::string scenario_out = o.work + "/scenario.out";
    const std::string check_out = o.work + "/check.out";
    const std::vector<std::string> check = {"/bin/sh", "-c", o.check};

    // The uncut run: how many operations, and the check must accept its result.
    int clean = run_sandbox(o, scratch.run, {}, o.scenario, scenario_out);
    if (clean == 125 || clean == 126 || clean == 127)
        die("the scenario could not run (exit " + std::to_string(clean) + "), see " + scenario_out);
    Events counted = read_events(scratch.run + "/events");
    const long total = static_cast<long>(counted.ops.size());
    std::printf("scenario: exit %d, %ld flash operations\n", clean, total);
    setenv("KIV_POWERCUT_OP", "0", 1);
    int checked = run_sandbox(o, scratch.run, {}, check, check_out);
    Events dirty = read_events(scratch.run + "/events");
    dirty.devices.insert(counted.devices.begin(), counted.devices.end());
    if (!dirty.violation.empty()) {
        std::printf("the uncut run wrote flash it had not erased: %s\n", dirty.violation.c_str());
        return kExitFailed;
    }
    if (checked != 0) {
        std::printf("the check fails without a power cut: %s\n",
                    describe(checked, last_line(check_out)).c_str());
        return kExitUsage;
    }

    long points = 0, failed = 0, expected = 0;
    for (long i = o.from; i <= std::min(o.to, total); i += o.every) {
        scratch.reset(dirty.devices);
        const std::string &op = counted.ops[static_cast<std::size_t>(i - 1)];
        ++points;
        int cut = run_sandbox(o, scratch.run, {"--fault", "powercut:" + std::to_string(i)},
                              o.scenario, scenario_out);
        Events ran = read_events(scratch.run + "/events");
        std::string verdict;
        int status = 0;
        if (cut != kPowercutStatus) {
            verdict = "no power cut: the scenario exited " + std::to_string(cut);
            status = -1;
        } else {
            setenv("KIV_POWERCUT_OP", std::to_string(i).c_str(), 1);
            setenv("KIV_POWERCUT_OPERATION", op.c_str(), 1);
            status = run_sandbox(o, scratch.run, {}, check, check_out);
            verdict = describe(status, last_line(check_out));
        }
        Events after = read_events(scratch.run + "/events");
        // The flash kept the AND of old and new bits: something now reads back what no one
        // wrote, whether or not the check happens to look there.
        if (!after.violation.empty()) {
            verdict = "wrote flash it had not erased: " + after.violation;
            status = -1;
        }
        dirty.devices.insert(after.devices.begin(), after.devices.end());
        dirty.devices.insert(ran.devices.begin(), ran.devices.end());

        const char *mark = "ok";
        if (status > 0 && status == o.expected) {
            ++expected;
            mark = "expected";
        } else if (status != 0) {
            ++failed;
            mark = "FAILED";
        }
        if (status != 0 || o.verbose)
            std::printf("cut %ld after %s: %s: %s\n", i, op.c_str(), mark,
                        status == 0 ? "check passed" : verdict.c_str());
    }
    if (expected)
        std::printf("%ld cut points, %ld failed, %ld expected\n", points, failed, expected);
    else
        std::printf("%ld cut points, %ld failed\n", points, failed);
    return failed ? kExitFailed : 0;
}
