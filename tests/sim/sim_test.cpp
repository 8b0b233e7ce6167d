// The flash simulator and the device sandbox, exercised through the sandbox as
// the end-to-end tests use them.
#include "support/sandbox.hpp"

#include <gtest/gtest.h>

#include <mtd/mtd-abi.h>

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <random>
#include <signal.h>
#include <sstream>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using kiv::test::Device;
using kiv::test::DeviceOptions;
using kiv::test::RunOptions;
using kiv::test::SyslogLine;
using Lines = std::vector<std::string>;

namespace {

const std::string kMtdTool = SIM_MTDTOOL_BIN;
const std::string kLogTool = SIM_LOGTOOL_BIN;
// The tail of an "info" line for every simulated device.
const std::string kNorInfo = " writesize=1 oobsize=0 type=" + std::to_string(MTD_NORFLASH) +
                             " flags=" + std::to_string(MTD_CAP_NORFLASH) + "\n";

// Space-separated words; paths in these tests have no spaces.
Lines words(const std::string &text) {
    Lines out;
    std::istringstream in(text);
    for (std::string word; in >> word;)
        out.push_back(word);
    return out;
}

// sim_mtdtool on /dev/mtdN; steps separated by " + ".
Lines mtd(int n, const std::string &steps) {
    return words(kMtdTool + " /dev/mtd" + std::to_string(n) + " " + steps);
}

// Bytes [off, off + n) of an image as runs: "16x00 100xff".
std::string runs(const std::vector<std::uint8_t> &v, std::size_t off, std::size_t n) {
    std::string out;
    for (std::size_t i = off, j; i < off + n; i = j) {
        for (j = i; j < off + n && v[j] == v[i]; ++j) {
        }
        char run[32];
        std::snprintf(run, sizeof run, "%s%zux%02x", out.empty() ? "" : " ", j - i, v[i]);
        out += run;
    }
    return out;
}

DeviceOptions layout(std::string text) {
    DeviceOptions o;
    o.layout = std::move(text);
    return o;
}

RunOptions faults(const std::string &list) {
    RunOptions o;
    o.faults = words(list);
    return o;
}

} // namespace

// ------------------------------------------------------------ geometry, layout

TEST(Sim, DefaultLayoutDevicesAndGeometry) {
    Device dev;
    auto r = dev.run({"/bin/sh", "-c",
                      "cd /dev && stat -c '%n %s' mtd* | sort -V && " + kMtdTool +
                          " /dev/mtd5 info && " + kMtdTool + " /dev/mtd8 info"});
    std::string want;
    for (int i = 0; i < 20; ++i) {
        int kib = i == 2 || i == 5 ? 128 : i == 7 ? 2048 : i == 8 ? 8192 : i == 19 ? 6144 : 256;
        want += "mtd" + std::to_string(i) + " " + std::to_string(kib * 1024) + "\n";
    }
    want += "size=131072 erasesize=65536" + kNorInfo + "size=8388608 erasesize=65536" + kNorInfo;
    EXPECT_EQ(r.out, want) << r.describe();
}

TEST(Sim, CustomLayoutLockAndOtherIoctls) {
    Device dev(layout("# test layout\nmtd 0 size=64K erase=16K\nmtd 3 size=256K erase=64K\n"
                      "mtd 4 size=0x40000 erase=128K locked\n"));
    auto r = dev.run(
        {"/bin/sh", "-c",
         "ls /dev | grep mtd; T=" + kMtdTool +
             "; $T /dev/mtd0 info; $T /dev/mtd4 info + erase 0 131072 + write 0 00 4 + islocked + "
             "read 0 2; $T /dev/mtd3 islocked + islocked 65536 65536 + islocked 196608 131072 + "
             "lock"});
    EXPECT_EQ(r.out, "mtd0\nmtd3\nmtd4\nsize=65536 erasesize=16384" + kNorInfo +
                         "size=262144 erasesize=131072" + kNorInfo +
                         "erase EROFS\nwrite EROFS\nislocked 1\nread 2 ffff\n"
                         "islocked 0\nislocked 0\nislocked EINVAL\nlock ENOTTY\n")
        << r.describe();
    EXPECT_EQ(runs(dev.flash(4), 0, 262144), "262144xff");
    EXPECT_EQ(r.events_with("erase"), Lines{});
    EXPECT_EQ(r.events_with("write"), Lines{});
}

TEST(Sim, BadConfigurationIsASandboxFailure) {
    Device dev;
    const std::string bad = dev.write_file("bad.layout", "mtd 1 size=100K erase=64K\n");
    const struct {
        std::string options, message;
    } rows[] = {
        {"--layout " + bad, "kiv-sandbox: " + bad + ": line 1: "},
        {"--fault erase:mtd3:4", "kiv-sandbox: erase fault beyond the end of mtd3"},
        {"--fault flip:mtd3:1", "kiv-sandbox: bad fault 'flip:mtd3:1'"},
    };
    for (const auto &row : rows) {
        auto r = kiv::test::run_process(words(kiv::test::sandbox_bin() + " --dir " + dev.dir() +
                                              " " + row.options + " -- true"));
        EXPECT_EQ(r.exit, 125) << r.describe();
        EXPECT_EQ(r.err.rfind(row.message, 0), 0u) << r.describe();
    }
}

// ------------------------------------------------------------ NOR semantics

TEST(Sim, WritesOnlyClearBitsAndStopAtTheEnd) {
    Device dev;
    auto r = dev.run(mtd(3, "write 0 00 16 + write 0 ff 16 + write 100 f0 4 + write 102 0f 4 + "
                            "read 100 6 + write 262140 00 8 + write 262144 00 1 + "
                            "read 262142 8 + read 262144 4"));
    EXPECT_EQ(r.out, "write 16\nwrite 16\nwrite 4\nwrite 4\nread 6 f0f000000f0f\n"
                     "write 4\nwrite ENOSPC\nread 2 0000\nread 0 \n")
        << r.describe();
    // A write that needs a 1 where the flash holds 0 is a violation from its first byte.
    EXPECT_EQ(r.events, (Lines{"open mtd3 rw", "write mtd3 0 16", "write mtd3 0 16",
                               "violation mtd3 0 16", "write mtd3 100 4", "write mtd3 102 4",
                               "violation mtd3 102 4", "write mtd3 262140 4"}))
        << r.describe();
    EXPECT_EQ(runs(dev.flash(3), 0, 17), "16x00 1xff");
}

TEST(Sim, EraseTakesWholeAlignedBlocksInside) {
    Device dev;
    dev.set_flash(3, std::vector<std::uint8_t>(262144, 0x00));
    auto r = dev.run(mtd(3, "erase 1 65536 + erase 0 1000 + erase 262144 65536 + "
                            "erase 196608 131072 + erase 65536 65536 + erase 196608 65536"));
    EXPECT_EQ(r.out, "erase EINVAL\nerase EINVAL\nerase EINVAL\nerase EINVAL\nerase ok\nerase ok\n")
        << r.describe();
    EXPECT_EQ(r.events_with("erase"), (Lines{"erase mtd3 65536 65536", "erase mtd3 196608 65536"}));
    EXPECT_EQ(runs(dev.flash(3), 0, 262144), "65536x00 65536xff 65536x00 65536xff");
}

TEST(Sim, TruncatingOpenDoesNotShrinkAndOpensAreLogged) {
    Device dev;
    dev.set_flash(3, "keep");
    auto r = dev.run(mtd(3, "truncopen + size + read 0 4"));
    EXPECT_EQ(r.out, "truncopen ok\nsize 262144 262144\nread 4 6b656570\n") << r.describe();
    r = dev.run(
        {"/bin/sh", "-c", "cat /dev/mtd3 >/dev/null; printf x > /dev/mtd3; stat -c %s /dev/mtd3"});
    EXPECT_EQ(r.out, "262144\n") << r.describe();
    EXPECT_EQ(r.events,
              (Lines{"open mtd3 r", "open mtd3 w", "write mtd3 0 1", "violation mtd3 0 1"}));
    EXPECT_EQ(dev.flash(3).size(), 262144u);
    EXPECT_EQ(dev.flash(3)[0], 'k' & 'x');
}

// ------------------------------------------------------------ faults

TEST(Sim, EachFaultHitsOnlyItsOperation) {
    const struct {
        const char *faults;
        bool preset_zeros;
        const char *steps, *out, *fault_events, *image;
    } rows[] = {
        {"erase:mtd3:1", true, "erase 0 196608 + erase 131072 65536", "erase EIO\nerase ok\n",
         "fault erase mtd3 65536", "65536xff 65536x00 65536xff 65536x00"},
        {"write:mtd3:0x6e", false, "write 100 00 16 + write 0 00 16", "write EIO\nwrite 16\n",
         "fault write mtd3 110", "16x00 262128xff"},
        {"short:mtd3:10", false, "write 0 00 16 + read 0 16 + write 10 00 6",
         "write 10\nread 16 00000000000000000000ffffffffffff\nwrite 6\n", "fault short mtd3 10",
         "16x00 262128xff"},
        // Reads see the flipped bits; the flash keeps what it holds.
        {"bitflip:mtd3:5:0 bitflip:mtd3:6:7", false, "read 4 4", "read 4 fffe7fff\n",
         "fault bitflip mtd3 5\nfault bitflip mtd3 6", "262144xff"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.faults);
        Device dev;
        if (row.preset_zeros) dev.set_flash(3, std::vector<std::uint8_t>(262144, 0x00));
        auto r = dev.run(mtd(3, row.steps), faults(row.faults));
        EXPECT_EQ(r.out, row.out) << r.describe();
        std::string fault_events;
        for (const auto &e : r.events_with("fault"))
            fault_events += (fault_events.empty() ? "" : "\n") + e;
        EXPECT_EQ(fault_events, row.fault_events) << r.describe();
        EXPECT_EQ(runs(dev.flash(3), 0, 262144), row.image);
    }
}

TEST(Sim, PowerCutKeepsExactlyTheOperationsBeforeIt) {
    Device dev;
    auto r = dev.run(mtd(3, "erase 0 65536 + write 0 00 16 + write 16 00 16 + write 32 00 16"),
                     faults("powercut:3"));
    EXPECT_EQ(r.exit, 137) << r.describe();
    // The program never saw the answer to operation 3.
    EXPECT_EQ(r.out, "erase ok\nwrite 16\n") << r.describe();
    EXPECT_EQ(r.events, (Lines{"open mtd3 rw", "erase mtd3 0 65536", "write mtd3 0 16",
                               "write mtd3 16 16", "powercut 3"}));
    EXPECT_EQ(runs(dev.flash(3), 0, 48), "32x00 16xff");

    // Reboot: the flash holds what was programmed before the cut, and a cut
    // beyond the run's operations changes nothing.
    r = dev.run(mtd(3, "read 30 4"), faults("powercut:100"));
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, "read 4 0000ffff\n") << r.describe();
    EXPECT_EQ(r.events, Lines{"open mtd3 rw"});
}

TEST(Sim, PowerCutCountsOperationsAcrossDevicesAndKillsEveryProcess) {
    Device dev;
    // The shell running the writers dies at the cut too, so nothing after it runs.
    std::string script = kMtdTool + " /dev/mtd1 write 0 00 1 && " + kMtdTool +
                         " /dev/mtd2 write 0 00 1 && echo after-cut; " + kMtdTool +
                         " /dev/mtd4 write 0 00 1; echo unreachable";
    auto r = dev.run({"/bin/sh", "-c", script}, faults("powercut:2"));
    EXPECT_EQ(r.exit, 137) << r.describe();
    EXPECT_EQ(r.out, "write 1\n") << r.describe();
    EXPECT_EQ(r.events_with("powercut"), Lines{"powercut 2"});
    EXPECT_EQ(dev.flash(1)[0], 0x00);
    EXPECT_EQ(dev.flash(2)[0], 0x00);
    EXPECT_EQ(dev.flash(4)[0], 0xFF);
}

TEST(FlashSim, AfterPowerLossWritesAndWritableOpensFail) {
    Device dev(layout("mtd 0 size=128K erase=64K\n")); // the simulator runs without the sandbox
    dev.set_flash(0, std::vector<std::uint8_t>(4, 0x00));
    std::string events = dev.scratch_path("events");
    auto r = kiv::test::run_process(
        words(SIM_PROBE_BIN " " + kiv::test::flashsim_bin() + " " + dev.dir() + "/flash " + events +
              " --fault powercut:2 -- " + kMtdTool +
              " @MNT@/mtd0 erase 0 65536 + write 0 00 1 + write 1 00 1 + erase 65536 65536 + "
              "read 0 2 + reopen"));
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_EQ(r.out, "erase ok\nwrite 1\nwrite EIO\nerase EIO\nread 2 00ff\nreopen EIO\n")
        << r.describe();
    EXPECT_EQ(kiv::test::read_text_file(events),
              "open mtd0 rw\nerase mtd0 0 65536\nwrite mtd0 0 1\npowercut 2\n");
    EXPECT_EQ(runs(dev.flash(0), 0, 4), "1x00 3xff");
}

// ------------------------------------------------------------ syslog

TEST(Sim, SyslogMessagesAreCapturedAsSent) {
    Device dev;
    const SyslogLine sent[] = {{1, 3, "KIV", "Unknown action\n"}, {16, 6, "tool", "a\tb\\c\nd: e"}};
    for (const auto &line : sent) {
        auto r = dev.run({kLogTool, line.ident,
                          std::to_string(line.facility) + "." + std::to_string(line.severity),
                          line.text});
        EXPECT_EQ(r.syslog, std::vector<SyslogLine>{line}) << r.describe();
    }
    auto r = dev.run({"logger", "-t", "upgrade", "-p", "user.err", "hello from logger"});
    EXPECT_EQ(r.syslog, (std::vector<SyslogLine>{{1, 3, "upgrade", "hello from logger"}}))
        << r.describe();
    // Stored one message a line, escaped.
    EXPECT_EQ(kiv::test::read_text_file(dev.dir() + "/syslog"),
              "1.3\tKIV\tUnknown action\\n\n16.6\ttool\ta\\tb\\\\c\\nd: e\n"
              "1.3\tupgrade\thello from logger\n");
}

TEST(Sim, EveryMessageIsKeptInOrderUpToTheLast) {
    Device dev;
    auto r = dev.run({kLogTool, "burst", "1.6", "message", "2000"});
    ASSERT_EQ(r.syslog.size(), 2000u) << r.describe();
    for (std::size_t i = 0; i < 2000; ++i)
        ASSERT_EQ(r.syslog[i].text, "message #" + std::to_string(i));
    // The command logging right before it exits, after a child of it: both are
    // kept, and the run reports only its own messages.
    r = dev.run(
        {"/bin/sh", "-c",
         kLogTool + " KIV 1.5 'child: done'; exec " + kLogTool + " KIV 1.5 'parent: done'"});
    ASSERT_EQ(r.syslog.size(), 2u) << r.describe();
    EXPECT_EQ(r.syslog[0].text, "child: done");
    EXPECT_EQ(r.syslog[1].text, "parent: done");
}

// ------------------------------------------------------------ environment

TEST(Sim, ProcCmdlineAndHostcfgDefaultAreTheDevices) {
    Device dev;
    auto r = dev.run({"/bin/sh", "-c", "cat /proc/cmdline; ls -A /mnt/appl"});
    EXPECT_EQ(r.out, "console=ttyS0 KIVSET=SET1\n") << r.describe();
    RunOptions o;
    o.cmdline = "console=ttyS0 KIVSET=SET2 quiet";
    r = dev.run({"/bin/cat", "/proc/cmdline"}, o);
    EXPECT_EQ(r.out, "console=ttyS0 KIVSET=SET2 quiet\n") << r.describe();

    DeviceOptions d = layout("mtd 0 size=64K erase=64K\ncmdline root=/dev/mtdblock1 KIVSET=SET2\n");
    d.hostcfg_default = "key=value\n";
    Device dev2(d);
    r = dev2.run(
        {"/bin/sh", "-c", "cat /proc/cmdline /mnt/appl/hostcfg.default; stat -f -c %T /mnt/appl"});
    EXPECT_EQ(r.out, "root=/dev/mtdblock1 KIVSET=SET2\nkey=value\ntmpfs\n") << r.describe();
}

TEST(Sim, TmpIsFreshAndPrivate) {
    char host_file[] = "/tmp/kiv-sim-host-XXXXXX";
    int fd = mkstemp(host_file);
    ASSERT_GE(fd, 0);
    close(fd);
    Device dev;
    std::string inside = "/tmp/kiv-sim-inside-" + std::to_string(getpid());
    RunOptions o; // run from /tmp itself: the command gets the fresh one
    o.cwd = "/tmp";
    auto r = dev.run({"/bin/sh", "-c",
                      std::string("test -e ") + host_file + " && echo host-visible; pwd; touch " +
                          inside + " && echo created"},
                     o);
    unlink(host_file);
    EXPECT_EQ(r.out, "/tmp\ncreated\n") << r.describe();
    EXPECT_NE(access(inside.c_str(), F_OK), 0) << "a file made in the sandbox's /tmp leaked";
}

TEST(Sim, CommandAndWorkingDirectoriesStayReachable) {
    char dir[] = "/tmp/kiv-sim-cmd-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string prog = std::string(dir) + "/tool";
    std::filesystem::copy_file(kMtdTool, prog);
    Device dev;
    // The sandbox alone, without the helper's --keep of its own directories.
    auto r = kiv::test::run_process(
        {kiv::test::sandbox_bin(), "--dir", dev.dir(), "--", prog, "/dev/mtd3", "info"});
    std::filesystem::remove_all(dir);
    EXPECT_EQ(r.out, "size=262144 erasesize=65536" + kNorInfo) << r.describe();
    // Through the helper: the working directory is kept, scratch files are reachable.
    r = dev.run({"/bin/sh", "-c", "cat " + dev.write_file("data.txt", "payload") + "; echo; pwd"});
    EXPECT_EQ(r.out, "payload\n" + std::filesystem::current_path().string() + "\n") << r.describe();
}

TEST(Sim, ExitStatusIsTheCommands) {
    Device dev;
    EXPECT_EQ(dev.run({"/bin/sh", "-c", "exit 7"}).exit, 7);
    EXPECT_EQ(dev.run({"/bin/sh", "-c", "kill -TERM $$"}).exit, 128 + SIGTERM);
    auto r = dev.run({"no-such-command-kiv"});
    EXPECT_EQ(r.exit, 127) << r.describe();
    EXPECT_NE(r.err.find("kiv-sandbox: no-such-command-kiv"), std::string::npos);
    // A leftover background process holding stdout open ends with the command.
    r = dev.run({"/bin/sh", "-c", "tail -f /dev/null & echo started"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, "started\n");
}

TEST(Sim, TimeoutKillsEverythingAndNothingStaysMounted) {
    Device dev;
    RunOptions o;
    o.timeout = std::chrono::milliseconds(300);
    auto start = std::chrono::steady_clock::now();
    auto r = dev.run({"/bin/sh", "-c", "tail -f /dev/null & exec tail -f /dev/null"}, o);
    EXPECT_EQ(r.exit, 124) << r.describe();
    EXPECT_FALSE(r.timed_out);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    std::string mounts = kiv::test::read_text_file("/proc/self/mountinfo");
    EXPECT_EQ(mounts.find("kiv-flashsim"), std::string::npos) << mounts;
}

TEST(Sim, StdoutOnATerminal) {
    Device dev;
    std::string probe =
        "if test -t 1; then echo tty; else echo notty; fi; test -t 2 || echo err-pipe >&2";
    auto r = dev.run({"/bin/sh", "-c", probe});
    EXPECT_EQ(r.out, "notty\n") << r.describe();
    RunOptions o;
    o.stdout_tty = true;
    // The terminal also has a name inside the sandbox.
    r = dev.run({"/bin/sh", "-c",
                 probe + "; exec 3>&1; p=$(tty <&3); case $p in /dev/pts/*) test -e $p && "
                         "echo named;; esac"},
                o);
    EXPECT_EQ(r.out, "tty\nnamed\n") << r.describe();
    EXPECT_EQ(r.err, "err-pipe\n") << r.describe();
}

// Host pids of pid's descendants.
std::vector<pid_t> descendants(pid_t pid) {
    std::vector<pid_t> all;
    std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
    for (pid_t child; in >> child;) {
        all.push_back(child);
        auto more = descendants(child);
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

TEST(Sim, KillingTheSandboxEndsEverythingInIt) {
    Device dev;
    int out[2];
    ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
    pid_t sandbox = fork();
    ASSERT_GE(sandbox, 0);
    if (sandbox == 0) {
        dup2(out[1], STDOUT_FILENO);
        alarm(30);
        execl(kiv::test::sandbox_bin().c_str(), "kiv-sandbox", "--dir", dev.dir().c_str(), "--",
              "/bin/sh", "-c", "echo started; exec tail -f /dev/null", nullptr);
        _exit(127);
    }
    close(out[1]);
    pollfd pfd{out[0], POLLIN, 0};
    ASSERT_EQ(poll(&pfd, 1, 10000), 1);
    // The simulator, the sandbox's first process and the command are running now.
    std::vector<int> pidfds;
    for (pid_t pid : descendants(sandbox))
        pidfds.push_back(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    ASSERT_GE(std::count_if(pidfds.begin(), pidfds.end(), [](int fd) { return fd >= 0; }), 2);
    kill(sandbox, SIGKILL);
    waitpid(sandbox, nullptr, 0);
    for (int fd : pidfds) {
        pollfd p{fd, POLLIN, 0};
        EXPECT_EQ(poll(&p, 1, 10000), 1) << "a process outlived the sandbox";
        close(fd);
    }
    close(out[0]);
}

// ------------------------------------------------------------ a real client

TEST(Sim, FlashcpWritesAndVerifiesAnImage) {
    const char *flashcp = "/usr/sbin/flashcp";
    if (access(flashcp, X_OK) != 0) GTEST_SKIP() << "mtd-utils' flashcp is not installed";
    Device dev;
    dev.set_flash(3, std::vector<std::uint8_t>(262144, 0x00)); // flashcp must erase first
    std::vector<std::uint8_t> image(100000);
    std::mt19937 rng(42);
    std::generate(image.begin(), image.end(), [&] { return static_cast<std::uint8_t>(rng()); });
    std::string path = dev.write_file("image.bin", std::string(image.begin(), image.end()));
    auto r = dev.run({flashcp, "-v", path, "/dev/mtd3"});
    ASSERT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.events_with("violation"), Lines{}) << r.describe();
    EXPECT_EQ(r.events_with("erase").size(), 2u) << r.describe();
    auto img = dev.flash(3);
    EXPECT_TRUE(std::equal(image.begin(), image.end(), img.begin()));
    EXPECT_EQ(runs(img, 131072, 131072), "131072x00");
}
