// The hostconfig store on the simulated device: MTD requests and their failures, the
// upgrade state bytes, the image on flash and the backup rule of load and save. Each
// scenario runs hc_probe in the sandbox and looks at its answers, the flash events and
// the bytes left on flash (decoded independently).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
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
constexpr int LOG_NOTICE_SEVERITY = 5;
constexpr int LOG_DEBUG_SEVERITY = 7;
constexpr std::size_t STATE_OFFSET = 131070;

SandboxResult probe(Device &dev, std::vector<std::string> steps, RunOptions options = {}) {
    steps.insert(steps.begin(), HC_PROBE_BIN);
    return dev.run(std::move(steps), std::move(options));
}

// The default layout with one line changed or dropped.
std::string layout_with(const std::string &mtd_line_prefix, const std::string &replacement) {
    std::string text =
        kiv::test::read_text_file(kiv::test::source_dir() + "/tools/sandbox/default.layout");
    std::string out;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(pos, end - pos);
        if (line.rfind(mtd_line_prefix, 0) == 0) line = replacement;
        out += line + "\n";
        pos = end + 1;
    }
    return out;
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
    dev.set_flash(5, bytes, STATE_OFFSET);
}

Bytes fresh_image(std::uint8_t actset) {
    hcdecode::Record rec;
    rec.actset = actset;
    return hcdecode::encode_image({{"KIV data", hcdecode::encode_record(rec)}});
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
        auto r = probe(dev, {"erase", "/dev/mtd5", c.offset, c.length});
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.out, c.answer) << c.offset << "," << c.length;
        EXPECT_EQ(flash_ops(r), c.erases) << c.offset << "," << c.length;
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
    auto dir = dev.write_file("plain", std::string(4096, 'x'));
    r = probe(dev, {"erase", "/dev/null", "0", "0", "+", "erase", "/dev/mtd99", "0", "0", "+",
                    "locked", dir, "+", "locked", "/dev/mtd99"});
    EXPECT_EQ(r.out, "erase -1\nerase -1\nlocked -1\nlocked -1\n") << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(logged_at(r, LOG_ERR_SEVERITY, "_mtd_get_info: GetInfo failed(-1)\n"))
        << r.describe();
}

TEST(HostconfigDevice, LockTest) {
    Device plain;
    auto r = probe(plain, {"locked", "/dev/mtd2"});
    EXPECT_EQ(r.out, "locked 0\n") << r.describe();

    Device locked(with_layout(layout_with("mtd 2 ", "mtd 2 size=128K erase=64K locked")));
    r = probe(locked, {"locked", "/dev/mtd2"});
    EXPECT_EQ(r.out, "locked 1\n") << r.describe();
}

TEST(HostconfigDevice, StateBytesAreDecodedFromTheirComplement) {
    struct Case {
        std::uint8_t set1, set2;
        const char *answer;
    };
    const Case cases[] = {
        {0xFF, 0xFF,
         "get-state 0\nget-state 0\nKIV Data Upgrade set 1: VALID(0)\n"
         "KIV Data Upgrade set 2: VALID(0)\n"},
        {0xFE, 0xFC,
         "get-state 1\nget-state 2\nKIV Data Upgrade set 1: TEST(1)\n"
         "KIV Data Upgrade set 2: BOOT(2)\n"},
        {0xFD, 0x00, // b = 2 (bit 0 clear) is VALID; b = 0xFF is BOOT
         "get-state 0\nget-state 2\nKIV Data Upgrade set 1: VALID(0)\n"
         "KIV Data Upgrade set 2: BOOT(2)\n"},
    };
    Device dev;
    for (const Case &c : cases) {
        set_state_bytes(dev, c.set1, c.set2);
        auto r = probe(dev, {"get-state", "1", "+", "get-state", "2", "+", "info"});
        EXPECT_EQ(r.out, c.answer) << r.describe();
        EXPECT_TRUE(flash_ops(r).empty());
    }
    auto r = probe(dev, {"get-state", "0", "+", "get-state", "3", "+", "flags-write", "0", "1"});
    EXPECT_EQ(r.out, "get-state 0\nget-state -1\nflags-write -1\n");
    EXPECT_TRUE(r.events_with("open mtd5").empty()) << r.describe();
}

TEST(HostconfigDevice, SettingAStateWritesOnlyItsByte) {
    Device dev;
    set_state_bytes(dev, 0xFF, 0xFF);
    auto r = probe(dev, {"set-state", "1", "1"});
    EXPECT_EQ(r.out, "\nset-state 0\n") << r.describe();
    EXPECT_EQ(flash_ops(r), (std::vector<std::string>{"write mtd5 131070 2"}));
    EXPECT_EQ(flash_region(dev, 5, STATE_OFFSET, 2), (Bytes{0xFE, 0xFF}));
    EXPECT_TRUE(r.events_with("violation").empty());

    // Already in that state: nothing is written. BOOT can be kept, never requested.
    set_state_bytes(dev, 0xFE, 0xFC);
    struct Case {
        std::vector<std::string> steps;
        std::string answer;
    };
    const Case cases[] = {
        {{"set-state", "2", "2"}, "\nset-state 0\n"},
        {{"set-state", "1", "1"}, "\nset-state 0\n"},
        {{"set-state", "1", "2"}, "cannot set state to 2, invalid\nset-state -1\n"},
        {{"set-state", "2", "3"}, "cannot set state to 3, invalid\nset-state -1\n"},
        {{"set-state", "1", "-1"}, "cannot set state to -1, invalid\nset-state -1\n"},
        {{"set-state", "0", "0"}, "\nset-state 0\n"},
        {{"set-state", "0", "1"}, "\nset-state -1\n"},
        {{"set-state", "3", "1"}, "\nset-state -1\n"},
    };
    for (const Case &c : cases) {
        auto rr = probe(dev, c.steps);
        EXPECT_EQ(rr.out, c.answer) << rr.describe();
        EXPECT_TRUE(flash_ops(rr).empty()) << rr.describe();
    }
    EXPECT_EQ(flash_region(dev, 5, STATE_OFFSET, 2), (Bytes{0xFE, 0xFC}));

    // Only the low 8 bits of a value are stored, and the other set's byte is kept.
    set_state_bytes(dev, 0xFF, 0xFF);
    r = probe(dev, {"flags-write", "2", "0x1FE", "+", "flags"});
    EXPECT_EQ(r.out, "flags-write 0\nflags 0 00 fe\n") << r.describe();
    EXPECT_EQ(flash_region(dev, 5, STATE_OFFSET, 2), (Bytes{0xFF, 0x01}));
}

TEST(HostconfigDevice, StateDeviceMissingOrFailing) {
    Device none(with_layout(layout_with("mtd 5 ", "")));
    auto r = probe(none, {"info", "+", "set-state", "1", "1", "+", "get-state", "0"});
    EXPECT_EQ(r.out, "KIV Data Upgrade set 1: INVALID(-1)\nKIV Data Upgrade set 2: INVALID(-1)\n"
                     "\nset-state -1\nget-state 0\n")
        << r.describe();

    Device dev;
    r = probe(dev, {"set-state", "1", "1"}, with_fault("write:mtd5:131070"));
    EXPECT_EQ(r.out, "\nset-state -1\n") << r.describe();
}

TEST(HostconfigDevice, SavedImageOnFlash) {
    Device dev;
    dev.set_flash(5, Bytes(131072, 0x00));
    auto r = probe(
        dev, {"save", "/dev/mtd5", "-", "1", "+", "load", "/dev/mtd5", "-", "+", "get-state", "1"});
    EXPECT_EQ(r.out, "save 1\nload 1 1\nget-state 0\n") << r.describe();
    auto ops = flash_ops(r);
    ASSERT_GE(ops.size(), 3u) << r.describe();
    EXPECT_EQ(ops[0], "erase mtd5 0 65536");
    EXPECT_EQ(ops[1], "erase mtd5 65536 65536");
    EXPECT_EQ(ops[2], "write mtd5 0 3020");
    EXPECT_TRUE(r.events_with("violation").empty()) << r.describe();

    Bytes flash = dev.flash(5);
    hcdecode::Image img = hcdecode::decode_image(flash);
    ASSERT_TRUE(img.ok) << img.error;
    EXPECT_EQ(img.size, 3020u);
    auto rec = hcdecode::decode_kiv_data(img);
    ASSERT_TRUE(rec);
    EXPECT_EQ(rec->actset, 1);
    // Everything behind the image is erased, the state bytes included: both sets VALID.
    EXPECT_TRUE(std::all_of(flash.begin() + 3020, flash.end(), [](auto b) { return b == 0xFF; }));
}

TEST(HostconfigDevice, SaveFailsOnAFailedEraseOrWrite) {
    Device dev;
    dev.set_flash(5, fresh_image(2));
    auto r = probe(dev, {"save", "/dev/mtd5", "-", "1"}, with_fault("erase:mtd5:1"));
    EXPECT_EQ(r.out, "save -1\n") << r.describe();
    EXPECT_TRUE(r.events_with("write mtd5").empty()) << r.describe();

    // A write the device refuses fails the save...
    r = probe(dev, {"save", "/dev/mtd5", "-", "1"}, with_fault("write:mtd5:1000"));
    EXPECT_EQ(r.out, "save -1\n") << r.describe();
    // ...while one it takes only in part is carried on from where it stopped.
    r = probe(dev, {"save", "/dev/mtd5", "-", "1"}, with_fault("short:mtd5:1000"));
    EXPECT_EQ(r.out, "save 1\n") << r.describe();
    EXPECT_TRUE(hcdecode::decode_image(dev.flash(5)).ok);
}

TEST(HostconfigDevice, RawLoaderReads5120BytesFromFlash) {
    Device dev;
    // A valid image followed by the rest of the erased device loads; an image whose
    // header claims a body reaching past 5120 bytes does not, even with a right CRC.
    dev.set_flash(5, fresh_image(1));
    auto r = probe(dev, {"load", "/dev/mtd5", "-"});
    EXPECT_EQ(r.out, "load 1 1\n") << r.describe();

    Bytes img = fresh_image(1);
    img.resize(6000, 0);
    img[16] = static_cast<std::uint8_t>((5120 - 24 + 4) & 0xFF);
    img[17] = static_cast<std::uint8_t>((5120 - 24 + 4) >> 8);
    hcdecode::refresh_crcs(img);
    dev.set_flash(5, img);
    r = probe(dev, {"load", "/dev/mtd5", "-"});
    EXPECT_EQ(r.out, "load -1 0\n") << r.describe();
}

TEST(HostconfigDevice, BackupIsWrittenFirstAndReadWhenThePrimaryFails) {
    Device dev;
    auto r = probe(dev, {"kiv-init-save", "/dev/mtd5", "/dev/mtd2"});
    EXPECT_EQ(r.out, "kiv-init-save 1\n") << r.describe();
    auto ops = flash_ops(r);
    auto first_mtd5 = std::find_if(ops.begin(), ops.end(),
                                   [](const std::string &e) { return e.find(" mtd5 ") != e.npos; });
    auto last_mtd2 = std::find_if(ops.rbegin(), ops.rend(),
                                  [](const std::string &e) { return e.find(" mtd2 ") != e.npos; });
    ASSERT_NE(first_mtd5, ops.end()) << r.describe();
    ASSERT_NE(last_mtd2, ops.rend()) << r.describe();
    EXPECT_LT(last_mtd2.base() - ops.begin(), first_mtd5 - ops.begin() + 1) << r.describe();
    EXPECT_EQ(flash_region(dev, 2, 0, 3020), flash_region(dev, 5, 0, 3020));
    EXPECT_TRUE(logged_at(r, LOG_NOTICE_SEVERITY,
                          "critical part start: hostconfig_save called by hc_probe\n"))
        << r.describe();
    EXPECT_TRUE(logged_at(r, LOG_NOTICE_SEVERITY, "critical part end: hostconfig_save\n"));

    // Spoil the primary copy: the backup answers, and says so.
    Bytes mtd5 = dev.flash(5);
    mtd5[200] ^= 0x01;
    dev.set_flash(5, mtd5);
    r = probe(dev, {"kiv-load", "/dev/mtd5", "/dev/mtd2", "+", "kiv-load", "/dev/mtd5", "-"});
    EXPECT_EQ(r.out, "kiv-load 1 0\nkiv-load -1 0\n") << r.describe();
    EXPECT_EQ(r.err, "hostconfig_load failed; loaded backup (/dev/mtd2) successfully.\n"
                     "hostconfig_load failed.\n");
    EXPECT_TRUE(logged_at(r, LOG_DEBUG_SEVERITY,
                          "hostconfig_load failed; loaded backup (/dev/mtd2) successfully.\n"))
        << r.describe();
}

TEST(HostconfigDevice, LockedBackupTakesNoPart) {
    Device dev(with_layout(layout_with("mtd 2 ", "mtd 2 size=128K erase=64K locked")));
    Bytes old_backup = fresh_image(2);
    dev.set_flash(2, old_backup);
    auto r = probe(dev, {"kiv-init-save", "/dev/mtd5", "/dev/mtd2"});
    EXPECT_EQ(r.out, "kiv-init-save 1\n") << r.describe();
    EXPECT_TRUE(r.events_with("erase mtd2").empty()) << r.describe();
    EXPECT_TRUE(r.events_with("write mtd2").empty()) << r.describe();

    Bytes mtd5 = dev.flash(5);
    mtd5[200] ^= 0x01;
    dev.set_flash(5, mtd5);
    r = probe(dev, {"kiv-load", "/dev/mtd5", "/dev/mtd2"});
    EXPECT_EQ(r.out, "kiv-load -1 0\n") << r.describe();
    EXPECT_EQ(r.err, "hostconfig_load failed.\n");
}

TEST(HostconfigDevice, PowerLossWhileThePrimaryIsRewritten) {
    Device dev;
    dev.set_flash(5, fresh_image(1));
    dev.set_flash(2, fresh_image(1));
    // A rehearsal on a copy of the flash tells which flash operation erases the primary.
    Device rehearsal;
    rehearsal.set_flash(5, fresh_image(1));
    rehearsal.set_flash(2, fresh_image(1));
    auto r = probe(rehearsal, {"kiv-save", "/dev/mtd5", "/dev/mtd2", "2"});
    ASSERT_EQ(r.out, "kiv-save 1\n") << r.describe();
    auto ops = flash_ops(r);
    auto primary_erase = std::find(ops.begin(), ops.end(), "erase mtd5 0 65536");
    ASSERT_NE(primary_erase, ops.end()) << r.describe();
    std::string cut = "powercut:" + std::to_string(primary_erase - ops.begin() + 1);

    r = probe(dev, {"kiv-save", "/dev/mtd5", "/dev/mtd2", "2"}, with_fault(cut));
    EXPECT_EQ(r.exit, 137) << r.describe();
    // After the reboot the primary is gone and the backup already holds the new data.
    r = probe(dev, {"kiv-load", "/dev/mtd5", "/dev/mtd2"});
    EXPECT_EQ(r.out, "kiv-load 1 2\n") << r.describe();
    EXPECT_EQ(r.err, "hostconfig_load failed; loaded backup (/dev/mtd2) successfully.\n");
}
