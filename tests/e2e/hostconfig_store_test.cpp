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

constexpr std::size_t FLASH_128K = 131072;
constexpr std::size_t RECORD_OFFSET = 24 + 32; // body of the only part
constexpr std::size_t SET1_NAME = RECORD_OFFSET + 1 + 36 + 1;

std::vector<std::uint8_t> fresh_image_bytes(const Device &dev, int mtd) {
    std::vector<std::uint8_t> bytes = dev.flash(mtd);
    bytes.resize(std::min(bytes.size(), FRESH_IMAGE_SIZE));
    return bytes;
}

// A fresh hostconfig as the independent decoder sees it: one data part "KIV data" whose
// body is the all-zero record, and erased flash behind it.
void expect_fresh_hostconfig(const Device &dev, int mtd) {
    SCOPED_TRACE("mtd" + std::to_string(mtd));
    std::vector<std::uint8_t> bytes = dev.flash(mtd);
    Image img = hcdecode::decode_image(bytes);
    ASSERT_TRUE(img.ok) << img.error;
    EXPECT_EQ(img.size, FRESH_IMAGE_SIZE);
    EXPECT_EQ(img.body_length, FRESH_IMAGE_SIZE - 24);
    ASSERT_EQ(img.names(), std::vector<std::string>{"KIV data"});
    EXPECT_EQ(img.parts[0].type_id, 3);
    EXPECT_EQ(img.parts[0].hdr_length, 32);
    EXPECT_EQ(img.parts[0].body, std::vector<std::uint8_t>(hcdecode::RECORD_SIZE, 0));
    ASSERT_GE(bytes.size(), FLASH_128K);
    EXPECT_TRUE(std::all_of(bytes.begin() + FRESH_IMAGE_SIZE, bytes.begin() + FLASH_128K,
                            [](std::uint8_t b) { return b == 0xFF; }))
        << "the rest of the first 128 KiB is erased flash";
}

Record record_with_set(const std::string &name) {
    Record rec = empty_record();
    rec.sets[1].name = name;
    rec.sets[1].raw_refs[0] = 3;
    return rec;
}

// The events of a run in order, restricted to erases and writes of the hostconfig copies.
std::vector<std::string> hostconfig_changes(const SandboxResult &r) {
    std::vector<std::string> out;
    for (const std::string &e : r.events)
        if (e.rfind("erase mtd2 ", 0) == 0 || e.rfind("write mtd2 ", 0) == 0 ||
            e.rfind("erase mtd5 ", 0) == 0 || e.rfind("write mtd5 ", 0) == 0)
            out.push_back(e.substr(0, e.find(' ', 6)));
    return out;
}

TEST(HostconfigStore, InitializeWritesAFreshHostconfigBackupFirst) {
    Device dev;
    SandboxResult r = kiv_on(dev, {"initialize"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "initialize: OK\n");
    std::vector<SyslogLine> log = save_markers("initialize");
    log.push_back(logged(LOG_INFO, "initialize: OK\n"));
    EXPECT_EQ(r.syslog, log);

    expect_fresh_hostconfig(dev, HOSTCFG_MTD);
    expect_fresh_hostconfig(dev, BACKUP_MTD);
    // Both whole devices erased, the backup completely before the primary.
    EXPECT_EQ(hostconfig_changes(r),
              (std::vector<std::string>{"erase mtd2", "erase mtd2", "write mtd2", "erase mtd5",
                                        "erase mtd5", "write mtd5"}))
        << r.describe();
    EXPECT_EQ(r.events_with("erase mtd5 0 65536").size(), 1u) << r.describe();
    EXPECT_EQ(r.events_with("erase mtd5 65536 65536").size(), 1u) << r.describe();
}

TEST(HostconfigStore, InitializeReplacesWhatWasStoredEvenWithDryrun) {
    Device dev;
    Record old = record_with_set("OLD");
    std::vector<std::uint8_t> stored = hcdecode::encode_image(
        {{"foreign", {1, 2, 3, 4}, 3}, {"KIV data", hcdecode::encode_record(old), 3}});
    dev.set_flash(HOSTCFG_MTD, stored);
    dev.set_flash(BACKUP_MTD, stored);

    SandboxResult r = kiv_on(dev, {"initialize", "-dryrun"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.err, "initialize: OK\n");
    expect_fresh_hostconfig(dev, HOSTCFG_MTD);
    expect_fresh_hostconfig(dev, BACKUP_MTD);

    // Initialising twice gives the same bytes.
    std::vector<std::uint8_t> first = fresh_image_bytes(dev, HOSTCFG_MTD);
    EXPECT_EQ(kiv_on(dev, {"initialize"}).exit, 0);
    EXPECT_EQ(fresh_image_bytes(dev, HOSTCFG_MTD), first);
}

TEST(HostconfigStore, InitializeSaysOkUnlessQuietOnATerminal) {
    struct Row {
        const char *what;
        bool tty;
        bool verbose;
        std::string err;
        bool ok_in_syslog;
    };
    const std::vector<Row> rows = {
        {"redirected", false, false, "initialize: OK\n", true},
        {"terminal", true, false, "", false},
        {"terminal, -v", true, true, "initialize: OK\n", false},
        {"redirected, -v", false, true, "initialize: OK\n", true},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        Device dev;
        RunOptions options;
        options.stdout_tty = row.tty;
        std::vector<std::string> args = {"initialize"};
        if (row.verbose) args.push_back("-v");
        SandboxResult r = kiv_on(dev, args, options);
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.err, row.err);
        if (!row.verbose) {
            EXPECT_EQ(r.out, "");
        }
        std::vector<SyslogLine> log = save_markers("initialize");
        if (row.ok_in_syslog) log.push_back(logged(LOG_INFO, "initialize: OK\n"));
        EXPECT_EQ(r.syslog, log);
        expect_fresh_hostconfig(dev, HOSTCFG_MTD);
    }
}

TEST(HostconfigStore, InfoOfAFreshHostconfig) {
    Device dev;
    ASSERT_EQ(kiv_on(dev, {"initialize"}).exit, 0);
    SandboxResult r = kiv_on(dev, {"info"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, FRESH_INFO);
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(r.syslog.empty()) << r.describe();
    expect_flash_untouched(r);
}

TEST(HostconfigStore, InfoWithoutAHostconfigFails) {
    Device dev; // blank flash
    SandboxResult r = kiv_on(dev, {"info"});
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "hostconfig_load failed.\ninfo action: loading hostcfg failed.\n");
    EXPECT_EQ(r.syslog, (std::vector{logged(LOG_DEBUG, "hostconfig_load failed.\n"),
                                     logged(LOG_ERR, "info action: loading hostcfg failed.\n")}));
    expect_flash_untouched(r);
}

// A hostconfig written by another writer (the independent encoder) with every field of
// the listing filled, and the upgrade states TEST and BOOT.
TEST(HostconfigStore, InfoOfAPopulatedHostconfig) {
    Record rec = empty_record();
    rec.actset = 2;
    rec.sets[0].name = "SAFESET";
    rec.sets[0].raw_refs[0] = 7;
    rec.sets[2].name = "FOURTEENCHARSX";
    rec.sets[2].bootable = 1;
    for (int i = 0; i < 20; ++i)
        rec.sets[2].raw_refs[static_cast<std::size_t>(i)] = static_cast<std::int8_t>(19 - i);
    rec.rhdr[0] = {1, 2, 3, 86400, "safe-build"};
    rec.rhdr[2] = {10, 5, 1234, 1700000000, "release-2023-11"};
    rec.partinfo[7] = {"KNL-SAFE", 7, 0x180000, 0x200000, "", ""};
    rec.partinfo[12] = {"ROOT", 30, 0xC40000, 0x40000, "/", "squashfs"};
    rec.pinfometa[12].name = "rootfs";
    rec.pinfometa[12].body_length = 0x3F000;
    rec.pinfometa[12].body_crc = 0xDEADBEEF;
    rec.pinfometa[12].sw_major = 4;
    rec.pinfometa[12].sw_minor = 7;
    rec.pinfometa[12].sw_build = 65535;

    Device dev;
    dev.set_flash(HOSTCFG_MTD, image_of(rec));
    const std::uint8_t test_boot[] = {0xFE, 0xFC};
    dev.set_flash(HOSTCFG_MTD, test_boot, hcdecode::STATE_OFFSET);
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
                  " 12  30  ROOT             0xC40000    0x40000      4.07 65535  squashfs  /\n" +
                  PARTS_P2_HEAD +
                  "  7  KNL-SAFE                           0x0         0x0       \n"
                  " 12  ROOT             rootfs            0x3F000     0xDEADBEEF\n" +
                  POOLS_HEAD +
                  "  0  KNL-SAFE         1      singleton\n"
                  "  1  ROOT             1      singleton\n"
                  "KIV Data Upgrade set 1: TEST(1)\n"
                  "KIV Data Upgrade set 2: BOOT(2)\n");
    expect_flash_untouched(r);
}

// Erasing /dev/mtd5 for a save also erases the state bytes: both sets read VALID after
// every save, and a dry run leaves them alone.
TEST(HostconfigStore, EverySaveLeavesBothSetsValid) {
    struct Row {
        std::vector<std::string> args;
        bool saves;
    };
    const std::vector<Row> rows = {
        {{"initialize"}, true},
        {{"initialize", "-dryrun"}, true},
        {{"partset", "1", "SET1", "-refs=4"}, true},
        {{"partinfo", "4", "POOL", "0x100"}, true},
        {{"partinfo", "4"}, true},
        {{"partset", "1", "SET1", "-dryrun"}, false},
        {{"partinfo", "4", "POOL", "0x100", "-dryrun"}, false},
        {{"info"}, false},
    };
    const std::uint8_t test_boot[] = {0xFE, 0xFC};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.args[0] + (row.saves ? " (saves)" : " (does not save)"));
        Device dev;
        dev.set_flash(HOSTCFG_MTD, image_of(record_with_set("SET1")));
        dev.set_flash(HOSTCFG_MTD, test_boot, hcdecode::STATE_OFFSET);
        SandboxResult r = kiv_on(dev, row.args);
        EXPECT_EQ(r.exit, 0) << r.describe();
        std::vector<std::uint8_t> flash = dev.flash(HOSTCFG_MTD);
        if (row.saves) {
            EXPECT_EQ(flash[hcdecode::STATE_OFFSET], 0xFF);
            EXPECT_EQ(flash[hcdecode::STATE_OFFSET + 1], 0xFF);
            SandboxResult info = kiv_on(dev, {"info"});
            EXPECT_NE(info.out.find(STATES_VALID), std::string::npos) << info.describe();
        } else {
            EXPECT_EQ(flash[hcdecode::STATE_OFFSET], 0xFE);
            EXPECT_EQ(flash[hcdecode::STATE_OFFSET + 1], 0xFC);
        }
    }
}

TEST(HostconfigStore, BadPrimaryIsReadFromTheBackupAndRepairedByTheNextSave) {
    Device dev;
    ASSERT_EQ(kiv_on(dev, {"initialize"}).exit, 0);
    ASSERT_EQ(kiv_on(dev, {"partset", "1", "SET1", "-refs=3"}).exit, 0);
    SandboxResult good = kiv_on(dev, {"info"});

    // One flipped byte in the record: the image's body CRC no longer matches.
    std::vector<std::uint8_t> flipped = {
        static_cast<std::uint8_t>(dev.flash(HOSTCFG_MTD)[SET1_NAME] ^ 0x20)};
    dev.set_flash(HOSTCFG_MTD, flipped, SET1_NAME);
    ASSERT_FALSE(hcdecode::decode_image(dev.flash(HOSTCFG_MTD)).ok);

    SandboxResult r = kiv_on(dev, {"info"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, good.out);
    EXPECT_EQ(r.err, "hostconfig_load failed; loaded backup (/dev/mtd2) successfully.\n");
    EXPECT_EQ(r.syslog,
              std::vector{logged(LOG_DEBUG, "hostconfig_load failed; loaded backup (/dev/mtd2) "
                                            "successfully.\n")});
    expect_flash_untouched(r);

    SandboxResult save = kiv_on(dev, {"partset", "2", "SET2"});
    EXPECT_EQ(save.exit, 0) << save.describe();
    for (int mtd : {HOSTCFG_MTD, BACKUP_MTD}) {
        SCOPED_TRACE("mtd" + std::to_string(mtd));
        auto rec = record_on(dev, mtd);
        ASSERT_TRUE(rec);
        EXPECT_EQ(rec->sets[1].name, "SET1");
        EXPECT_EQ(rec->sets[1].refs, std::vector<int>{3});
        EXPECT_EQ(rec->sets[2].name, "SET2");
    }
    EXPECT_EQ(fresh_image_bytes(dev, HOSTCFG_MTD), fresh_image_bytes(dev, BACKUP_MTD));
    EXPECT_EQ(kiv_on(dev, {"info"}).err, "");
}

TEST(HostconfigStore, BothCopiesBadFailsToLoad) {
    Device dev;
    std::vector<std::uint8_t> image = image_of(record_with_set("SET1"));
    image[SET1_NAME] ^= 0x20;
    dev.set_flash(HOSTCFG_MTD, image);
    dev.set_flash(BACKUP_MTD, image);
    SandboxResult r = kiv_on(dev, {"info"});
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_EQ(r.err, "hostconfig_load failed.\ninfo action: loading hostcfg failed.\n");
    EXPECT_EQ(r.out, "");
}

TEST(HostconfigStore, ALockedBackupTakesNoPart) {
    DeviceOptions options;
    options.layout = layout_with(BACKUP_MTD, "mtd 2  size=128K erase=64K locked");
    Device dev(options);
    // A valid copy on the locked device that must never be read nor overwritten.
    const std::vector<std::uint8_t> kept = image_of(record_with_set("BACKUP"));
    dev.set_flash(BACKUP_MTD, kept);

    SandboxResult init = kiv_on(dev, {"initialize"});
    EXPECT_EQ(init.exit, 0) << init.describe();
    SandboxResult edit = kiv_on(dev, {"partset", "1", "SET1"});
    EXPECT_EQ(edit.exit, 0) << edit.describe();
    for (const SandboxResult *r : {&init, &edit}) {
        EXPECT_EQ(changes_on(*r, BACKUP_MTD), std::vector<std::string>{}) << r->describe();
        EXPECT_EQ(r->events_with("open mtd2 w"), std::vector<std::string>{}) << r->describe();
        EXPECT_EQ(r->events_with("open mtd2 rw"), std::vector<std::string>{}) << r->describe();
    }
    EXPECT_EQ(record_on(dev, HOSTCFG_MTD)->sets[1].name, "SET1");
    std::vector<std::uint8_t> backup = dev.flash(BACKUP_MTD);
    EXPECT_TRUE(std::equal(kept.begin(), kept.end(), backup.begin()));

    // With the primary copy gone bad, the backup is not a fallback either.
    std::vector<std::uint8_t> flipped = {
        static_cast<std::uint8_t>(dev.flash(HOSTCFG_MTD)[SET1_NAME] ^ 0x20)};
    dev.set_flash(HOSTCFG_MTD, flipped, SET1_NAME);
    SandboxResult r = kiv_on(dev, {"info"});
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_EQ(r.err, "hostconfig_load failed.\ninfo action: loading hostcfg failed.\n");
    EXPECT_EQ(r.out.find("BACKUP"), std::string::npos);
}

TEST(HostconfigStore, HostconfigInRegularFiles) {
    Device dev;
    const std::string cfg = dev.scratch_path("hostcfg.img");
    const std::string bak = dev.scratch_path("hostcfg.bak");
    auto file_bytes = [](const std::string &path) {
        return kiv::test::bytes_of(kiv::test::read_text_file(path));
    };
    auto no_flash_changes = [](const SandboxResult &r) {
        for (const std::string &e : r.events)
            EXPECT_TRUE(e.rfind("erase", 0) != 0 && e.rfind("write", 0) != 0) << e << "\n"
                                                                              << r.describe();
    };

    SandboxResult init = kiv_on(dev, {"-cfg=" + cfg, "-cfgbak=" + bak, "initialize"});
    EXPECT_EQ(init.exit, 0) << init.describe();
    no_flash_changes(init);
    std::vector<std::uint8_t> bytes = file_bytes(cfg);
    EXPECT_EQ(bytes.size(), FRESH_IMAGE_SIZE); // exactly the image, no erased tail
    Image img = hcdecode::decode_image(bytes);
    ASSERT_TRUE(img.ok) << img.error;
    EXPECT_EQ(img.names(), std::vector<std::string>{"KIV data"});
    // A backup in a regular file never takes part.
    EXPECT_EQ(::access(bak.c_str(), F_OK), -1);

    // A hostconfig named on the command line has no backup unless one is named too.
    SandboxResult edit = kiv_on(dev, {"partset", "1", "SET1", "-refs=2", "-cfg=" + cfg});
    EXPECT_EQ(edit.exit, 0) << edit.describe();
    EXPECT_EQ(edit.syslog, save_markers("partset"));
    no_flash_changes(edit);
    auto rec = hcdecode::decode_kiv_data(file_bytes(cfg));
    ASSERT_TRUE(rec);
    EXPECT_EQ(rec->sets[1].name, "SET1");
    EXPECT_EQ(rec->sets[1].refs, std::vector<int>{2});

    SandboxResult info = kiv_on(dev, {"info", "-cfg=" + cfg});
    EXPECT_EQ(info.exit, 0) << info.describe();
    EXPECT_NE(info.out.find("  1  SET1             0          0.00 0     2 \n"), std::string::npos)
        << info.describe();

    // A good backup file is not read when the primary file is bad.
    dev.write_file("hostcfg.bak",
                   std::string(reinterpret_cast<const char *>(bytes.data()), bytes.size()));
    std::vector<std::uint8_t> bad = file_bytes(cfg);
    bad[SET1_NAME] ^= 0x20;
    dev.write_file("hostcfg.img",
                   std::string(reinterpret_cast<const char *>(bad.data()), bad.size()));
    SandboxResult fallback = kiv_on(dev, {"info", "-cfg=" + cfg, "-cfgbak=" + bak});
    EXPECT_EQ(fallback.exit, 1) << fallback.describe();
    EXPECT_EQ(fallback.err, "hostconfig_load failed.\ninfo action: loading hostcfg failed.\n");

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
    const std::vector<std::uint8_t> a_body = {'a', 'b', 'c', 'd', 'e'};
    const std::vector<std::uint8_t> b_body(100, 0x5A);
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

// The commands an integrator types to describe the default device to kiv. The same
// sequence is scripts/demo-device.sh.
const std::vector<std::vector<std::string>> INTEGRATOR_COMMANDS = {
    {"initialize"},
    {"partinfo", "7", "KNL-SAFE", "0x200000", "-offset=180000"},
    {"partinfo", "8", "ROOT-SAFE", "0x800000", "-offset=380000", "-fstype=squashfs", "-mount=/"},
    {"partinfo", "19", "APPL-SAFE", "0x600000", "-offset=E00000", "-fstype=jffs2",
     "-mount=/mnt/appl"},
    {"partinfo", "9", "KNL", "0x40000", "-offset=B80000"},
    {"partinfo", "10", "KNL", "0x40000", "-offset=BC0000"},
    {"partinfo", "11", "ROOT", "0x40000", "-offset=C00000", "-fstype=squashfs", "-mount=/"},
    {"partinfo", "12", "ROOT", "0x40000", "-offset=C40000", "-fstype=squashfs", "-mount=/"},
    {"partinfo", "13", "APPL", "0x40000", "-offset=C80000", "-fstype=jffs2", "-mount=/mnt/appl"},
    {"partinfo", "14", "APPL", "0x40000", "-offset=CC0000", "-fstype=jffs2", "-mount=/mnt/appl"},
    {"partset", "0", "SAFESET", "-refs=7,8,19"},
    {"partset", "1", "SET1", "-refs=9,11,13"},
    {"partset", "2", "SET2", "-refs=10,12,14"},
};

const std::string INTEGRATOR_INFO =
    "Sets: (p1/2)\n"
    "     name:            bootable:  rhdr:      refs:\n"
    "  0  SAFESET          0          0.00 0     7 8 19    ACTIVE SET\n"
    "  1  SET1             0          0.00 0     9 11 13 \n"
    "  2  SET2             0          0.00 0     10 12 14 \n"
    "Sets: (p2/2)\n"
    "     name:            release date:        release id:\n"
    "  0  SAFESET          1970.01.01 00:00:00                      \n"
    "  1  SET1             1970.01.01 00:00:00                      \n"
    "  2  SET2             1970.01.01 00:00:00                      \n"
    "Partitions: (p1/2)\n"
    "     pn: poolname:        offset:     size:        ver:       fstype:   mountpnt:\n"
    "  7   7  KNL-SAFE         0x180000    0x200000     0.00 0               \n"
    "  8   8  ROOT-SAFE        0x380000    0x800000     0.00 0     squashfs  /\n"
    "  9   9  KNL              0xB80000    0x40000      0.00 0               \n"
    " 10  10  KNL              0xBC0000    0x40000      0.00 0               \n"
    " 11  11  ROOT             0xC00000    0x40000      0.00 0     squashfs  /\n"
    " 12  12  ROOT             0xC40000    0x40000      0.00 0     squashfs  /\n"
    " 13  13  APPL             0xC80000    0x40000      0.00 0     jffs2     /mnt/appl\n"
    " 14  14  APPL             0xCC0000    0x40000      0.00 0     jffs2     /mnt/appl\n"
    " 19  19  APPL-SAFE        0xE00000    0x600000     0.00 0     jffs2     /mnt/appl\n"
    "Partitions: (p2/2)\n"
    "     poolname:        content name:     length:     crc32:\n"
    "  7  KNL-SAFE                           0x0         0x0       \n"
    "  8  ROOT-SAFE                          0x0         0x0       \n"
    "  9  KNL                                0x0         0x0       \n"
    " 10  KNL                                0x0         0x0       \n"
    " 11  ROOT                               0x0         0x0       \n"
    " 12  ROOT                               0x0         0x0       \n"
    " 13  APPL                               0x0         0x0       \n"
    " 14  APPL                               0x0         0x0       \n"
    " 19  APPL-SAFE                          0x0         0x0       \n"
    "Pools:\n"
    "     pool:            cnt:   type:\n"
    "  0  KNL-SAFE         1      singleton\n"
    "  1  ROOT-SAFE        1      singleton\n"
    "  2  KNL              2      multi\n"
    "  3  ROOT             2      multi\n"
    "  4  APPL             2      multi\n"
    "  5  APPL-SAFE        1      singleton\n"
    "KIV Data Upgrade set 1: VALID(0)\n"
    "KIV Data Upgrade set 2: VALID(0)\n";

TEST(HostconfigStore, IntegratorBuildsAHostconfigFromNothing) {
    Device dev;
    for (const auto &command : INTEGRATOR_COMMANDS) {
        SCOPED_TRACE(command[0] + " " + (command.size() > 1 ? command[1] : ""));
        SandboxResult r = kiv_on(dev, command);
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, command[0] == "initialize" ? "initialize: OK\n" : "");
        if (command[0] != "initialize") {
            EXPECT_EQ(r.syslog, save_markers(command[0]));
        }
        EXPECT_EQ(changes_on(r, HOSTCFG_MTD).empty(), false) << r.describe();
    }
    SandboxResult info = kiv_on(dev, {"info"});
    EXPECT_EQ(info.exit, 0) << info.describe();
    EXPECT_EQ(info.out, INTEGRATOR_INFO);
    EXPECT_EQ(info.err, "");

    // What the flash holds, read without the product's code.
    for (int mtd : {HOSTCFG_MTD, BACKUP_MTD}) {
        SCOPED_TRACE("mtd" + std::to_string(mtd));
        auto rec = record_on(dev, mtd);
        ASSERT_TRUE(rec);
        EXPECT_EQ(rec->actset, 0);
        EXPECT_EQ(rec->sets[0].refs, (std::vector<int>{7, 8, 19}));
        EXPECT_EQ(rec->sets[1].refs, (std::vector<int>{9, 11, 13}));
        EXPECT_EQ(rec->sets[2].refs, (std::vector<int>{10, 12, 14}));
        EXPECT_EQ(rec->partinfo[19].poolname, "APPL-SAFE");
        EXPECT_EQ(rec->partinfo[19].pn, 19);
        EXPECT_EQ(rec->partinfo[19].offset, 0xE00000u);
        EXPECT_EQ(rec->partinfo[19].size, 0x600000u);
        EXPECT_EQ(rec->partinfo[19].mountpnt, "/mnt/appl");
        EXPECT_EQ(rec->partinfo[19].fstype, "jffs2");
        for (std::size_t i : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 15u, 16u, 17u, 18u})
            EXPECT_EQ(rec->partinfo[i].poolname, "") << i;
    }
}

// The demonstration script runs the same commands on the device, each shown first.
TEST(HostconfigStore, DemoScriptDescribesTheDevice) {
    Device dev;
    const std::string script = kiv::test::source_dir() + "/scripts/demo-device.sh";
    SandboxResult r =
        run_on(dev, {"/bin/sh", script, kiv::test::kiv_bin(), kiv::test::mkzunf_bin()});
    EXPECT_EQ(r.exit, 0) << r.describe();
    for (const auto &command : INTEGRATOR_COMMANDS) {
        std::string shown = "$ kiv";
        for (const std::string &word : command)
            shown += " " + word;
        EXPECT_NE(r.out.find(shown + "\n"), std::string::npos) << shown << "\n" << r.describe();
    }
    EXPECT_NE(r.out.find("$ kiv info\n" + INTEGRATOR_INFO), std::string::npos) << r.describe();
    EXPECT_EQ(record_on(dev, HOSTCFG_MTD)->sets[2].name, "SET2");

    // The release written by hand into set 1 checks out, becomes active, passes through
    // TEST after the boot and ends VALID.
    for (const char *line : {" 9  Belongs to pool KNL              CRC32 content check: OK\n",
                             "verify_set:   ref 13: APPL                     : ok\n",
                             "KIV Data Upgrade set 1: TEST(1)\n", "Already validated\n",
                             "2.01,7,\n", "13,APPL,90000,2.01\n"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.describe();
    auto record = record_on(dev, HOSTCFG_MTD);
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(record->actset, 1);
    EXPECT_EQ(record->pinfometa[11].body_length, 150000u);
    const std::vector<uint8_t> state = dev.flash(HOSTCFG_MTD);
    ASSERT_TRUE(hcdecode::state_byte(state, 1).has_value());
    EXPECT_EQ(hcdecode::decode_state(*hcdecode::state_byte(state, 1)), 0) << "set 1 ends VALID";
}

} // namespace
