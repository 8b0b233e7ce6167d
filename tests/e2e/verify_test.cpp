// verify on the simulated device: the whole-device listing with every content check
// outcome and both disparity warnings, and the per-set mode. verify only reads.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;

// The counts are partitions with a disparity over pools of the kind: KERNEL-SAFE,
// ROOT-SAFE and CONF are singleton pools, APPL, DATA and KERNEL multi pools.
const std::string MULTI_WARNING = "WARNING: 2/3 multi pools have a disparity between\n"
                                  "             calculated and hostconfig recorded\n"
                                  "             CRC32 values.\n";
const std::string SINGLETON_WARNING = "WARNING: 1/3 singleton pools have a disparity between\n"
                                      "             calculated and hostconfig recorded \n"
                                      "             CRC32 values.\n";
const std::string ACTIVE_SET_LINES =
    "             AT LEAST ONE OF THESE SINGLETONS IS PART OF THE ACTIVE SET\n"
    "             DO NOT REBOOT UNTIL THIS ISSUE HAS BEEN FIXED!\n";

// Every content check outcome on one device.
InstalledDevice listing_device(const std::vector<int> &corrupted = {}) {
    InstalledDevice d;
    d.install(0, "KERNEL-SAFE", 1, content_bytes(5000, 1), "kernel-safe");
    d.install(1, "ROOT-SAFE", 2, content_bytes(9000, 2), "rootfs-safe");
    d.install(3, "APPL", 3, content_bytes(4099, 3), "appl");
    d.entry(4, "APPL");
    d.install(6, "DATA", 1, content_bytes(100, 6), "data");
    d.rec.pinfometa[6].body_crc = 0; // length known, CRC not: nothing to compare with
    d.install(7, "KERNEL", 1, content_bytes(3000, 7), "kernel");
    d.install(8, "KERNEL", 1, content_bytes(3000, 8), "kernel");
    d.entry(9, "DATA");
    d.install(10, "CONF", 1, content_bytes(700, 10), "conf");
    d.set(0, "SAFESET", {0, 1});
    d.set(1, "SET1", {3, 7, 10});
    d.set(2, "SET2", {4, 8, 6});
    d.rec.actset = 1;
    for (int p : corrupted)
        d.partitions[p][17] ^= 0x40;
    return d;
}

std::string line(int i, const std::string &text) {
    char head[8];
    std::snprintf(head, sizeof head, " %2i  ", i);
    return head + text + "\n";
}

std::string pool_line(int i, const std::string &pool, const std::string &result) {
    char text[64];
    std::snprintf(text, sizeof text, "Belongs to pool %-15s  ", pool.c_str());
    return line(i, text + std::string("CRC32 content check: ") + result);
}

std::string listing(const std::string &kernel, const std::string &conf,
                    const std::string &appl = "OK") {
    std::string out = "Verifying partitions:\n";
    out += pool_line(0, "KERNEL-SAFE", "OK");
    out += pool_line(1, "ROOT-SAFE", "OK (wts=2)");
    out += line(2, "Not handled by KIV");
    // Written with the header behind the content, checked like the plain layout.
    out += pool_line(3, "APPL", appl);
    out += line(4, "Nothing installed");
    out += line(5, "Not handled by KIV");
    out += pool_line(6, "DATA", "UNKNOWN");
    out += pool_line(7, "KERNEL", kernel);
    out += pool_line(8, "KERNEL", kernel);
    out += line(9, "Nothing installed");
    out += pool_line(10, "CONF", conf);
    for (int i = 11; i < 20; ++i)
        out += line(i, "Not handled by KIV");
    return out;
}

TEST(VerifyE2e, ListingOfEveryOutcome) {
    struct Row {
        std::vector<int> corrupted;
        int actset;
        std::string out;
        std::vector<std::string> warnings; // on standard error, each logged as an error
    };
    const std::string &multi = MULTI_WARNING, &single = SINGLETON_WARNING;
    // Two broken singletons: the fallback kernel first, then CONF of the running set. The
    // second one alone decides the do-not-reboot lines.
    std::string two_singletons = listing("OK", "DISPARITY");
    const std::string kernel_safe_ok = pool_line(0, "KERNEL-SAFE", "OK");
    two_singletons.replace(two_singletons.find(kernel_safe_ok), kernel_safe_ok.size(),
                           pool_line(0, "KERNEL-SAFE", "DISPARITY"));
    std::string two_of_three = single;
    two_of_three.replace(two_of_three.find("1/3"), 3, "2/3");
    const std::vector<Row> rows = {
        {{}, 1, listing("OK", "OK"), {}},
        {{7, 8}, 1, listing("DISPARITY", "OK"), {multi}},
        {{10}, 1, listing("OK", "DISPARITY") + ACTIVE_SET_LINES, {single}},
        {{10}, 2, listing("OK", "DISPARITY"), {single}},
        {{7, 8, 10}, 1, listing("DISPARITY", "DISPARITY") + ACTIVE_SET_LINES, {multi, single}},
        {{0, 10}, 1, two_singletons + ACTIVE_SET_LINES, {two_of_three}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message()
                     << row.corrupted.size() << " corrupted, active set " << row.actset);
        Device dev;
        InstalledDevice d = listing_device(row.corrupted);
        d.rec.actset = static_cast<std::uint8_t>(row.actset);
        d.write_to(dev);

        SandboxResult r = kiv_on(dev, {"verify"});
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.out, row.out);
        std::string err;
        std::vector<SyslogLine> log;
        for (const std::string &warning : row.warnings) {
            err += warning;
            log.push_back(logged(LOG_ERR, warning));
        }
        EXPECT_EQ(r.err, err);
        EXPECT_EQ(r.syslog, log);
        expect_flash_untouched(r);
    }
}

// The third layout is only named when the first two checks did not confirm the content:
// here the device does not answer the first time it is opened. Under -v the dump comes
// before the listing.
TEST(VerifyE2e, ContentConfirmedOnlyByTheLastCheckAndVerboseDump) {
    Device dev;
    listing_device().write_to(dev);
    SandboxResult r = kiv_with_plugin(dev, {"KIV_TEST_FAIL_OPEN=/dev/mtd3"}, {"verify", "-v"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.err, "");
    const std::size_t list = r.out.find("Verifying partitions:\n");
    ASSERT_NE(list, std::string::npos) << r.out;
    EXPECT_EQ(r.out.substr(list), listing("OK", "OK", "OK (wts=3)"));
    EXPECT_LT(r.out.find(SETS_P1_HEAD), list);
    EXPECT_LT(r.out.find(STATES_VALID), list);
}

// Set mode: only the plain layout is tried, so the wts 2 partition 1 is "bad" there. The
// reference list ends at the first negative entry.
TEST(VerifyE2e, SetMode) {
    Device dev;
    InstalledDevice d = listing_device();
    d.set(2, "SET2", {0, 1, 6, 3});
    d.rec.sets[2].raw_refs[5] = 10;
    d.write_to(dev);

    const std::string set0 = "verify_set: Set 0: SAFESET\n"
                             "verify_set:   ref  0: KERNEL-SAFE  kernel-safe : ok\n"
                             "verify_set:   ref  1: ROOT-SAFE    rootfs-safe : bad\n";
    const std::string set1 = "verify_set: Set 1: SET1\n"
                             "verify_set:   ref  3: APPL         appl        : ok\n"
                             "verify_set:   ref  7: KERNEL       kernel      : ok\n"
                             "verify_set:   ref 10: CONF         conf        : ok\n";
    const std::string set2 = "verify_set: Set 2: SET2\n"
                             "verify_set:   ref  0: KERNEL-SAFE  kernel-safe : ok\n"
                             "verify_set:   ref  1: ROOT-SAFE    rootfs-safe : bad\n"
                             "verify_set:   ref  6: DATA         data        : empty\n"
                             "verify_set:   ref  3: APPL         appl        : ok\n";
    const std::string every_set = "verify_sets: Checking set -1\n" + set0 + set1 + set2;
    struct Row {
        std::vector<std::string> args;
        int exit;
        std::string out; // from the first line of the check on
    };
    const std::vector<Row> rows = {
        {{"verify", "0"}, 1, ""},
        {{"verify", "2"}, 1, ""},
        {{"verify", "SET2", "-v"}, 1, "verify_sets: Checking set 2\n" + set2},
        {{"verify", "0x1"}, 0, ""},
        {{"verify", "0", "-v"}, 1, "verify_sets: Checking set 0\n" + set0},
        {{"verify", "-v", "SET1"}, 0, "verify_sets: Checking set 1\n" + set1},
        // A word that names no set checks every set, reporting as under -v.
        {{"verify", "NOSUCHSET"}, 1, every_set},
        {{"verify", "3"}, 1, every_set},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.args[1] + (row.args.size() > 2 ? " " + row.args[2] : ""));
        SandboxResult r = kiv_on(dev, row.args);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        const std::size_t start = r.out.find("verify_sets:");
        EXPECT_EQ(start == std::string::npos ? "" : r.out.substr(start), row.out) << r.out;
        EXPECT_EQ(r.err, "");
        expect_flash_untouched(r);
    }

    // The set's result is its last failure: "empty" after "bad".
    EXPECT_EQ(kiv_on(dev, {"activate", "2"}).err, "activate: set 2 validation err=2\n");

    d.set(2, "SET2", {});
    d.write_to(dev);
    SandboxResult quiet = kiv_on(dev, {"verify", "2"});
    EXPECT_EQ(quiet.exit, 1) << quiet.describe();
    EXPECT_EQ(quiet.out, "");
    SandboxResult loud = kiv_on(dev, {"verify", "SET2", "-v"});
    EXPECT_EQ(loud.exit, 1) << loud.describe();
    EXPECT_TRUE(loud.out.ends_with("verify_sets: Checking set 2\n"
                                   "verify_set: Set 2: SET2\n"
                                   "verify_set:   no refs\n"))
        << loud.out;
}

} // namespace
