// The hostconfig on the device, end to end: what initialize leaves on flash, how info
// shows it, where copies are written and read (primary, backup, regular files), the
// upgrade state bytes after a save, and an integrator describing a blank device.
#include <algorithm>
#include <cstdint>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;
using hcdecode::Image;
using hcdecode::Record;

// A freshly initialised hostconfig: image header, one part header, the record.
constexpr std::size_t FRESH_IMAGE_SIZE = 24 + 32 + 2964;
constexpr std::size_t SET1_NAME = 24 + 32 + 1 + 36 + 1; // in the record, the only part
const std::string LOAD_FAILED = "hostconfig_load failed.\n";

// A fresh hostconfig as the independent decoder sees it: one data part "KIV data" whose
// body is the all-zero record, and erased flash behind it.
void expect_fresh_hostconfig(const Device &dev, int mtd) {
    SCOPED_TRACE("mtd" + std::to_string(mtd));
    const Bytes bytes = dev.flash(mtd);
    Image img = hcdecode::decode_image(bytes);
    ASSERT_TRUE(img.ok) << img.error;
    EXPECT_EQ(img.size, FRESH_IMAGE_SIZE);
    ASSERT_EQ(img.names(), std::vector<std::string>{"KIV data"});
    EXPECT_EQ(img.parts[0].type_id, 3);
    EXPECT_EQ(img.parts[0].hdr_length, 32);
    EXPECT_EQ(img.parts[0].body, Bytes(hcdecode::RECORD_SIZE, 0));
    ASSERT_EQ(bytes.size(), 131072u);
    EXPECT_TRUE(std::all_of(bytes.begin() + FRESH_IMAGE_SIZE, bytes.end(), [](std::uint8_t b) {
        return b == 0xFF;
    })) << "the rest is erased flash";
}

Record record_with_set(const std::string &name) {
    Record rec = empty_record();
    set_refs(rec.sets[1], name, {3});
    return rec;
}

// Flips one bit of set 1's name in the stored record: the image's body CRC no longer
// matches.
void spoil(Bytes &image) {
    image[SET1_NAME] ^= 0x20;
}
void spoil_flash(Device &dev, int mtd) {
    Bytes image = dev.flash(mtd);
    spoil(image);
    dev.set_flash(mtd, image);
}

TEST(HostconfigStore, InitializeWritesAFreshHostconfigBackupFirst) {
    Device dev;
    SandboxResult r = kiv_on(dev, {"initialize"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    expect_fresh_hostconfig(dev, HOSTCFG_MTD);
    expect_fresh_hostconfig(dev, BACKUP_MTD);
    // Both whole devices erased, the backup completely before the primary.
    std::vector<std::string> changes;
    for (const std::string &e : r.events)
        if (e.starts_with("erase") || e.starts_with("write")) changes.push_back(e.substr(0, 10));
    EXPECT_EQ(changes, (std::vector<std::string>{"erase mtd2", "erase mtd2", "write mtd2",
                                                 "erase mtd5", "erase mtd5", "write mtd5"}))
        << r.describe();
    EXPECT_EQ(r.events_with("erase mtd5 0 65536").size(), 1u) << r.describe();
    EXPECT_EQ(r.events_with("erase mtd5 65536 65536").size(), 1u) << r.describe();

    SandboxResult info = kiv_on(dev, {"info"});
    EXPECT_EQ(info.exit, 0) << info.describe();
    EXPECT_EQ(info.out, SETS_P1_HEAD + SETS_P2_HEAD + PARTS_P1_HEAD + PARTS_P2_HEAD + POOLS_HEAD +
                            STATES_VALID);
    EXPECT_EQ(info.err, "");
    EXPECT_EQ(info.syslog, std::vector<SyslogLine>{});
    expect_flash_untouched(info);
}

// Initialize replaces whatever was stored, even under -dryrun, and says OK unless it is
// quiet on a terminal.
TEST(HostconfigStore, InitializeReplacesWhatWasStoredAndSaysOk) {
    struct Row {
        bool tty;
        std::string option;
        std::string err;
        bool ok_in_syslog;
    };
    const std::vector<Row> rows = {
        {false, "", "initialize: OK\n", true},        {true, "", "", false},
        {true, "-v", "initialize: OK\n", false},      {false, "-v", "initialize: OK\n", true},
        {false, "-dryrun", "initialize: OK\n", true},
    };
    const Bytes stored =
        hcdecode::encode_image({{"foreign", {1, 2, 3, 4}, 3},
                                {"KIV data", hcdecode::encode_record(record_with_set("OLD")), 3}});
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << "tty " << row.tty << " " << row.option);
        Device dev;
        dev.set_flash(HOSTCFG_MTD, stored);
        dev.set_flash(BACKUP_MTD, stored);
        RunOptions options;
        options.stdout_tty = row.tty;
        std::vector<std::string> args = {"initialize"};
        if (!row.option.empty()) args.push_back(row.option);
        SandboxResult r = kiv_on(dev, args, options);
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.err, row.err);
        if (row.option != "-v") {
            EXPECT_EQ(r.out, "");
        }
        std::vector<SyslogLine> log = save_markers("initialize");
        if (row.ok_in_syslog) log.push_back(logged(LOG_INFO, "initialize: OK\n"));
        EXPECT_EQ(r.syslog, log);
        expect_fresh_hostconfig(dev, HOSTCFG_MTD);
        expect_fresh_hostconfig(dev, BACKUP_MTD);
    }
}

// Every action that reads the hostconfig, on a blank device and with both copies bad: the
// loader's note, then the action's own message, and nothing written.
TEST(HostconfigStore, EveryActionNeedsAHostconfig) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
        {{"info"}, "info action: loading hostcfg failed.\n"},
        {{"partset", "1", "SET1"}, "partset action: loading hostcfg failed.\n"},
        {{"partinfo", "4", "POOL", "1"}, "partinfo action: loading hostcfg failed.\n"},
        {{"mount", "1"}, "mount: loading hostcfg failed.\n"},
        {{"verify"}, "verify action: loading hostcfg failed.\n"},
        {{"verify", "1"}, "verify action: loading hostcfg failed.\n"},
        {{"getrh", "1"}, "getrh: loading hostcfg failed.\n"},
        {{"getpartset", "1"}, "getpartset action: loading hostcfg failed.\n"},
        {{"getpartset", "active"}, "getpartset action: loading hostcfg failed.\n"},
        {{"upgrade", "validate"}, "upgrade action: hostcfg loading failed.\n"},
        {{"activate", "1"}, "activate action: hostcfg loading failed.\n"},
    };
    Device dev;
    Bytes image = image_of(record_with_set("SET1"));
    spoil(image);
    for (const std::string device : {"blank", "with both copies bad"}) {
        if (device != "blank") {
            dev.set_flash(HOSTCFG_MTD, image);
            dev.set_flash(BACKUP_MTD, image);
        }
        for (const auto &[args, message] : rows) {
            SCOPED_TRACE(args[0] + " on a device " + device);
            SandboxResult r = kiv_on(dev, args);
            EXPECT_EQ(r.exit, 1) << r.describe();
            EXPECT_EQ(r.out, "");
            EXPECT_EQ(r.err, LOAD_FAILED + message);
            EXPECT_EQ(r.syslog,
                      (std::vector{logged(LOG_DEBUG, LOAD_FAILED), logged(LOG_ERR, message)}));
            expect_flash_untouched(r);
        }
    }
}

// A hostconfig written by another writer (the independent encoder) with every field of
// the listing filled, and the upgrade states TEST and BOOT.
TEST(HostconfigStore, InfoOfAPopulatedHostconfig) {
    Record rec = empty_record();
    rec.actset = 2;
    set_refs(rec.sets[0], "SAFESET", {7});
    set_refs(rec.sets[2], "FOURTEENCHARSX",
             {19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0});
    rec.sets[2].bootable = 1;
    rec.rhdr[0] = {1, 2, 3, 86400, "safe-build"};
    rec.rhdr[2] = {10, 5, 1234, 1700000000, "release-2023-11"};
    rec.partinfo[7] = {"KNL-SAFE", 7, 0x180000, 0x200000, "", ""};
    rec.partinfo[12] = {"ROOT", 30, 0xC40000, 0x40000, "/", "squashfs"};
    rec.partinfo[13] = {"ROOT", 13, 0xC80000, 0x40000, "/", "squashfs"};
    hcdecode::PinfoMeta &meta = rec.pinfometa[12];
    meta.name = "rootfs";
    meta.body_length = 0x3F000;
    meta.body_crc = 0xDEADBEEF;
    meta.sw_major = 4;
    meta.sw_minor = 7;
    meta.sw_build = 65535;

    Device dev;
    dev.set_flash(HOSTCFG_MTD, image_of(rec));
    set_states(dev, "TB");
    SandboxResult r = kiv_on(dev, {"info"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out,
              SETS_P1_HEAD +
                  "  0  SAFESET          0          1.02 3     7 \n"
                  "  2  FOURTEENCHARSX   1         10.05 1234  19 18 17 16 15 14 13 12 11 10 9 8 "
                  "7 6 5 4 3 2 1 0    ACTIVE SET\n" +
                  SETS_P2_HEAD +
                  "  0  SAFESET          1970.01.02 00:00:00  safe-build          \n"
                  "  2  FOURTEENCHARSX   2023.11.14 22:13:20  release-2023-11     \n" +
                  PARTS_P1_HEAD +
                  "  7   7  KNL-SAFE         0x180000    0x200000     0.00 0               \n"
                  " 12  30  ROOT             0xC40000    0x40000      4.07 65535  squashfs  /\n"
                  " 13  13  ROOT             0xC80000    0x40000      0.00 0     squashfs  /\n" +
                  PARTS_P2_HEAD +
                  "  7  KNL-SAFE                           0x0         0x0       \n"
                  " 12  ROOT             rootfs            0x3F000     0xDEADBEEF\n"
                  " 13  ROOT                               0x0         0x0       \n" +
                  POOLS_HEAD +
                  "  0  KNL-SAFE         1      singleton\n"
                  "  1  ROOT             2      multi\n"
                  "KIV Data Upgrade set 1: TEST(1)\n"
                  "KIV Data Upgrade set 2: BOOT(2)\n");
    expect_flash_untouched(r);
}

// Erasing /dev/mtd5 for a save also erases the state bytes: both sets read VALID after
// every save, and a dry run leaves them alone.
TEST(HostconfigStore, EverySaveLeavesBothSetsValid) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
        {{"initialize"}, "VV"},
        {{"initialize", "-dryrun"}, "VV"},
        {{"partset", "1", "SET1", "-refs=4"}, "VV"},
        {{"partinfo", "4", "POOL", "0x100"}, "VV"},
        {{"partinfo", "4"}, "VV"},
        {{"partset", "1", "SET1", "-dryrun"}, "TB"},
        {{"partinfo", "4", "POOL", "0x100", "-dryrun"}, "TB"},
        {{"info"}, "TB"},
    };
    for (const auto &[args, states] : rows) {
        SCOPED_TRACE(args[0] + " " + args.back());
        Device dev;
        dev.set_flash(HOSTCFG_MTD, image_of(record_with_set("SET1")));
        set_states(dev, "TB");
        EXPECT_EQ(kiv_on(dev, args).exit, 0);
        EXPECT_EQ(states_on(dev), states);
    }
}

TEST(HostconfigStore, BadPrimaryIsReadFromTheBackupAndRepairedByTheNextSave) {
    Device dev;
    ASSERT_EQ(kiv_on(dev, {"initialize"}).exit, 0);
    ASSERT_EQ(kiv_on(dev, {"partset", "1", "SET1", "-refs=3"}).exit, 0);
    SandboxResult good = kiv_on(dev, {"info"});
    spoil_flash(dev, HOSTCFG_MTD);
    ASSERT_FALSE(hcdecode::decode_image(dev.flash(HOSTCFG_MTD)).ok);

    SandboxResult r = kiv_on(dev, {"info"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, good.out);
    const std::string note = "hostconfig_load failed; loaded backup (/dev/mtd2) successfully.\n";
    EXPECT_EQ(r.err, note);
    EXPECT_EQ(r.syslog, std::vector{logged(LOG_DEBUG, note)});
    expect_flash_untouched(r);

    EXPECT_EQ(kiv_on(dev, {"partset", "2", "SET2"}).exit, 0);
    for (int mtd : {HOSTCFG_MTD, BACKUP_MTD}) {
        SCOPED_TRACE("mtd" + std::to_string(mtd));
        std::optional<Record> rec = record_on(dev, mtd);
        ASSERT_TRUE(rec);
        EXPECT_EQ(rec->sets[1].name, "SET1");
        EXPECT_EQ(rec->sets[1].refs, std::vector<int>{3});
        EXPECT_EQ(rec->sets[2].name, "SET2");
    }
    EXPECT_EQ(kiv_on(dev, {"info"}).err, "");
}

TEST(HostconfigStore, ALockedBackupTakesNoPart) {
    DeviceOptions options;
    options.layout =
        kiv::test::read_text_file(kiv::test::source_dir() + "/tools/sandbox/default.layout");
    const std::string backup_line = "mtd 2  size=128K erase=64K\n";
    ASSERT_NE(options.layout.find(backup_line), std::string::npos);
    options.layout.replace(options.layout.find(backup_line), backup_line.size(),
                           "mtd 2  size=128K erase=64K locked\n");
    Device dev(options);
    // A valid copy on the locked device that must never be read nor overwritten.
    const Bytes kept = image_of(record_with_set("BACKUP"));
    dev.set_flash(BACKUP_MTD, kept);

    for (std::vector<std::string> args : {std::vector<std::string>{"initialize"},
                                          std::vector<std::string>{"partset", "1", "SET1"}}) {
        SandboxResult r = kiv_on(dev, args);
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(changes_on(r, BACKUP_MTD), std::vector<std::string>{}) << r.describe();
        EXPECT_EQ(r.events_with("open mtd2 w"), std::vector<std::string>{}) << r.describe();
        EXPECT_EQ(r.events_with("open mtd2 rw"), std::vector<std::string>{}) << r.describe();
    }
    EXPECT_EQ(record_on(dev, HOSTCFG_MTD)->sets[1].name, "SET1");
    EXPECT_TRUE(std::equal(kept.begin(), kept.end(), dev.flash(BACKUP_MTD).begin()));

    // With the primary copy gone bad, the backup is not a fallback either.
    spoil_flash(dev, HOSTCFG_MTD);
    SandboxResult r = kiv_on(dev, {"info"});
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_EQ(r.err, LOAD_FAILED + "info action: loading hostcfg failed.\n");
}

TEST(HostconfigStore, HostconfigInRegularFiles) {
    Device dev;
    const std::string cfg = dev.scratch_path("hostcfg.img");
    const std::string bak = dev.scratch_path("hostcfg.bak");
    auto file_bytes = [](const std::string &path) {
        return kiv::test::bytes_of(kiv::test::read_text_file(path));
    };

    SandboxResult init = kiv_on(dev, {"-cfg=" + cfg, "-cfgbak=" + bak, "initialize"});
    EXPECT_EQ(init.exit, 0) << init.describe();
    expect_flash_untouched(init);
    const Bytes bytes = file_bytes(cfg);
    EXPECT_EQ(bytes.size(), FRESH_IMAGE_SIZE); // exactly the image, no erased tail
    EXPECT_EQ(hcdecode::decode_image(bytes).names(), std::vector<std::string>{"KIV data"});
    // A backup in a regular file never takes part.
    EXPECT_EQ(::access(bak.c_str(), F_OK), -1);

    // A hostconfig named on the command line has no backup unless one is named too.
    SandboxResult edit = kiv_on(dev, {"partset", "1", "SET1", "-refs=2", "-cfg=" + cfg});
    EXPECT_EQ(edit.exit, 0) << edit.describe();
    EXPECT_EQ(edit.syslog, save_markers("partset"));
    expect_flash_untouched(edit);
    std::optional<Record> rec = hcdecode::decode_kiv_data(file_bytes(cfg));
    ASSERT_TRUE(rec);
    EXPECT_EQ(rec->sets[1].name, "SET1");
    EXPECT_EQ(rec->sets[1].refs, std::vector<int>{2});
    SandboxResult info = kiv_on(dev, {"info", "-cfg=" + cfg});
    EXPECT_NE(info.out.find("  1  SET1             0          0.00 0     2 \n"), std::string::npos)
        << info.describe();

    // A good backup file is not read when the primary file is bad.
    dev.write_file("hostcfg.bak", std::string(bytes.begin(), bytes.end()));
    Bytes bad = file_bytes(cfg);
    spoil(bad);
    dev.write_file("hostcfg.img", std::string(bad.begin(), bad.end()));
    SandboxResult fallback = kiv_on(dev, {"info", "-cfg=" + cfg, "-cfgbak=" + bak});
    EXPECT_EQ(fallback.exit, 1) << fallback.describe();
    EXPECT_EQ(fallback.err, LOAD_FAILED + "info action: loading hostcfg failed.\n");

    // A backup file beside the default primary is left alone as well.
    ::unlink(bak.c_str());
    SandboxResult primary = kiv_on(dev, {"-cfgbak=" + bak, "initialize"});
    EXPECT_EQ(primary.exit, 0) << primary.describe();
    EXPECT_EQ(changes_on(primary, BACKUP_MTD), std::vector<std::string>{});
    EXPECT_FALSE(changes_on(primary, HOSTCFG_MTD).empty());
    EXPECT_EQ(::access(bak.c_str(), F_OK), -1);
}

// Other writers' parts survive a save in their order, with "KIV data" moved to the end.
TEST(HostconfigStore, ASaveKeepsTheOtherPartsAndPutsKivDataLast) {
    Device dev;
    const Bytes a_body = {'a', 'b', 'c', 'd', 'e'};
    const Bytes b_body(100, 0x5A);
    dev.set_flash(HOSTCFG_MTD,
                  hcdecode::encode_image({{"A", a_body, 3},
                                          {"KIV data", hcdecode::encode_record(empty_record()), 3},
                                          {"B", b_body, 5}}));
    SandboxResult r = kiv_on(dev, {"partset", "0", "SAFESET"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    Image img = hcdecode::decode_image(dev.flash(HOSTCFG_MTD));
    ASSERT_TRUE(img.ok) << img.error;
    EXPECT_EQ(img.names(), (std::vector<std::string>{"A", "B", "KIV data"}));
    EXPECT_EQ(img.find("A")->body, a_body);
    EXPECT_EQ(img.find("B")->body, b_body);
    EXPECT_EQ(img.find("B")->type_id, 5);
    EXPECT_EQ(hcdecode::decode_kiv_data(img)->sets[0].name, "SAFESET");
}

// The demonstration on a blank device: an integrator describes the default device to kiv
// with initialize, partinfo and partset, each command shown before it runs; a release is
// installed into set 1 and booted through TEST to VALID; an update that changes the
// application only goes into set 2 and keeps the partitions already holding its kernel and
// root file system.
TEST(HostconfigStore, DemoScriptInstallsAndBootsReleases) {
    const std::vector<std::string> integrator_commands = {
        "initialize",
        "partinfo 7 KNL-SAFE 0x200000 -offset=180000",
        "partinfo 8 ROOT-SAFE 0x800000 -offset=380000 -fstype=squashfs -mount=/",
        "partinfo 19 APPL-SAFE 0x600000 -offset=E00000 -fstype=jffs2 -mount=/mnt/appl",
        "partinfo 9 KNL 0x40000 -offset=B80000",
        "partinfo 10 KNL 0x40000 -offset=BC0000",
        "partinfo 11 ROOT 0x40000 -offset=C00000 -fstype=squashfs -mount=/",
        "partinfo 12 ROOT 0x40000 -offset=C40000 -fstype=squashfs -mount=/",
        "partinfo 13 APPL 0x40000 -offset=C80000 -fstype=jffs2 -mount=/mnt/appl",
        "partinfo 14 APPL 0x40000 -offset=CC0000 -fstype=jffs2 -mount=/mnt/appl",
        "partset 0 SAFESET -refs=7,8,19",
        "partset 1 SET1 -refs=9,11,13",
        "partset 2 SET2 -refs=10,12,14",
    };
    Device dev;
    const std::string script = kiv::test::source_dir() + "/scripts/demo-device.sh";
    RunOptions options;
    options.timeout = std::chrono::seconds(60);
    SandboxResult r =
        run_on(dev, {"/bin/sh", script, kiv::test::kiv_bin(), kiv::test::mkzunf_bin()}, options);
    EXPECT_EQ(r.exit, 0) << r.describe();
    for (const std::string &command : integrator_commands) {
        // Shown, and followed by the next step: the command printed nothing.
        const std::string shown = "$ kiv " + command + "\n";
        const std::size_t at = r.out.find(shown);
        ASSERT_NE(at, std::string::npos) << shown << r.describe();
        const std::string_view next = std::string_view(r.out).substr(at + shown.size());
        EXPECT_TRUE(next.starts_with("$ ") || next.starts_with("### ")) << shown << r.describe();
    }
    for (const char *line :
         {"install: /tmp/kiv-demo/release-2.1.7.zunf into autodetected set idx = 1\n",
          "Writing out 150000 bytes of data to /dev/mtd11\n",
          "install: /tmp/kiv-demo/release-2.1.8.zunf into autodetected set idx = 2\n",
          "### Wrote 90000 of 310000 content bytes: 220000 bytes already on flash were kept\n",
          "verify_set:   ref 14: APPL         APPL        : ok\n", "2.01,7,REL-2.1.7\n",
          "14,APPL,90000,2.01\n"})
        EXPECT_NE((r.out + r.err).find(line), std::string::npos) << line << "\n" << r.describe();

    // What the flash holds, read without the product's code.
    for (int mtd : {HOSTCFG_MTD, BACKUP_MTD}) {
        SCOPED_TRACE("mtd" + std::to_string(mtd));
        std::optional<Record> rec = record_on(dev, mtd);
        ASSERT_TRUE(rec);
        EXPECT_EQ(rec->actset, 2);
        EXPECT_EQ(rec->sets[0].refs, (std::vector<int>{7, 8, 19}));
        EXPECT_EQ(rec->sets[1].refs, (std::vector<int>{9, 11, 13}));
        EXPECT_EQ(rec->sets[2].refs, (std::vector<int>{9, 11, 14}));
        const hcdecode::PartInfo &appl_safe = rec->partinfo[19];
        EXPECT_EQ(appl_safe.poolname, "APPL-SAFE");
        EXPECT_EQ(appl_safe.offset, 0xE00000u);
        EXPECT_EQ(appl_safe.size, 0x600000u);
        EXPECT_EQ(appl_safe.mountpnt, "/mnt/appl");
        EXPECT_EQ(appl_safe.fstype, "jffs2");
        for (std::size_t i : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 15u, 16u, 17u, 18u})
            EXPECT_EQ(rec->partinfo[i].poolname, "") << i;
        EXPECT_EQ(rec->pinfometa[11].body_length, 150000u);
        EXPECT_EQ(rec->pinfometa[14].sw_build, 8);
    }
    EXPECT_EQ(states_on(dev), "VV");
}

} // namespace
