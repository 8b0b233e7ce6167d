// The real kiv on the simulated device: command line, process guard and lock as a user sees them.
#include <algorithm>
#include <fcntl.h>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/cat.hpp"

#include "support/sandbox.hpp"

namespace {

using namespace kiv::test;

const std::string USAGE_HEAD = "Usage: kiv [ ... ] ACTION [ ... ]\nwhere ACTION usage must be";

SyslogLine logged(int severity, const std::string &text) {
    return SyslogLine{LOG_USER >> 3, severity, "KIV", text};
}

// Refused (err) or reaching the unknown action "x" (out: part of -v); "KIV_..." words are env.
TEST(KivFrontE2e, CommandLines) {
    Device dev;
    const std::string node = dev.scratch_path("b%d"), held = dev.scratch_path("held.lock");
    ASSERT_EQ(::mknod(node.c_str(), S_IFBLK | 0600, makedev(7, 0)), 0) << "needs root";
    const int held_fd = ::open(held.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::flock(held_fd, LOCK_EX), 0);
    const std::string fits = cat("/", std::string(98, 'c')), huge(1100, 'P');
    std::vector<std::string> twenty = {"-v", "x"};
    for (int i = 1; i < 20; ++i)
        twenty.push_back(std::to_string(i));
    const std::vector<std::string> nineteen(twenty.begin(), twenty.end() - 1);
    struct Row {
        std::vector<std::string> words;
        std::string err, out = {};
    };
    const Row rows[] = {
        {{"-v", "x"},
         "",
         "action: x hostcfg: /dev/mtd5 (backup: /dev/mtd2) device: /dev/mtd%i -r: 0 -dryrun: 0 "
         "-v: 1 -f: 0 -meta: 0.0.0 -zunfsize=16777216 -rewrite=0\n-minver: 0.0.0 -lockfile: "
         "/tmp/kiv.lock -autosetfile: /tmp/kiv.autoset -activesetfile: /tmp/kiv.activeset\n"
         "other: \n"},
        {{"x", "-r", "-dryrun", "-f", "-v"}, "", "-r: 1 -dryrun: 1 -v: 1 -f: 1 "},
        {{"x", "-v", "-rx", "-vv", "-product="}, "", "other: -rx -vv -product= \n"},
        {{"-v", "-meta=0x10.010.-1", "x"}, "", "-meta: 16.8.-1 "},
        {{"-v", "-meta=FF10ABCD", "x"}, "", "-meta: 255.16.43981 "},
        {{"-meta=", "x"}, "-meta syntax failure.\n"},
        {{"-v", "-minver=1.2.300", "x"}, "", "-minver: 1.2.300 "},
        {{"-minver=1.2", "x"}, "-minver syntax failure.\n"},
        {{"-v", "-zunfsize=1000", "-rewriteall", "x"}, "", "-zunfsize=1000 -rewrite=1\n"},
        {{"-zunfsizes=5", "x"}, "-zunfsize syntax failure.\n"},
        {{"-iptos=x", "x"}, "-iptos syntax failure.\n"},
        {{"-v", "-cfg= /a b", "x"}, "", "hostcfg: /a (backup: ) "},
        {{"-v", "-cfgbak=/b", "-cfg=" + fits, "x"}, "", "hostcfg: " + fits + " (backup: /b) "},
        {{"-cfg=" + fits + "c", "x"}, "-cfg value too long.\n"},
        {{"-cfg", "x"}, "-cfg syntax failure.\n"},
        {{"-v", "-lockfile=/tmp/l", "-autosetfile=/a", "x"}, "", ": /tmp/l -autosetfile: /a "},
        {{"-v", "-activesetfile=/c", "x"}, "", "-activesetfile: /c\n"},
        // A '%' in the node's name must stay literal in the partition pattern.
        {{"-v", "-dev=" + node, "x"}, "", "device: " + dev.scratch_path("b%%d%i ")},
        {{"-dev=/dev/mtd5", "x"}, "-dev failure. /dev/mtd5 is not a block device\n"},
        {{"-dev=" + fits, "x"}, "-dev failure. " + fits.substr(0, 40) + " is not a block device\n"},
        {{"-device=x", "x"}, "-dev syntax failure.\n"},
        {{cat("-plugin=", std::string(199, 'p')), "x"}, "plugin support not enabled.\n"},
        {{cat("-plugin=", std::string(200, 'p')), "x"}, "-plugin value too long.\n"},
        {{"-lockfile=" + held, "x"}, "Could not acquire kiv lock\n"},
        {nineteen, "", "other: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 \n"},
        {twenty, "Too many arguments.\n"},
        {{"-v"}, "ACTION is missing.\n"},
        {{}, "Syntax error, argc(1) < 2\n", USAGE_HEAD},
        {{"KIV_PRODUCT=ABCDEFGHIJKLMNO", "KIV_PLATFORM=ABCDEFG", "x"}, ""},
        {{"KIV_PRODUCT=ABCDEFGHIJKLMNOP", "x"}, "KIV_PRODUCT too long: ABCDEFGHIJKLMNOP\n"},
        {{"KIV_PLATFORM=ABCDEFGH", "x"}, "KIV_PLATFORM too long: ABCDEFGH\n"},
        {{"KIV_PRODUCT=" + huge, "x"}, cat("KIV_PRODUCT too long: ", huge).substr(0, 1023)},
    };
    for (const auto &[words, refusal, out] : rows) {
        RunOptions options;
        std::vector<std::string> args;
        for (const std::string &w : words)
            (w.starts_with("KIV_") ? options.env : args).push_back(w);
        SCOPED_TRACE(testing::PrintToString(words).substr(0, 100));
        SandboxResult r = dev.run_kiv(args, options);
        const std::string err = refusal.empty() ? "Unknown action\n" : refusal;
        EXPECT_EQ(r.exit, 1) << r.describe();
        EXPECT_EQ(r.err, err);
        EXPECT_TRUE(out.empty() ? r.out.empty() : r.out.find(out) != std::string::npos) << r.out;
        EXPECT_EQ(r.syslog, std::vector{logged(err.starts_with("KIV_") ? LOG_CRIT : LOG_ERR, err)});
    }
}

// Parent and child share one standard error and one log: their order is not fixed.
std::vector<std::string> sorted_lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
}

// kiv help with one C library call made to fail by guard_preload.cpp ("status=4991": stopped).
TEST(KivFrontE2e, ProcessGuard) {
    // {fault, exit, severity, standard error and, line by line, the system log, lock left}
    const std::tuple<const char *, int, int, std::string, bool> rows[] = {
        {"abort", 69, LOG_CRIT, "child terminated by signal #6\n", true},
        {"signals", 0, LOG_INFO,
         "yet unknown if child: Got signal #1\nparent: Got signal #3\nparent: Got signal #15\n"
         "child: Got signal #2\nparent: Got signal #10\nchild: Got signal #12\n",
         false},
        {"unlink", 0, LOG_ERR, "WARNING: kiv_unlock failed\n", false},
        {"fork", 1, LOG_ERR, "Fork failed\n", false},
        {"wait", 12, LOG_CRIT, "wait() did not succeed\n", false},
        {"status=4991", 13, LOG_CRIT, "child terminated for some unknown reason\n", false},
        {"status=64", 127, LOG_CRIT, "child terminated by signal #64\n", false},
        {"status=65", 63, LOG_CRIT, "child terminated by unknown signal #65\n", false},
        {"getpgrp", 3, LOG_ERR, "getpgrp() failed\n", false},
        {"setpgid", 3, LOG_ERR, "setpgid() failed\n", false},
        {"same_group", 3, LOG_ERR, "No new process group created?\n", false},
        {"sigaction", 4, LOG_ERR, "Could not catch signal #10\n", false},
        {"unlock", 0, LOG_ERR, "WARNING: kiv_unlock failed\n", true},
        {"replaced", 1, LOG_ERR, "Could not acquire kiv lock\n", true},
    };
    Device dev;
    const std::string lock = dev.scratch_path("kiv.lock"), preload = KIV_GUARD_PRELOAD;
    RunOptions options;
    options.keep.push_back(preload.substr(0, preload.rfind('/')));
    for (const auto &[fault, exit, severity, err, lock_left] : rows) {
        SCOPED_TRACE(fault);
        SandboxResult r =
            dev.run({"/usr/bin/env", "LD_PRELOAD=" + preload, cat("KIV_GUARD_FAULT=", fault),
                     "KIV_GUARD_LOCK=" + lock, kiv_bin(), "-lockfile=" + lock, "help"},
                    options);
        EXPECT_EQ(r.exit, exit) << r.describe();
        EXPECT_TRUE(exit != 0 || r.out.starts_with(USAGE_HEAD)) << r.describe();
        EXPECT_EQ(sorted_lines(r.err), sorted_lines(err));
        EXPECT_EQ(r.syslog.size(), sorted_lines(err).size()); // the same texts, see CommandLines
        for (const SyslogLine &line : r.syslog)
            EXPECT_EQ(line, logged(severity, line.text));
        struct stat st = {};
        EXPECT_EQ(::stat(lock.c_str(), &st) == 0 ? st.st_mode & 07777 : 0u, lock_left ? 0600u : 0u);
    }
}

} // namespace
