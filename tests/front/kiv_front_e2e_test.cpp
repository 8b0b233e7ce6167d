// The real kiv on the simulated device: what a user or a boot script sees of the command
// line, the process guard and the lock (exit codes, exact messages, system log lines).
#include <algorithm>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <syslog.h>
#include <tuple>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/cat.hpp"

#include "support/sandbox.hpp"

namespace {

using kiv::test::Device;
using kiv::test::RunOptions;
using kiv::test::SandboxResult;
using kiv::test::SyslogLine;

// The usage text as the operator's manual shows it.
const std::string USAGE = R"usage(Usage: kiv [ ... ] ACTION [ ... ]
where ACTION usage must be one of the following:
  help
  initialize
  info
  partset SETIDX [SETNAME] [-refs=PARTREFS]
  activate [SETIDX|SETNAME]
  partinfo PARTIDX [ POOLNAME SIZE [-offset=OFFSET] [-mount=MOUNT]
                                   [-pn=PNUMBER] [-fstype=FSTYPE] ]
  install ZUNF SETIDX
  verify [SETIDX|SETNAME]
  upgrade [activate|validate|test]
  mount [SETIDX|SETNAME]
  getpartset [SETIDX|active] [name] [-pif=PIF]
  getrh [SETIDX|SETNAME|active] [-pif=PIF]
  zunfinfo ZUNF [-all]
COMMON OPTIONS can be located anywhere as long
as they do not break the syntax of an ACTION:
  -dryrun       do not alter hostconfig
  -test         when activating set, mark it for test
  -onlymeta     do only operate on hostconfig
  -v            show verbose information
  -f            force an action
  -meta=major,minor,buildnumber
  -zunfsize     max ZUNF size
  -rewrite      force rewrite even if installed
  -cfg=HOSTCFG  use another hostconfig than the default one
  -cfgbak=HOSTCFG  use another hostconfig backup than the default one
  -dev=DEVICE   use another storage device to operate on its partitions
                than the default one
  -noactivate   do not update active set after install
  -product=MODEL only install if release header contains this model
                 can also be set from the environment KIV_PRODUCT
  -platform=PLF match platform in kivm, defaults to product
                 can also be set from the environment KIV_PLATFORM
  -minver=major.minor.buildnumber mimimum release version to install
  -iptos=TOS    set type of service (TOS) for IP communication
HOSTCFG:
  For this system default hostconfig (HOSTCFG) is located at:
    /dev/mtd5 (backup located at /dev/mtd2)
SETIDX and install action:
  If -1 is given as SETIDX at install time KIV will try to
  autoselect a SETIDX suitable for installation.
PARTIDX and partinfo action:
  PARTIDX is the index to an element in the hostconfig partition info
  table. As default the PARTIDX number is the same as the partition
  number the entry covers. However the partition number can be set to
  something else with the -pn=NUMBER option. Example:
    $ kiv partinfo 4 TESTPOOL 0x100 -pn=22
  In this example PARTIDX 4 covers partition 22 and not partition 4
  as it would have if the -pn option was not given.
ZUNF is a valid ZUNF file. Can be fetched either from
  the file system, tftp or by CURL (if CURL is enabled).
FSTYPE:
  can be e.g. squashfs, ext2, ex3, ext4, jffs2, virtuals.
)usage";

constexpr int FACILITY_USER = LOG_USER >> 3;

SyslogLine logged(int severity, std::string text) {
    return SyslogLine{FACILITY_USER, severity, "KIV", std::move(text)};
}

// A refusal is told on standard error and, the same text, to the system log.
std::vector<SyslogLine> refusal(const std::string &err, int severity = LOG_ERR) {
    return err.empty() ? std::vector<SyslogLine>{} : std::vector{logged(severity, err)};
}

// Parent and child write to one standard error and one log; their order is not fixed.
template <typename T> std::vector<T> sorted(std::vector<T> v) {
    std::sort(v.begin(), v.end(), [](const T &a, const T &b) {
        if constexpr (std::is_same_v<T, SyslogLine>)
            return std::tie(a.severity, a.text) < std::tie(b.severity, b.text);
        else
            return a < b;
    });
    return v;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    for (std::size_t start = 0, end; start < text.size(); start = end) {
        end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(start, end - start));
    }
    return lines;
}

bool exists(const std::string &path) {
    return ::access(path.c_str(), F_OK) == 0;
}

// Holds the lock another run would hold, for as long as it lives.
struct LockHolder {
    explicit LockHolder(const std::string &path)
        : fd(::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600)),
          locked(fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0) {}
    ~LockHolder() { ::close(fd); }
    LockHolder(const LockHolder &) = delete;
    LockHolder &operator=(const LockHolder &) = delete;
    int fd;
    bool locked;
};

TEST(KivFrontE2e, ActionWordsAndTheUsage) {
    struct Row {
        std::vector<std::string> words;
        int exit;
        std::string out;
        std::string err;
    };
    const Row rows[] = {
        {{"help"}, 0, USAGE, ""},
        {{}, 1, USAGE, "Syntax error, argc(1) < 2\n"},
        {{"Help"}, 1, "", "Unknown action\n"},
        {{"help2"}, 1, "", "Unknown action\n"},
        {{"-help"}, 1, "", "Unknown action\n"},
        {{""}, 1, "", "Unknown action\n"},
    };
    Device dev;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.words.empty() ? "(none)" : "'" + row.words[0] + "'");
        SandboxResult r = dev.run_kiv(row.words);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.err);
        EXPECT_EQ(r.syslog, refusal(row.err));
    }
}

// Each refusal message once; the lock is held by the test throughout, so a run that got as
// far as the lock would say so instead. The grammar's edges are in kiv_cmdline_test.
TEST(KivFrontE2e, RefusedCommandLines) {
    Device dev;
    const std::string lock = dev.scratch_path("kiv.lock");
    LockHolder holder(lock);
    ASSERT_TRUE(holder.locked);

    std::vector<std::string> twenty = {"getrh"};
    for (int i = 1; i < 20; ++i)
        twenty.push_back(std::to_string(i));
    const std::string too_long = cat("/", std::string(5000, 'x'));
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
        {{"-v"}, "ACTION is missing.\n"},
        {{"-meta=x", "help"}, "-meta syntax failure.\n"},
        {{"-zunfsize", "help"}, "-zunfsize syntax failure.\n"},
        {{"-cfgbak", "help"}, "-cfgbak syntax failure.\n"},
        {{"info", "-cfg"}, "-cfg syntax failure.\n"},
        {{"-dev", "help"}, "-dev syntax failure.\n"},
        {{"-dev=/dev/mtd5", "help"}, "-dev failure. /dev/mtd5 is not a block device\n"},
        {{"-minver=1.2", "help"}, "-minver syntax failure.\n"},
        {{"-iptos=x", "help"}, "-iptos syntax failure.\n"},
        {{"-plugin=libkivext.so", "help"}, "plugin support not enabled.\n"},
        {{"-locked", "help"}, "-lock syntax failure.\n"},
        {{"-autoset", "help"}, "-autosetfile syntax failure.\n"},
        {{"-actx=1", "help"}, "-activesetfile syntax failure.\n"},
        {{"-cfg=" + too_long, "help"}, "-cfg value too long.\n"},
        {{"-cfgbak=" + too_long, "help"}, "-cfgbak value too long.\n"},
        {{"-lockfile=" + too_long, "help"}, "-lockfile value too long.\n"},
        {{"-autosetfile=" + too_long, "help"}, "-autosetfile value too long.\n"},
        {{"-activesetfile=" + too_long, "help"}, "-activesetfile value too long.\n"},
        {{"-plugin=" + std::string(200, 'p'), "help"}, "-plugin value too long.\n"},
        {twenty, "Too many arguments.\n"},
    };
    for (const auto &[words, message] : rows) {
        SCOPED_TRACE(message);
        std::vector<std::string> args = {"-lockfile=" + lock};
        args.insert(args.end(), words.begin(), words.end());
        SandboxResult r = dev.run_kiv(args);
        EXPECT_EQ(r.exit, 1) << r.describe();
        EXPECT_EQ(r.err, message);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.syslog, refusal(message));
    }
}

TEST(KivFrontE2e, OptionsMayStandAnywhere) {
    Device dev;
    SandboxResult before = dev.run_kiv({"-v", "-dryrun", "info"});
    SandboxResult after = dev.run_kiv({"info", "-dryrun", "-v"});
    EXPECT_EQ(before.exit, after.exit);
    EXPECT_EQ(before.out, after.out);
    EXPECT_EQ(before.err, after.err);
    EXPECT_EQ(before.syslog, after.syslog);
    EXPECT_NE(before.out.find(" -dryrun: 1 -v: 1 "), std::string::npos) << before.describe();
}

TEST(KivFrontE2e, VerboseSummary) {
    Device dev;
    SandboxResult r =
        dev.run_kiv({"-v", "-r", "-f", "-meta=0x01020003", "-zunfsize=4096", "-rewrite",
                     "-cfg=/tmp/h.img", "help", "-minver=1.2.3", "-lockfile=/tmp/x.lock",
                     "-autosetfile=/tmp/a", "extra", "-activesetfile=/tmp/b", "-refs=1,2", "-1"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, "action: help hostcfg: /tmp/h.img (backup: ) device: /dev/mtd%i -r: 1 "
                     "-dryrun: 0 -v: 1 -f: 1 -meta: 1.2.3 -zunfsize=4096 -rewrite=1\n"
                     "-minver: 1.2.3 -lockfile: /tmp/x.lock -autosetfile: /tmp/a "
                     "-activesetfile: /tmp/b\n"
                     "other: extra -refs=1,2 -1 \n" +
                         USAGE);
    EXPECT_EQ(r.err, "");
}

TEST(KivFrontE2e, EnvironmentLimits) {
    const std::pair<std::string, std::string> rows[] = {
        {"KIV_PRODUCT=ABCDEFGHIJKLMNO", ""},
        {"KIV_PRODUCT=ABCDEFGHIJKLMNOP", "KIV_PRODUCT too long: ABCDEFGHIJKLMNOP\n"},
        {"KIV_PLATFORM=ABCDEFG", ""},
        {"KIV_PLATFORM=ABCDEFGH", "KIV_PLATFORM too long: ABCDEFGH\n"},
    };
    Device dev;
    for (const auto &[env, err] : rows) {
        SCOPED_TRACE(env);
        RunOptions options;
        options.env = {env};
        SandboxResult r = dev.run_kiv({"help"}, options);
        EXPECT_EQ(r.exit, err.empty() ? 0 : 1) << r.describe();
        EXPECT_EQ(r.err, err);
        EXPECT_EQ(r.out, err.empty() ? USAGE : "");
        EXPECT_EQ(r.syslog, refusal(err, LOG_CRIT));
    }
}

TEST(KivFrontE2e, LockContention) {
    Device dev;
    const std::string lock = dev.scratch_path("kiv.lock");
    {
        LockHolder holder(lock);
        ASSERT_TRUE(holder.locked);
        SandboxResult busy = dev.run_kiv({"-lockfile=" + lock, "help"});
        EXPECT_EQ(busy.exit, 1) << busy.describe();
        EXPECT_EQ(busy.err, "Could not acquire kiv lock\n");
        EXPECT_EQ(busy.out, ""); // the action did not run
        EXPECT_EQ(busy.syslog, refusal("Could not acquire kiv lock\n"));
        EXPECT_TRUE(exists(lock)); // the holder's file stays
    }
    // A file left behind by a killed run is taken again and removed at the end.
    SandboxResult free = dev.run_kiv({"-lockfile=" + lock, "help"});
    EXPECT_EQ(free.exit, 0) << free.describe();
    EXPECT_EQ(free.out, USAGE);
    EXPECT_FALSE(exists(lock));

    SandboxResult missing = dev.run_kiv({"-lockfile=/tmp/no/such/dir/kiv.lock", "help"});
    EXPECT_EQ(missing.exit, 1) << missing.describe();
    EXPECT_EQ(missing.err, "Could not acquire kiv lock\n");
    EXPECT_EQ(missing.out, "");
}

// Runs kiv on the device with the fault-injecting library preloaded into kiv only (not into
// the simulator, which forks and waits itself).
SandboxResult run_with_fault(Device &dev, const std::string &fault, std::vector<std::string> args,
                             RunOptions options = {}) {
    const std::string preload = KIV_GUARD_PRELOAD;
    std::vector<std::string> argv = {"/usr/bin/env", "LD_PRELOAD=" + preload,
                                     "KIV_GUARD_FAULT=" + fault, kiv::test::kiv_bin()};
    argv.insert(argv.end(), args.begin(), args.end());
    options.keep.push_back(preload.substr(0, preload.rfind('/')));
    return dev.run(argv, options);
}

TEST(KivFrontE2e, ProcessGuard) {
    struct Row {
        const char *fault;
        int exit;
        int severity;
        std::string err; // on standard error and, line by line, in the system log
        bool action_ran;
        bool lock_left;
    };
    const Row rows[] = {
        {"abort", 69, LOG_CRIT, "child terminated by signal #6\n", false, true},
        {"kill", 72, LOG_CRIT, "child terminated by signal #9\n", false, true},
        {"signals", 0, LOG_INFO,
         "yet unknown if child: Got signal #1\nparent: Got signal #3\n"
         "parent: Got signal #15\nchild: Got signal #2\n"
         "parent: Got signal #10\nchild: Got signal #12\n",
         true, false},
        {"unlink", 0, LOG_ERR, "WARNING: kiv_unlock failed\n", true, false},
        {"fork", 1, LOG_ERR, "Fork failed\n", false, false},
        {"wait", 12, LOG_CRIT, "wait() did not succeed\n", true, false},
        {"wait_stopped", 13, LOG_CRIT, "child terminated for some unknown reason\n", true, false},
        {"wait_sig65", 63, LOG_CRIT, "child terminated by unknown signal #65\n", true, false},
        {"getpgrp", 3, LOG_ERR, "getpgrp() failed\n", false, false},
        {"setpgid", 3, LOG_ERR, "setpgid() failed\n", false, false},
        {"same_group", 3, LOG_ERR, "No new process group created?\n", false, false},
        {"sigaction", 4, LOG_ERR, "Could not catch signal #10\n", false, false},
    };
    Device dev;
    const std::string lock = dev.scratch_path("kiv.lock");
    for (const Row &row : rows) {
        SCOPED_TRACE(row.fault);
        ::unlink(lock.c_str());
        SandboxResult r = run_with_fault(dev, row.fault, {"-lockfile=" + lock, "help"});
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        std::vector<SyslogLine> messages;
        for (const std::string &line : lines_of(row.err))
            messages.push_back(logged(row.severity, line));
        EXPECT_EQ(sorted(lines_of(r.err)), sorted(lines_of(row.err)));
        EXPECT_EQ(sorted(r.syslog), sorted(messages));
        EXPECT_EQ(r.out, row.action_ran ? USAGE : "");
        EXPECT_EQ(exists(lock), row.lock_left);
    }
}

TEST(KivFrontE2e, ActionResultMinusOneBecomes255) {
    // The only road to -1: the install hook after a failed hostconfig load (the flash of a
    // fresh device holds none) refuses with -1, and install passes that on.
    Device dev;
    SandboxResult r = run_with_fault(dev, "install_hook", {"install", "/tmp/none.zunf", "1"});
    if (r.err == "Unknown action\n") GTEST_SKIP() << "install is not part of this build yet";
    EXPECT_EQ(r.exit, 255) << r.describe();
    EXPECT_NE(r.err.find("kiv_install_hook_hcfg_fail returned non success (-1)\n"),
              std::string::npos)
        << r.describe();
}

// On a terminal the operator reads command errors there; what must reach the system log
// (environment refusals, the guard's findings) still does.
TEST(KivFrontE2e, TerminalKeepsCommandErrorsOutOfTheSystemLog) {
    Device dev;
    RunOptions tty;
    tty.stdout_tty = true;
    SandboxResult on_tty = dev.run_kiv({"Help"}, tty);
    EXPECT_EQ(on_tty.exit, 1) << on_tty.describe();
    EXPECT_EQ(on_tty.err, "Unknown action\n");
    EXPECT_TRUE(on_tty.syslog.empty()) << on_tty.describe();

    RunOptions long_product = tty;
    long_product.env = {"KIV_PRODUCT=ABCDEFGHIJKLMNOPQ"};
    SandboxResult product = dev.run_kiv({"help"}, long_product);
    EXPECT_EQ(product.exit, 1) << product.describe();
    EXPECT_EQ(product.syslog, refusal("KIV_PRODUCT too long: ABCDEFGHIJKLMNOPQ\n", LOG_CRIT));

    SandboxResult aborted = run_with_fault(dev, "abort", {"help"}, tty);
    EXPECT_EQ(aborted.exit, 69) << aborted.describe();
    EXPECT_EQ(aborted.syslog, refusal("child terminated by signal #6\n", LOG_CRIT));
}

} // namespace
