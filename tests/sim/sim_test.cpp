// The flash simulator and the device sandbox, exercised through the sandbox as
// the end-to-end tests use them.
#include "support/sandbox.hpp"

#include <gtest/gtest.h>

#include <mtd/mtd-abi.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <random>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using kiv::test::Device;
using kiv::test::DeviceOptions;
using kiv::test::RunOptions;
using kiv::test::SandboxResult;
using kiv::test::SyslogLine;

namespace {

const std::string kMtdTool = SIM_MTDTOOL_BIN;
const std::string kLogTool = SIM_LOGTOOL_BIN;

// sim_mtdtool on /dev/mtdN with steps separated by "+".
std::vector<std::string> mtd(int n, std::vector<std::string> steps) {
    std::vector<std::string> argv{kMtdTool, "/dev/mtd" + std::to_string(n)};
    argv.insert(argv.end(), steps.begin(), steps.end());
    return argv;
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t nl = text.find('\n', start);
        if (nl == std::string::npos) nl = text.size();
        out.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    return out;
}

std::vector<std::uint8_t> slice(const std::vector<std::uint8_t> &v, std::size_t off,
                                std::size_t n) {
    return std::vector<std::uint8_t>(v.begin() + static_cast<std::ptrdiff_t>(off),
                                     v.begin() + static_cast<std::ptrdiff_t>(off + n));
}

std::vector<std::uint8_t> filled(std::size_t n, std::uint8_t b) {
    return std::vector<std::uint8_t>(n, b);
}

} // namespace

// ------------------------------------------------------------ geometry, layout

TEST(Sim, DefaultLayoutDevices) {
    Device dev;
    auto r = dev.run({"/bin/sh", "-c",
                      "for i in $(seq 0 20); do test -e /dev/mtd$i && "
                      "echo mtd$i $(stat -c %s /dev/mtd$i); done; true"});
    ASSERT_EQ(r.exit, 0) << r.describe();
    std::vector<std::string> want;
    for (int i = 0; i < 20; ++i) {
        unsigned long size = 256 * 1024;
        if (i == 2 || i == 5) size = 128 * 1024;
        if (i == 7) size = 2 * 1024 * 1024;
        if (i == 8) size = 8 * 1024 * 1024;
        if (i == 19) size = 6 * 1024 * 1024;
        want.push_back("mtd" + std::to_string(i) + " " + std::to_string(size));
    }
    EXPECT_EQ(lines(r.out), want);
}

TEST(Sim, MemGetInfoGeometry) {
    Device dev;
    auto r = dev.run(mtd(5, {"info"}));
    ASSERT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, "size=131072 erasesize=65536 writesize=1 oobsize=0 type=" +
                         std::to_string(MTD_NORFLASH) +
                         " flags=" + std::to_string(MTD_CAP_NORFLASH) + "\n");
    r = dev.run(mtd(8, {"info"}));
    EXPECT_EQ(r.out.substr(0, r.out.find(' ')), "size=8388608") << r.describe();
}

TEST(Sim, CustomLayoutGeometry) {
    DeviceOptions o;
    o.layout = "# test layout\nmtd 0 size=64K erase=16K\nmtd 4 size=0x40000 erase=128K locked\n";
    Device dev(o);
    auto r = dev.run({"/bin/sh", "-c", "ls /dev | grep mtd"});
    EXPECT_EQ(r.out, "mtd0\nmtd4\n") << r.describe();
    r = dev.run(mtd(0, {"info"}));
    EXPECT_EQ(r.out.substr(0, r.out.find(" writesize")), "size=65536 erasesize=16384")
        << r.describe();
    r = dev.run(mtd(4, {"info"}));
    EXPECT_EQ(r.out.substr(0, r.out.find(" writesize")), "size=262144 erasesize=131072")
        << r.describe();
}

TEST(Sim, BadLayoutIsASandboxFailure) {
    Device dev;
    std::string bad = dev.write_file("bad.layout", "mtd 1 size=100K erase=64K\n");
    auto r = kiv::test::run_process(
        {kiv::test::sandbox_bin(), "--dir", dev.dir(), "--layout", bad, "--", "/bin/true"});
    EXPECT_EQ(r.exit, 125) << r.describe();
    EXPECT_NE(r.err.find("kiv-sandbox: "), std::string::npos) << r.describe();
    EXPECT_NE(r.err.find("line 1"), std::string::npos) << r.describe();
}

// ------------------------------------------------------------ NOR semantics

TEST(Sim, NorViolationIsRecordedAndBitsStayCleared) {
    Device dev;
    auto r = dev.run(mtd(3, {"write", "0", "00", "16", "+", "write", "0", "ff", "16"}));
    ASSERT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.events, (std::vector<std::string>{"open mtd3 rw", "write mtd3 0 16",
                                                  "write mtd3 0 16", "violation mtd3 0 16"}))
        << r.describe();
    auto img = dev.flash(3);
    EXPECT_EQ(slice(img, 0, 16), filled(16, 0x00));
    EXPECT_EQ(img[16], 0xFF);
}

TEST(Sim, WriteStoresOldAndNew) {
    Device dev;
    auto r = dev.run(mtd(
        3, {"write", "100", "f0", "4", "+", "write", "102", "0f", "4", "+", "read", "100", "6"}));
    ASSERT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(lines(r.out).back(), "read 6 f0f000000f0f");
    // The second write wants 1s where the first left 0s, from its first byte.
    EXPECT_EQ(r.events_with("violation"), std::vector<std::string>{"violation mtd3 102 4"});
}

TEST(Sim, EraseSetsWholeBlocksToFF) {
    Device dev;
    dev.set_flash(3, filled(3 * 65536, 0x00));
    auto r = dev.run(mtd(3, {"erase", "65536", "65536"}));
    ASSERT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.events_with("erase"), std::vector<std::string>{"erase mtd3 65536 65536"});
    auto img = dev.flash(3);
    EXPECT_EQ(slice(img, 0, 65536), filled(65536, 0x00));
    EXPECT_EQ(slice(img, 65536, 65536), filled(65536, 0xFF));
    EXPECT_EQ(slice(img, 131072, 65536), filled(65536, 0x00));
}

TEST(Sim, EraseRegionsMustBeAlignedAndInside) {
    Device dev;
    auto r = dev.run(
        mtd(3, {"erase", "1", "65536", "+", "erase", "0", "1000", "+", "erase", "262144", "65536",
                "+", "erase", "196608", "131072", "+", "erase", "196608", "65536"}));
    EXPECT_EQ(r.out, "erase EINVAL\nerase EINVAL\nerase EINVAL\nerase EINVAL\nerase ok\n")
        << r.describe();
    EXPECT_EQ(r.events_with("erase"), std::vector<std::string>{"erase mtd3 196608 65536"});
}

TEST(Sim, WritesAndReadsAtTheEnd) {
    Device dev;
    auto r = dev.run(mtd(5, {"write", "131068", "00", "8", "+", "write", "131072", "00", "1", "+",
                             "read", "131070", "8", "+", "read", "131072", "4"}));
    EXPECT_EQ(r.out, "write 4\nwrite ENOSPC\nread 2 0000\nread 0 \n") << r.describe();
    EXPECT_EQ(r.events_with("write"), std::vector<std::string>{"write mtd5 131068 4"});
}

TEST(Sim, TruncatingOpenDoesNotShrink) {
    Device dev;
    dev.set_flash(3, kiv::test::bytes_of("keep"));
    auto r = dev.run(mtd(3, {"truncopen", "+", "size", "+", "read", "0", "4"}));
    ASSERT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, "truncopen ok\nsize 262144 262144\nread 4 6b656570\n");
    r = dev.run({"/bin/sh", "-c", "printf x > /dev/mtd3; stat -c %s /dev/mtd3"});
    EXPECT_EQ(r.out, "262144\n") << r.describe();
    EXPECT_EQ(dev.flash(3).size(), 262144u);
    EXPECT_EQ(dev.flash(3)[0], 'k' & 'x');
}

TEST(Sim, LockedDeviceRefusesEraseAndWrite) {
    DeviceOptions o;
    o.layout = "mtd 3 size=256K erase=64K\nmtd 4 size=256K erase=64K locked\n";
    Device dev(o);
    auto r = dev.run(mtd(4, {"erase", "0", "65536", "+", "write", "0", "00", "4", "+", "islocked",
                             "+", "read", "0", "2"}));
    EXPECT_EQ(r.out, "erase EROFS\nwrite EROFS\nislocked 1\nread 2 ffff\n") << r.describe();
    EXPECT_EQ(dev.flash(4), filled(256 * 1024, 0xFF));
    EXPECT_TRUE(r.events_with("erase").empty());
    EXPECT_TRUE(r.events_with("write").empty());
    r = dev.run(mtd(3, {"islocked", "+", "islocked", "65536", "65536"}));
    EXPECT_EQ(r.out, "islocked 0\nislocked 0\n") << r.describe();
}

TEST(Sim, IsLockedChecksTheCallersRegion) {
    Device dev;
    auto r = dev.run(mtd(3, {"islocked", "196608", "131072"}));
    EXPECT_EQ(r.out, "islocked EINVAL\n") << r.describe();
}

TEST(Sim, OtherIoctlsAreNotSupported) {
    Device dev;
    auto r = dev.run(mtd(3, {"lock"}));
    EXPECT_EQ(r.out, "lock ENOTTY\n") << r.describe();
}

TEST(Sim, OpenModesAreLogged) {
    Device dev;
    auto r = dev.run({"/bin/sh", "-c",
                      "cat /dev/mtd2 >/dev/null; printf '' >> /dev/mtd2; " + kMtdTool +
                          " /dev/mtd2 info >/dev/null"});
    ASSERT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.events, (std::vector<std::string>{"open mtd2 r", "open mtd2 w", "open mtd2 rw"}));
}

// ------------------------------------------------------------ persistence

TEST(Sim, FlashSurvivesARebootAndRunsSeeOnlyTheirOwnEvents) {
    Device dev;
    auto r1 = dev.run(mtd(7, {"write", "4096", "a5", "3"}));
    ASSERT_EQ(r1.exit, 0) << r1.describe();
    auto r2 = dev.run(mtd(7, {"read", "4095", "5"}));
    EXPECT_EQ(r2.out, "read 5 ffa5a5a5ff\n") << r2.describe();
    EXPECT_EQ(r2.events, std::vector<std::string>{"open mtd7 rw"});
    EXPECT_EQ(dev.all_events().size(), 3u);
    EXPECT_EQ(slice(dev.flash(7), 4096, 3), filled(3, 0xA5));
}

TEST(Sim, PresetFlashIsWhatTheCommandReads) {
    Device dev;
    dev.set_flash(5, std::vector<std::uint8_t>{0x12, 0x34}, 131070);
    auto r = dev.run(mtd(5, {"read", "131070", "2"}));
    EXPECT_EQ(r.out, "read 2 1234\n") << r.describe();
    dev.erase_flash(5);
    EXPECT_EQ(dev.flash(5), filled(131072, 0xFF));
}

// ------------------------------------------------------------ faults

TEST(Sim, EraseFaultFailsThatBlock) {
    Device dev;
    dev.set_flash(3, filled(262144, 0x00));
    RunOptions o;
    o.faults = {"erase:mtd3:1"};
    auto r = dev.run(mtd(3, {"erase", "0", "196608", "+", "erase", "131072", "65536"}), o);
    EXPECT_EQ(r.out, "erase EIO\nerase ok\n") << r.describe();
    EXPECT_EQ(r.events_with("fault"), std::vector<std::string>{"fault erase mtd3 65536"});
    auto img = dev.flash(3);
    EXPECT_EQ(slice(img, 0, 65536), filled(65536, 0xFF));
    EXPECT_EQ(slice(img, 65536, 65536), filled(65536, 0x00));
    EXPECT_EQ(slice(img, 131072, 65536), filled(65536, 0xFF));
}

TEST(Sim, WriteFaultFailsWritesCoveringTheOffset) {
    Device dev;
    RunOptions o;
    o.faults = {"write:mtd3:0x6e"}; // 110
    auto r = dev.run(mtd(3, {"write", "100", "00", "16", "+", "write", "0", "00", "16"}), o);
    EXPECT_EQ(r.out, "write EIO\nwrite 16\n") << r.describe();
    EXPECT_EQ(r.events_with("fault"), std::vector<std::string>{"fault write mtd3 110"});
    auto img = dev.flash(3);
    EXPECT_EQ(slice(img, 100, 16), filled(16, 0xFF));
    EXPECT_EQ(slice(img, 0, 16), filled(16, 0x00));
}

TEST(Sim, ShortWriteStoresOnlyTheBytesBeforeTheOffset) {
    Device dev;
    RunOptions o;
    o.faults = {"short:mtd3:10"};
    auto r = dev.run(mtd(3, {"write", "0", "00", "16", "+", "write", "10", "00", "6"}), o);
    EXPECT_EQ(r.out, "write 10\nwrite 6\n") << r.describe();
    EXPECT_EQ(r.events_with("fault"), std::vector<std::string>{"fault short mtd3 10"});
    EXPECT_EQ(slice(dev.flash(3), 0, 17), [] {
        auto v = filled(17, 0x00);
        v[16] = 0xFF;
        return v;
    }());
}

TEST(Sim, ShortWriteLeavesTheRestErased) {
    Device dev;
    RunOptions o;
    o.faults = {"short:mtd3:10"};
    auto r = dev.run(mtd(3, {"write", "0", "00", "16"}), o);
    EXPECT_EQ(r.out, "write 10\n") << r.describe();
    EXPECT_EQ(r.exit, 1);
    EXPECT_EQ(slice(dev.flash(3), 0, 16), [] {
        auto v = filled(16, 0xFF);
        std::fill(v.begin(), v.begin() + 10, 0x00);
        return v;
    }());
}

TEST(Sim, BitflipChangesReadsOnly) {
    Device dev;
    RunOptions o;
    o.faults = {"bitflip:mtd3:5:0", "bitflip:mtd3:6:7"};
    auto r = dev.run(mtd(3, {"read", "4", "4"}), o);
    EXPECT_EQ(r.out, "read 4 fffe7fff\n") << r.describe();
    EXPECT_EQ(r.events_with("fault"),
              (std::vector<std::string>{"fault bitflip mtd3 5", "fault bitflip mtd3 6"}));
    EXPECT_EQ(slice(dev.flash(3), 4, 4), filled(4, 0xFF));
    r = dev.run(mtd(3, {"read", "4", "4"}));
    EXPECT_EQ(r.out, "read 4 ffffffff\n") << r.describe();
}

TEST(Sim, FaultsOnUnknownDevicesAreRefused) {
    Device dev;
    RunOptions o;
    o.faults = {"erase:mtd3:4"}; // mtd3 has 4 blocks: 0..3
    auto r = dev.run({"/bin/true"}, o);
    EXPECT_EQ(r.exit, 125) << r.describe();
    o.faults = {"flip:mtd3:1"};
    r = dev.run({"/bin/true"}, o);
    EXPECT_EQ(r.exit, 125) << r.describe();
    EXPECT_NE(r.err.find("kiv-sandbox: bad fault"), std::string::npos) << r.describe();
}

TEST(Sim, PowerCutKeepsExactlyTheFirstOperations) {
    Device dev;
    RunOptions o;
    o.faults = {"powercut:3"};
    auto r = dev.run(mtd(3, {"erase", "0", "65536", "+", "write", "0", "00", "16", "+", "write",
                             "16", "00", "16", "+", "write", "32", "00", "16"}),
                     o);
    EXPECT_EQ(r.exit, 137) << r.describe();
    // The program never saw the answer to operation 3.
    EXPECT_EQ(r.out, "erase ok\nwrite 16\n") << r.describe();
    EXPECT_EQ(r.events,
              (std::vector<std::string>{"open mtd3 rw", "erase mtd3 0 65536", "write mtd3 0 16",
                                        "write mtd3 16 16", "powercut 3"}));
    auto img = dev.flash(3);
    EXPECT_EQ(slice(img, 0, 32), filled(32, 0x00));
    EXPECT_EQ(slice(img, 32, 16), filled(16, 0xFF));

    // Reboot: the flash holds what was programmed before the cut.
    r = dev.run(mtd(3, {"read", "30", "4"}));
    EXPECT_EQ(r.out, "read 4 0000ffff\n") << r.describe();
}

TEST(Sim, PowerCutCountsOperationsAcrossDevicesAndKillsEveryProcess) {
    Device dev;
    RunOptions o;
    o.faults = {"powercut:2"};
    // Operation 2 is on another device than operation 1; the shell running the
    // writers dies at the cut too, so nothing after it runs.
    std::string script = kMtdTool + " /dev/mtd1 write 0 00 1 && " + kMtdTool +
                         " /dev/mtd2 write 0 00 1 && echo after-cut; " + kMtdTool +
                         " /dev/mtd4 write 0 00 1; echo unreachable";
    auto r = dev.run({"/bin/sh", "-c", script}, o);
    EXPECT_EQ(r.exit, 137) << r.describe();
    EXPECT_EQ(r.out, "write 1\n") << r.describe();
    EXPECT_EQ(r.events_with("powercut"), std::vector<std::string>{"powercut 2"});
    EXPECT_EQ(dev.flash(1)[0], 0x00);
    EXPECT_EQ(dev.flash(2)[0], 0x00);
    EXPECT_EQ(dev.flash(4)[0], 0xFF);
}

TEST(Sim, PowerCutBeyondTheRunChangesNothing) {
    Device dev;
    RunOptions o;
    o.faults = {"powercut:100"};
    auto r = dev.run(mtd(3, {"write", "0", "00", "1"}), o);
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_TRUE(r.events_with("powercut").empty());
}

// ------------------------------------------------------------ syslog

TEST(Sim, SyslogMessagesAreCaptured) {
    Device dev;
    auto r = dev.run({kLogTool, "KIV", "1.3", "Unknown action\n"});
    ASSERT_EQ(r.exit, 0) << r.describe();
    ASSERT_EQ(r.syslog.size(), 1u) << r.describe();
    EXPECT_EQ(r.syslog[0], (SyslogLine{1, 3, "KIV", "Unknown action\n"}));
    EXPECT_EQ(kiv::test::read_text_file(dev.dir() + "/syslog"), "1.3\tKIV\tUnknown action\\n\n");
}

TEST(Sim, SyslogEscapesRoundTrip) {
    Device dev;
    std::string text = "a\tb\\c\nd: e";
    auto r = dev.run({kLogTool, "tool", "16.6", text});
    ASSERT_EQ(r.syslog.size(), 1u) << r.describe();
    EXPECT_EQ(r.syslog[0], (SyslogLine{16, 6, "tool", text}));
    EXPECT_EQ(kiv::test::read_text_file(dev.dir() + "/syslog"), "16.6\ttool\ta\\tb\\\\c\\nd: e\n");
}

TEST(Sim, LoggerMessagesAreCaptured) {
    Device dev;
    auto r = dev.run({"logger", "-t", "upgrade", "-p", "user.err", "hello from logger"});
    ASSERT_EQ(r.exit, 0) << r.describe();
    ASSERT_EQ(r.syslog.size(), 1u) << r.describe();
    EXPECT_EQ(r.syslog[0], (SyslogLine{1, 3, "upgrade", "hello from logger"}));
}

TEST(Sim, EveryMessageIsKeptInOrder) {
    Device dev;
    auto r = dev.run({kLogTool, "burst", "1.6", "message", "2000"});
    ASSERT_EQ(r.exit, 0) << r.describe();
    ASSERT_EQ(r.syslog.size(), 2000u);
    for (int i = 0; i < 2000; ++i)
        ASSERT_EQ(r.syslog[static_cast<std::size_t>(i)].text, "message #" + std::to_string(i));
}

TEST(Sim, LateMessagesOfAParentAreKept) {
    Device dev;
    auto r = dev.run({kLogTool, "--child-first", "KIV", "1.5", "done"});
    ASSERT_EQ(r.exit, 0) << r.describe();
    ASSERT_EQ(r.syslog.size(), 2u) << r.describe();
    EXPECT_EQ(r.syslog[0].text, "child: done");
    EXPECT_EQ(r.syslog[1].text, "parent: done");
    // A second run reports only its own messages.
    r = dev.run({kLogTool, "KIV", "1.5", "again"});
    ASSERT_EQ(r.syslog.size(), 1u) << r.describe();
    EXPECT_EQ(r.syslog[0].text, "again");
    EXPECT_EQ(dev.all_syslog().size(), 3u);
}

// ------------------------------------------------------------ environment

TEST(Sim, ProcCmdlineIsReplaced) {
    Device dev;
    auto r = dev.run({"/bin/cat", "/proc/cmdline"});
    EXPECT_EQ(r.out, "console=ttyS0 KIVSET=SET1\n") << r.describe();
    RunOptions o;
    o.cmdline = "console=ttyS0 KIVSET=SET2 quiet";
    r = dev.run({"/bin/cat", "/proc/cmdline"}, o);
    EXPECT_EQ(r.out, "console=ttyS0 KIVSET=SET2 quiet\n") << r.describe();

    DeviceOptions d;
    d.layout = "mtd 0 size=64K erase=64K\ncmdline root=/dev/mtdblock1 KIVSET=SET2\n";
    Device dev2(d);
    r = dev2.run({"/bin/cat", "/proc/cmdline"});
    EXPECT_EQ(r.out, "root=/dev/mtdblock1 KIVSET=SET2\n") << r.describe();
}

TEST(Sim, TmpIsFreshAndPrivate) {
    char host_file[] = "/tmp/kiv-sim-host-XXXXXX";
    int fd = mkstemp(host_file);
    ASSERT_GE(fd, 0);
    close(fd);
    Device dev;
    std::string inside = "/tmp/kiv-sim-inside-" + std::to_string(getpid());
    auto r = dev.run({"/bin/sh", "-c",
                      std::string("test -e ") + host_file + " && echo host-visible; touch " +
                          inside + " && echo created; ls -A /tmp"});
    unlink(host_file);
    EXPECT_EQ(r.exit, 0) << r.describe();
    auto out = lines(r.out);
    ASSERT_FALSE(out.empty()) << r.describe();
    EXPECT_EQ(out[0], "created");
    // Only what was created inside, and the kept paths' top directories.
    for (std::size_t i = 1; i < out.size(); ++i) {
        std::string entry = "/tmp/" + out[i];
        bool kept = entry == inside || dev.dir().rfind(entry + "/", 0) == 0 ||
                    kiv::test::binary_dir().rfind(entry, 0) == 0 ||
                    kiv::test::source_dir().rfind(entry, 0) == 0;
        EXPECT_TRUE(kept) << entry;
    }
    EXPECT_NE(access(inside.c_str(), F_OK), 0) << "a file made in the sandbox's /tmp leaked";
}

TEST(Sim, CommandDirectoryUnderTmpStaysReachable) {
    char dir[] = "/tmp/kiv-sim-cmd-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string prog = std::string(dir) + "/tool";
    {
        std::ifstream in(kMtdTool, std::ios::binary);
        std::ofstream out(prog, std::ios::binary);
        out << in.rdbuf();
    }
    chmod(prog.c_str(), 0755);
    Device dev;
    // Run the sandbox directly, without the helper's --keep of its own dirs.
    auto r = kiv::test::run_process(
        {kiv::test::sandbox_bin(), "--dir", dev.dir(), "--", prog, "/dev/mtd3", "info"});
    unlink(prog.c_str());
    rmdir(dir);
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out.rfind("size=262144 ", 0), 0u) << r.describe();
}

TEST(Sim, WorkingDirectoryAndKeptPathsAreReachable) {
    Device dev;
    std::string file = dev.write_file("data.txt", "payload");
    RunOptions o;
    auto r = dev.run({"/bin/sh", "-c", "cat " + file + "; echo; pwd"}, o);
    EXPECT_EQ(lines(r.out)[0], "payload") << r.describe();
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    EXPECT_EQ(lines(r.out)[1], cwd) << r.describe();
}

TEST(Sim, RunningFromTmpItselfGivesTheFreshTmp) {
    Device dev;
    RunOptions o;
    o.cwd = "/tmp";
    auto r =
        dev.run({"/bin/sh", "-c", "pwd; touch here && echo ok; cat " + dev.dir() + "/cmdline"}, o);
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, "/tmp\nok\nconsole=ttyS0 KIVSET=SET1\n") << r.describe();
    EXPECT_NE(access("/tmp/here", F_OK), 0);
}

TEST(Sim, HostcfgDefaultIsInstalled) {
    DeviceOptions d;
    d.hostcfg_default = "key=value\n";
    Device dev(d);
    auto r = dev.run({"/bin/sh", "-c", "cat /mnt/appl/hostcfg.default; stat -f -c %T /mnt/appl"});
    EXPECT_EQ(r.out, "key=value\ntmpfs\n") << r.describe();
    RunOptions o;
    o.hostcfg_default = "other\n";
    r = dev.run({"/bin/cat", "/mnt/appl/hostcfg.default"}, o);
    EXPECT_EQ(r.out, "other\n") << r.describe();
    Device bare;
    r = bare.run({"/bin/ls", "-A", "/mnt/appl"});
    EXPECT_EQ(r.out, "") << r.describe();
}

TEST(Sim, StdinIsPassedThrough) {
    Device dev;
    RunOptions o;
    o.input = "y\n";
    auto r = dev.run({"/bin/cat"}, o);
    EXPECT_EQ(r.out, "y\n") << r.describe();
}

TEST(Sim, ExitStatusIsTheCommands) {
    Device dev;
    EXPECT_EQ(dev.run({"/bin/sh", "-c", "exit 7"}).exit, 7);
    EXPECT_EQ(dev.run({"/bin/sh", "-c", "kill -TERM $$"}).exit, 128 + 15);
    auto r = dev.run({"no-such-command-kiv"});
    EXPECT_EQ(r.exit, 127) << r.describe();
    EXPECT_NE(r.err.find("kiv-sandbox: no-such-command-kiv"), std::string::npos);
}

TEST(Sim, TimeoutKillsEverything) {
    Device dev;
    RunOptions o;
    o.timeout = std::chrono::milliseconds(300);
    auto start = std::chrono::steady_clock::now();
    auto r = dev.run({"/bin/sh", "-c", "tail -f /dev/null & exec tail -f /dev/null"}, o);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(r.exit, 124) << r.describe();
    EXPECT_FALSE(r.timed_out);
    EXPECT_LT(took, std::chrono::seconds(5));
}

TEST(Sim, LeftoverProcessesEndWithTheCommand) {
    Device dev;
    // The background process holds stdout open; the run must still end.
    auto r = dev.run({"/bin/sh", "-c", "tail -f /dev/null & echo started"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, "started\n");
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
    // The sandbox's own --tty.
    auto p = kiv::test::run_process(
        {kiv::test::sandbox_bin(), "--dir", dev.dir(), "--tty", "--", "/bin/sh", "-c", probe});
    EXPECT_EQ(p.out, "tty\n") << p.describe();
    EXPECT_EQ(p.exit, 0);
}

TEST(Sim, NothingIsLeftMountedOnTheHost) {
    {
        Device dev;
        ASSERT_EQ(dev.run({"/bin/true"}).exit, 0);
        RunOptions o;
        o.timeout = std::chrono::milliseconds(200);
        ASSERT_EQ(dev.run({"/bin/sh", "-c", "exec tail -f /dev/null"}, o).exit, 124);
    }
    std::string mounts = kiv::test::read_text_file("/proc/self/mountinfo");
    EXPECT_EQ(mounts.find("kiv-flashsim"), std::string::npos) << mounts;
}

// Host pids of processes whose command line (NULs as spaces) starts with
// prefix and contains needle.
std::vector<pid_t> processes_with(const std::string &prefix, const std::string &needle) {
    std::vector<pid_t> pids;
    DIR *d = opendir("/proc");
    while (dirent *de = d ? readdir(d) : nullptr) {
        pid_t pid = std::atoi(de->d_name);
        if (pid <= 0 || pid == getpid()) continue;
        std::string cmdline;
        std::ifstream in("/proc/" + std::string(de->d_name) + "/cmdline", std::ios::binary);
        std::getline(in, cmdline, '\x01');
        std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
        if (cmdline.starts_with(prefix) && cmdline.find(needle) != std::string::npos)
            pids.push_back(pid);
    }
    if (d) closedir(d);
    return pids;
}

TEST(Sim, KillingTheSandboxEndsEverythingInIt) {
    Device dev;
    std::string marker = dev.dir() + "/marker"; // RUNDIR is reachable inside
    std::ofstream(marker).flush();
    int out[2];
    ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
    pid_t sandbox = fork();
    ASSERT_GE(sandbox, 0);
    if (sandbox == 0) {
        dup2(out[1], STDOUT_FILENO);
        alarm(30);
        execl(kiv::test::sandbox_bin().c_str(), "kiv-sandbox", "--dir", dev.dir().c_str(), "--",
              "/bin/sh", "-c", "echo started; exec tail -f /dev/null \"$0\"", marker.c_str(),
              nullptr);
        _exit(127);
    }
    close(out[1]);
    pollfd pfd{out[0], POLLIN, 0};
    ASSERT_EQ(poll(&pfd, 1, 10000), 1);
    char buf[16];
    ASSERT_GT(read(out[0], buf, sizeof buf), 0);

    // The command (found by its marker argument) and the simulator (by the
    // run directory in its arguments) are running now.
    std::vector<int> pidfds;
    for (const auto &[prefix, needle] : {std::pair{std::string("tail "), marker},
                                         {std::string("kiv-flashsim "), dev.dir() + "/flash"}}) {
        std::vector<pid_t> pids;
        // tail replaces the shell right after "started"; look until it has.
        for (int i = 0; i < 1000 && pids.empty(); ++i)
            pids = processes_with(prefix, needle);
        ASSERT_EQ(pids.size(), 1u) << needle;
        int fd = static_cast<int>(syscall(SYS_pidfd_open, pids[0], 0));
        ASSERT_GE(fd, 0);
        pidfds.push_back(fd);
    }
    kill(sandbox, SIGKILL);
    waitpid(sandbox, nullptr, 0);
    for (int fd : pidfds) {
        pollfd p{fd, POLLIN, 0};
        EXPECT_EQ(poll(&p, 1, 10000), 1) << "a process outlived the sandbox";
        close(fd);
    }
    close(out[0]);
    std::string mounts = kiv::test::read_text_file("/proc/self/mountinfo");
    EXPECT_EQ(mounts.find("kiv-flashsim"), std::string::npos);
}

// ------------------------------------------------------------ a real client

TEST(Sim, FlashcpWritesAndVerifiesAnImage) {
    const char *flashcp = "/usr/sbin/flashcp";
    if (access(flashcp, X_OK) != 0) GTEST_SKIP() << "mtd-utils' flashcp is not installed";
    Device dev;
    dev.set_flash(3, filled(262144, 0x00)); // flashcp must erase first
    std::string image(100000, '\0');
    std::mt19937 rng(42);
    for (auto &c : image)
        c = static_cast<char>(rng());
    std::string path = dev.write_file("image.bin", image);
    auto r = dev.run({flashcp, "-v", path, "/dev/mtd3"});
    ASSERT_EQ(r.exit, 0) << r.describe();
    EXPECT_TRUE(r.events_with("violation").empty()) << r.describe();
    EXPECT_EQ(r.events_with("erase").size(), 2u) << r.describe();
    auto img = dev.flash(3);
    EXPECT_TRUE(std::equal(image.begin(), image.end(), img.begin(), [](char a, std::uint8_t b) {
        return static_cast<std::uint8_t>(a) == b;
    }));
    EXPECT_EQ(slice(img, 131072, 131072), filled(131072, 0x00));
}

// ------------------------------------------------------------ the daemon alone

TEST(FlashSim, AfterPowerLossWritesAndWritableOpensFail) {
    DeviceOptions d;
    d.layout = "mtd 0 size=128K erase=64K\n";
    Device dev(d); // only for its images; the simulator runs without the sandbox
    dev.set_flash(0, filled(4, 0x00));
    std::string events = dev.scratch_path("events");
    auto r = kiv::test::run_process({SIM_PROBE_BIN,
                                     kiv::test::flashsim_bin(),
                                     dev.dir() + "/flash",
                                     events,
                                     "--fault",
                                     "powercut:2",
                                     "--",
                                     kMtdTool,
                                     "@MNT@/mtd0",
                                     "erase",
                                     "0",
                                     "65536",
                                     "+",
                                     "write",
                                     "0",
                                     "00",
                                     "1",
                                     "+",
                                     "write",
                                     "1",
                                     "00",
                                     "1",
                                     "+",
                                     "erase",
                                     "65536",
                                     "65536",
                                     "+",
                                     "read",
                                     "0",
                                     "2",
                                     "+",
                                     "reopen"});
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_EQ(r.out, "erase ok\nwrite 1\nwrite EIO\nerase EIO\nread 2 00ff\nreopen EIO\n")
        << r.describe();
    EXPECT_EQ(kiv::test::read_text_file(events),
              "open mtd0 rw\nerase mtd0 0 65536\nwrite mtd0 0 1\npowercut 2\n");
    auto img = dev.flash(0);
    EXPECT_EQ(slice(img, 0, 4), (std::vector<std::uint8_t>{0x00, 0xFF, 0xFF, 0xFF}));
}

TEST(FlashSim, ServesEveryImageOfADirectory) {
    DeviceOptions d;
    d.layout = "mtd 2 size=64K erase=64K\nmtd 11 size=128K erase=64K\n";
    Device dev(d);
    auto r = kiv::test::run_process({SIM_PROBE_BIN, kiv::test::flashsim_bin(), dev.dir() + "/flash",
                                     dev.scratch_path("events"), "--", "/bin/ls", "@MNT@"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, "mtd11\nmtd2\n") << r.describe();
}
