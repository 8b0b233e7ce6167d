// The hostconfig store on the simulated device, where the actions' end-to-end tests do
// not reach: every mtd_erase code and its block arithmetic, the lock test, the state
// bytes' edge values, the 5120-byte limit of a stored copy, and a power cut while the
// primary copy is rewritten. hc_probe calls the store's functions one at a time.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "common/hcdecode.hpp"
#include "support/sandbox.hpp"

using kiv::test::Device;
using kiv::test::DeviceOptions;
using kiv::test::RunOptions;
using kiv::test::SandboxResult;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int LOG_ERR_SEVERITY = 3;
const std::string LOAD_FAILED = "hostconfig_load failed.\ninfo action: loading hostcfg failed.\n";

SandboxResult probe(Device &dev, std::vector<std::string> steps, RunOptions options = {}) {
    steps.insert(steps.begin(), HC_PROBE_BIN);
    return dev.run(std::move(steps), std::move(options));
}

RunOptions with_fault(std::string fault) {
    RunOptions o;
    o.faults.push_back(std::move(fault));
    return o;
}

DeviceOptions with_layout(std::string layout) {
    DeviceOptions o;
    o.layout = std::move(layout);
    return o;
}

std::vector<std::string> flash_ops(const SandboxResult &r) {
    std::vector<std::string> ops;
    for (const std::string &e : r.events)
        if (e.rfind("erase ", 0) == 0 || e.rfind("write ", 0) == 0) ops.push_back(e);
    return ops;
}

bool logged_at(const SandboxResult &r, int severity, const std::string &text) {
    return std::any_of(r.syslog.begin(), r.syslog.end(), [&](const auto &line) {
        return line.severity == severity && line.text == text;
    });
}

Bytes flash_region(const Device &dev, int mtd, std::size_t offset, std::size_t length) {
    Bytes all = dev.flash(mtd);
    return Bytes(all.begin() + static_cast<std::ptrdiff_t>(offset),
                 all.begin() + static_cast<std::ptrdiff_t>(offset + length));
}

void set_state_bytes(Device &dev, std::uint8_t set1, std::uint8_t set2) {
    const std::uint8_t bytes[2] = {set1, set2};
    dev.set_flash(5, bytes, hcdecode::STATE_OFFSET);
}

} // namespace

TEST(HostconfigDevice, EraseCoversWholeBlocks) {
    struct Case {
        std::string offset, length;
        std::string answer;
        std::vector<std::string> erases;
    };
    const Case cases[] = {
        {"0", "0", "erase 0\n", {"erase mtd5 0 65536", "erase mtd5 65536 65536"}},
        {"0", "1", "erase 0\n", {"erase mtd5 0 65536"}},
        {"0", "65537", "erase 0\n", {"erase mtd5 0 65536", "erase mtd5 65536 65536"}},
        {"65536", "0", "erase 0\n", {"erase mtd5 65536 65536"}},
        {"131072", "0", "erase 0\n", {}},
        {"100", "0", "erase -2\n", {}},
        {"65536", "131072", "erase -3\n", {}},
        {"65536", "0xFFFFFFFF", "erase -3\n", {}},
    };
    Device dev;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.offset + "," + c.length);
        auto r = probe(dev, {"erase", "/dev/mtd5", c.offset, c.length});
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.out, c.answer);
        EXPECT_EQ(flash_ops(r), c.erases);
    }
}

TEST(HostconfigDevice, EraseFailuresAreLoggedOnlyToSyslog) {
    Device dev;
    dev.set_flash(5, Bytes(131072, 0x00));
    auto r = probe(dev, {"erase", "/dev/mtd5", "0", "0"}, with_fault("erase:mtd5:1"));
    EXPECT_EQ(r.out, "erase -4\n") << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(logged_at(r, LOG_ERR_SEVERITY, "mtd_erase: Erase failed(-1)\n")) << r.describe();
    // The block before the failing one stays erased; the failing one keeps its bytes.
    EXPECT_EQ(flash_region(dev, 5, 0, 65536), Bytes(65536, 0xFF));
    EXPECT_EQ(flash_region(dev, 5, 65536, 65536), Bytes(65536, 0x00));

    // A path with the prefix that is no MTD device, and one that does not exist.
    auto plain = dev.write_file("plain", std::string(4096, 'x'));
    r = probe(dev, {"erase", "/dev/null", "0", "0", "+", "erase", "/dev/mtd99", "0", "0", "+",
                    "locked", plain, "+", "locked", "/dev/mtd99"});
    EXPECT_EQ(r.out, "erase -1\nerase -1\nlocked -1\nlocked -1\n") << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(logged_at(r, LOG_ERR_SEVERITY, "_mtd_get_info: GetInfo failed(-1)\n"))
        << r.describe();
}

TEST(HostconfigDevice, LockTest) {
    Device dev(with_layout("mtd 2 size=128K erase=64K locked\nmtd 5 size=128K erase=64K\n"));
    auto r = probe(dev, {"locked", "/dev/mtd2", "+", "locked", "/dev/mtd5"});
    EXPECT_EQ(r.out, "locked 1\nlocked 0\n") << r.describe();
}

TEST(HostconfigDevice, StateByteEdgesAndSetsWithoutAState) {
    // Only bit 0 tells VALID apart, then bit 1 TEST from BOOT (bytes stored complemented).
    Device dev;
    set_state_bytes(dev, 0xFD, 0x00);
    auto r = probe(dev, {"get-state", "1", "+", "get-state", "2", "+", "info"});
    EXPECT_EQ(r.out, "get-state 0\nget-state 2\nKIV Data Upgrade set 1: VALID(0)\n"
                     "KIV Data Upgrade set 2: BOOT(2)\n")
        << r.describe();
    EXPECT_TRUE(flash_ops(r).empty());
    // The safe set is always VALID; other numbers have no state, and mtd5 is not opened.
    r = probe(dev, {"get-state", "0", "+", "get-state", "3"});
    EXPECT_EQ(r.out, "get-state 0\nget-state -1\n");
    EXPECT_TRUE(r.events_with("open mtd5").empty()) << r.describe();

    Device none(with_layout("mtd 2 size=128K erase=64K\n"));
    r = probe(none, {"info", "+", "set-state", "1", "1", "+", "get-state", "0"});
    EXPECT_EQ(r.out, "KIV Data Upgrade set 1: INVALID(-1)\nKIV Data Upgrade set 2: INVALID(-1)\n"
                     "\nset-state -1\nget-state 0\n")
        << r.describe();
}

TEST(HostconfigDevice, SettingAStateWritesOnlyItsByte) {
    Device dev;
    set_state_bytes(dev, 0xFF, 0xFF);
    auto r = probe(dev, {"set-state", "1", "1"});
    EXPECT_EQ(r.out, "\nset-state 0\n") << r.describe();
    EXPECT_EQ(flash_ops(r), (std::vector<std::string>{"write mtd5 131070 2"}));
    EXPECT_EQ(flash_region(dev, 5, hcdecode::STATE_OFFSET, 2), (Bytes{0xFE, 0xFF}));
    EXPECT_TRUE(r.events_with("violation").empty());

    // Already in that state: nothing is written. BOOT can be kept, never requested.
    set_state_bytes(dev, 0xFE, 0xFC);
    // Set and state asked for, and what comes out.
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"set-state", "2", "2"}, "\nset-state 0\n"},
        {{"set-state", "1", "1"}, "\nset-state 0\n"},
        {{"set-state", "1", "2"}, "cannot set state to 2, invalid\nset-state -1\n"},
        {{"set-state", "2", "3"}, "cannot set state to 3, invalid\nset-state -1\n"},
        {{"set-state", "1", "-1"}, "cannot set state to -1, invalid\nset-state -1\n"},
        {{"set-state", "0", "0"}, "\nset-state 0\n"},
        {{"set-state", "0", "1"}, "\nset-state -1\n"},
        {{"set-state", "3", "1"}, "\nset-state -1\n"},
    };
    for (const auto &[steps, answer] : cases) {
        auto rr = probe(dev, steps);
        EXPECT_EQ(rr.out, answer) << rr.describe();
        EXPECT_TRUE(flash_ops(rr).empty()) << rr.describe();
    }
    EXPECT_EQ(flash_region(dev, 5, hcdecode::STATE_OFFSET, 2), (Bytes{0xFE, 0xFC}));
}

TEST(HostconfigDevice, ACopyIsReadAsAtMost5120Bytes) {
    // Valid images of 5120 and 5124 bytes: a record and a filler part.
    for (std::size_t filler : {2068u, 2072u}) {
        Bytes img = hcdecode::encode_image(
            {{"KIV data", Bytes(hcdecode::RECORD_SIZE, 0)}, {"filler", Bytes(filler, 0x5A)}});
        SCOPED_TRACE(img.size());
        Device dev;
        dev.set_flash(5, img);
        auto r = dev.run_kiv({"info"});
        EXPECT_EQ(r.exit, img.size() <= 5120 ? 0 : 1) << r.describe();
        EXPECT_EQ(r.err, img.size() <= 5120 ? "" : LOAD_FAILED);
    }
}

TEST(HostconfigDevice, PowerCutWhileThePrimaryIsRewritten) {
    // A rehearsal on a second device tells which flash operation erases the primary.
    Device rehearsal;
    ASSERT_EQ(rehearsal.run_kiv({"initialize"}).exit, 0);
    auto r = rehearsal.run_kiv({"partset", "2", "SET2"});
    ASSERT_EQ(r.exit, 0) << r.describe();
    auto ops = flash_ops(r);
    auto primary_erase = std::find(ops.begin(), ops.end(), "erase mtd5 0 65536");
    ASSERT_NE(primary_erase, ops.end()) << r.describe();
    const std::string cut = "powercut:" + std::to_string(primary_erase - ops.begin() + 1);

    Device dev;
    ASSERT_EQ(dev.run_kiv({"initialize"}).exit, 0);
    r = dev.run_kiv({"partset", "2", "SET2"}, with_fault(cut));
    EXPECT_EQ(r.exit, 137) << r.describe();
    // After the reboot the primary is gone and the backup already holds the new data.
    r = dev.run_kiv({"info"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.err, "hostconfig_load failed; loaded backup (/dev/mtd2) successfully.\n");
    EXPECT_NE(r.out.find("\n  2  SET2 "), std::string::npos) << r.out;
}
