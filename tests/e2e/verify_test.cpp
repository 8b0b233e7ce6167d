// verify on the simulated device: the whole-device listing with every content check
// outcome and both disparity warnings, and the per-set mode. verify only reads: no run may
// erase or write anything.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/installed_device.hpp"

namespace {

using namespace kiv::e2e;
using mkzunf::Bytes;

const std::string MULTI_WARNING = "WARNING: %M multi pools have a disparity between\n"
                                  "             calculated and hostconfig recorded\n"
                                  "             CRC32 values.\n";
const std::string SINGLETON_WARNING = "WARNING: %S singleton pools have a disparity between\n"
                                      "             calculated and hostconfig recorded \n"
                                      "             CRC32 values.\n";
const std::string ACTIVE_SET_LINES =
    "             AT LEAST ONE OF THESE SINGLETONS IS PART OF THE ACTIVE SET\n"
    "             DO NOT REBOOT UNTIL THIS ISSUE HAS BEEN FIXED!\n";

std::string with(std::string text, const std::string &key, const std::string &value) {
    text.replace(text.find(key), key.size(), value);
    return text;
}

// Every content check outcome on one device. Pools: KERNEL-SAFE and ROOT-SAFE and CONF are
// singletons, APPL, DATA and KERNEL multi pools.
InstalledDevice listing_device() {
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
    return d;
}

// Turns the content of partitions 7, 8 and 10 into something else than recorded.
void corrupt(InstalledDevice &d, std::vector<int> pidxs) {
    for (int p : pidxs)
        d.partitions[p][17] ^= 0x40;
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

std::string listing(const std::string &kernel_result, const std::string &conf_result) {
    std::string out = "Verifying partitions:\n";
    out += pool_line(0, "KERNEL-SAFE", "OK");
    out += pool_line(1, "ROOT-SAFE", "OK (wts=2)");
    out += line(2, "Not handled by KIV");
    // Written with the header behind the content, checked like the plain layout.
    out += pool_line(3, "APPL", "OK");
    out += line(4, "Nothing installed");
    out += line(5, "Not handled by KIV");
    out += pool_line(6, "DATA", "UNKNOWN");
    out += pool_line(7, "KERNEL", kernel_result);
    out += pool_line(8, "KERNEL", kernel_result);
    out += line(9, "Nothing installed");
    out += pool_line(10, "CONF", conf_result);
    for (int i = 11; i < 20; ++i)
        out += line(i, "Not handled by KIV");
    return out;
}

void expect_read_only(const SandboxResult &r) {
    for (const std::string &event : r.events) {
        EXPECT_NE(event.rfind("erase", 0), 0u) << r.describe();
        EXPECT_NE(event.rfind("write", 0), 0u) << r.describe();
    }
}

TEST(VerifyE2e, ListingOfEveryOutcome) {
    struct Row {
        const char *scenario;
        std::vector<int> corrupted;
        int actset;
        std::string out;
        std::string err;
    };
    const std::string multi = with(MULTI_WARNING, "%M", "2/3");
    const std::string single = with(SINGLETON_WARNING, "%S", "1/3");
    const std::vector<Row> rows = {
        {"all intact", {}, 1, listing("OK", "OK"), ""},
        {"multi pool partitions differ", {7, 8}, 1, listing("DISPARITY", "OK"), multi},
        {"singleton of the active set differs",
         {10},
         1,
         listing("OK", "DISPARITY") + ACTIVE_SET_LINES,
         single},
        {"singleton outside the active set differs", {10}, 2, listing("OK", "DISPARITY"), single},
        {"both",
         {7, 8, 10},
         1,
         listing("DISPARITY", "DISPARITY") + ACTIVE_SET_LINES,
         multi + single},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.scenario);
        Device dev;
        InstalledDevice d = listing_device();
        corrupt(d, row.corrupted);
        d.rec.actset = static_cast<std::uint8_t>(row.actset);
        d.write_to(dev);

        SandboxResult r = kiv_on(dev, {"verify"});
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.err);
        std::vector<SyslogLine> expected_log;
        if (!row.err.empty()) {
            if (row.err.find("multi") != std::string::npos)
                expected_log.push_back(logged(LOG_ERR, multi));
            if (row.err.find("singleton") != std::string::npos)
                expected_log.push_back(logged(LOG_ERR, single));
        }
        EXPECT_EQ(r.syslog, expected_log);
        expect_read_only(r);
    }
}

// The third layout is only named when the first two checks did not confirm the content:
// here the device does not answer the first time it is opened.
TEST(VerifyE2e, ContentConfirmedOnlyByTheLastCheck) {
    Device dev;
    listing_device().write_to(dev);
    SandboxResult r = kiv_with_plugin(dev, {"KIV_TEST_FAIL_OPEN=/dev/mtd3"}, {"verify"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    std::string expected = listing("OK", "OK");
    const std::string plain = pool_line(3, "APPL", "OK");
    expected.replace(expected.find(plain), plain.size(), pool_line(3, "APPL", "OK (wts=3)"));
    EXPECT_EQ(r.out, expected);
    EXPECT_EQ(r.err, "");
}

TEST(VerifyE2e, DisparityCountsArePartitionsOverPools) {
    // Two partitions of one multi pool, no other multi pool: 2/1.
    Device dev;
    InstalledDevice d;
    d.install(3, "APPL", 1, content_bytes(100, 1), "a");
    d.install(4, "APPL", 1, content_bytes(100, 2), "a");
    d.install(6, "ONE", 1, content_bytes(100, 3), "o");
    d.set(0, "SAFESET", {6});
    corrupt(d, {3, 4});
    d.write_to(dev);
    SandboxResult r = kiv_on(dev, {"verify"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.err, with(MULTI_WARNING, "%M", "2/1"));
}

TEST(VerifyE2e, VerboseListingStartsWithTheDump) {
    Device dev;
    listing_device().write_to(dev);
    SandboxResult r = kiv_on(dev, {"verify", "-v"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    const std::size_t dump = r.out.find(SETS_P1_HEAD);
    const std::size_t list = r.out.find("Verifying partitions:\n");
    ASSERT_NE(dump, std::string::npos) << r.out;
    ASSERT_NE(list, std::string::npos) << r.out;
    EXPECT_LT(dump, list);
    EXPECT_NE(r.out.find(STATES_VALID), std::string::npos);
    EXPECT_EQ(r.out.substr(list), listing("OK", "OK"));
}

// Set mode: only the wts 1 layout is tried, so the wts 2 partition of set 0 is "bad" there.
TEST(VerifyE2e, SetMode) {
    Device dev;
    InstalledDevice d = listing_device();
    d.set(2, "SET2", {0, 3});
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
                             "verify_set:   ref  3: APPL         appl        : ok\n";
    struct Row {
        std::vector<std::string> args;
        int exit;
        std::string out; // after the verbose summary of -v
    };
    const std::vector<Row> rows = {
        {{"verify", "0"}, 1, ""},
        {{"verify", "2"}, 0, ""},
        {{"verify", "SET2"}, 0, ""},
        {{"verify", "0x1"}, 0, ""},
        {{"verify", "0", "-v"}, 1, "verify_sets: Checking set 0\n" + set0},
        {{"verify", "-v", "SET1"}, 0, "verify_sets: Checking set 1\n" + set1},
        // A word that names no set checks every set, reporting as under -v.
        {{"verify", "NOSUCHSET"}, 1, "verify_sets: Checking set -1\n" + set0 + set1 + set2},
        {{"verify", "3"}, 1, "verify_sets: Checking set -1\n" + set0 + set1 + set2},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.args[1] + (row.args.size() > 2 ? " " + row.args[2] : ""));
        SandboxResult r = kiv_on(dev, row.args);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        const std::size_t start = r.out.find("verify_sets:");
        EXPECT_EQ(start == std::string::npos ? "" : r.out.substr(start), row.out) << r.out;
        EXPECT_EQ(r.err, "");
        expect_read_only(r);
    }
}

TEST(VerifyE2e, SetWithoutReferencesFails) {
    Device dev;
    InstalledDevice d = listing_device();
    d.set(2, "SET2", {});
    d.write_to(dev);
    SandboxResult quiet = kiv_on(dev, {"verify", "2"});
    EXPECT_EQ(quiet.exit, 1) << quiet.describe();
    EXPECT_EQ(quiet.out, "");
    SandboxResult loud = kiv_on(dev, {"verify", "SET2", "-v"});
    EXPECT_EQ(loud.exit, 1) << loud.describe();
    const std::string tail = "verify_sets: Checking set 2\n"
                             "verify_set: Set 2: SET2\n"
                             "verify_set:   no refs\n";
    ASSERT_GE(loud.out.size(), tail.size());
    EXPECT_EQ(loud.out.substr(loud.out.size() - tail.size()), tail);
}

TEST(VerifyE2e, NoHostconfig) {
    Device dev; // erased flash: neither copy loads
    for (std::vector<std::string> args :
         {std::vector<std::string>{"verify"}, std::vector<std::string>{"verify", "1"}}) {
        SandboxResult r = kiv_on(dev, args);
        EXPECT_EQ(r.exit, 1) << r.describe();
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find("verify action: loading hostcfg failed.\n"), std::string::npos)
            << r.err;
        EXPECT_TRUE(r.logged("verify action: loading hostcfg failed.\n"));
        expect_read_only(r);
    }
}

} // namespace
