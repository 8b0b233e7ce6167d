
#include <gtest/gtest.h>

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;

constexpr std::size_t FIRST_BODY = 24 + 32; // in the image, the first part's body
const std::string LOAD_FAILED = "hostconfig_load failed.\n";
const std::string GETINFO_FAILED = "_mtd_get_info: GetInfo failed(-1)\n";

// Initialize writes the backup first, even under -dryrun; OK unless quiet on a terminal.
TEST(HostconfigStore, InitializeWritesAFreshHostconfig) {
    const std::vector<std::tuple<bool, std::string, std::string>> rows = {
        {false, "-dryrun", "initialize: OK\n"}, {true, "", ""}, {true, "-v", "initialize: OK\n"}};
    for (const auto &[tty, option, err] : rows) {
        SCOPED_TRACE(option + (tty ? " on a terminal" : ""));
        Device dev;
        std::vector<std::string> args = {"initialize"};
        if (!option.empty()) args.push_back(option);
        RunOptions options;
        options.stdout_tty = tty;
        SandboxResult r = kiv_on(dev, args, options);
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.err, err);
        std::vector<SyslogLine> log = save_markers("initialize");
        if (!tty) log.push_back(logged(LOG_INFO, "initialize: OK\n"));
        EXPECT_EQ(r.syslog, log);
        std::vector<std::string> changes;
        for (const std::string &e : r.events)
            if (e.starts_with("erase") || e.starts_with("write")) changes.push_back(e);
        EXPECT_EQ(changes,
                  (std::vector<std::string>{"erase mtd2 0 65536", "erase mtd2 65536 65536",
                                            "write mtd2 0 3020", "erase mtd5 0 65536",
                                            "erase mtd5 65536 65536", "write mtd5 0 3020"}));
        Bytes fresh = hcdecode::encode_image({{"KIV data", Bytes(hcdecode::RECORD_SIZE, 0), 3}});
        fresh.resize(131072, 0xFF);
        for (int mtd : {HOSTCFG_MTD, BACKUP_MTD})
            EXPECT_TRUE(dev.flash(mtd) == fresh) << mtd;
    }
}

// A bad primary, good backups on a locked device or in a file: each action's message.
TEST(HostconfigStore, EveryActionNeedsAHostconfig) {
    DeviceOptions options;
    options.layout =
        kiv::test::read_text_file(kiv::test::source_dir() + "/tools/sandbox/default.layout");
    const std::string line = "mtd 2  size=128K erase=64K\n";
    options.layout.insert(options.layout.find(line) + line.size() - 1, " locked");
    Device dev(options);
    const Bytes good = image_of(empty_record());
    Bytes bad = good;
    bad[FIRST_BODY] ^= 0x20;
    dev.set_flash(HOSTCFG_MTD, bad);
    dev.set_flash(BACKUP_MTD, good);
    const std::string cfg = "-cfg=" + dev.write_file("cfg", std::string(bad.begin(), bad.end()));
    const std::string bak =
        "-cfgbak=" + dev.write_file("bak", std::string(good.begin(), good.end()));
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
        {{"info"}, "info action: loading hostcfg failed.\n"},
        {{"info", bak, cfg}, "info action: loading hostcfg failed.\n"},
        {{"partset", "1", "SET1"}, "partset action: loading hostcfg failed.\n"},
        {{"partinfo", "4", "POOL", "1"}, "partinfo action: loading hostcfg failed.\n"},
        {{"mount", "1"}, "mount: loading hostcfg failed.\n"},
        {{"verify"}, "verify action: loading hostcfg failed.\n"},
        {{"getrh", "1"}, "getrh: loading hostcfg failed.\n"},
        {{"getpartset", "1"}, "getpartset action: loading hostcfg failed.\n"},
        {{"upgrade", "validate"}, "upgrade action: hostcfg loading failed.\n"},
        {{"activate", "1"}, "activate action: hostcfg loading failed.\n"},
    };
    for (const auto &[args, message] : rows) {
        SandboxResult r = kiv_on(dev, args);
        EXPECT_EQ(r.exit, 1) << r.describe();
        EXPECT_EQ(r.err, LOAD_FAILED + message);
        std::vector log = {logged(LOG_DEBUG, LOAD_FAILED), logged(LOG_ERR, message)};
        if (args.back() == cfg) log.insert(log.begin(), logged(LOG_ERR, GETINFO_FAILED));
        EXPECT_EQ(r.syslog, log);
        expect_flash_untouched(r);
    }
}

// A bad primary is read from the backup; the next save repairs it, "KIV data" moved last.
TEST(HostconfigStore, BadPrimaryIsReadFromTheBackupAndRepairedByTheNextSave) {
    hcdecode::Record rec = empty_record();
    rec.actset = 2;
    set_refs(rec.sets[2], "FOURTEENCHARSX",
             {19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0});
    rec.sets[2].bootable = 1;
    rec.rhdr[2] = {10, 5, 1234, 1700000000, "release-2023-11"};
    rec.partinfo[7] = {"KNL-SAFE", 7, 0x180000, 0x200000, "", ""};
    rec.partinfo[12] = {"ROOT", 30, 0xC40000, 0x40000, "/", "squashfs"};
    rec.partinfo[13] = {"ROOT", 13, 0xC80000, 0x40000, "/", "squashfs"};
    rec.pinfometa[12] = {0, 0, 0, 0x3F000, "rootfs", 0xDEADBEEF, 4, 7, 65535, ""};
    const hcdecode::NewPart a{"A", {'a', 'b', 'c', 'd', 'e'}, 3}, b{"B", Bytes(100, 0x5A), 5};
    Bytes image = hcdecode::encode_image({a, {"KIV data", hcdecode::encode_record(rec), 3}, b});
    Device dev;
    dev.set_flash(BACKUP_MTD, image);
    image[FIRST_BODY] ^= 0x20;
    dev.set_flash(HOSTCFG_MTD, image);
    set_states(dev, "TB");

    SandboxResult r = kiv_on(dev, {"info"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out,
              SETS_P1_HEAD +
                  "  2  FOURTEENCHARSX   1         10.05 1234  19 18 17 16 15 14 13 12 11 10 9 8 "
                  "7 6 5 4 3 2 1 0    ACTIVE SET\n" +
                  SETS_P2_HEAD +
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
                  "  0  KNL-SAFE         1      singleton\n  1  ROOT             2      multi\n"
                  "KIV Data Upgrade set 1: TEST(1)\nKIV Data Upgrade set 2: BOOT(2)\n");
    const std::string note = "hostconfig_load failed; loaded backup (/dev/mtd2) successfully.\n";
    EXPECT_EQ(r.err, note);
    EXPECT_EQ(r.syslog, std::vector{logged(LOG_DEBUG, note)});
    expect_flash_untouched(r);

    EXPECT_EQ(kiv_on(dev, {"partset", "2", "SET2"}).exit, 0);
    set_refs(rec.sets[2], "SET2", {});
    rec.sets[2].bootable = 0;
    rec.rhdr[2] = {0, 0, 0, 1700000000, "release-2023-11"};
    const Bytes saved =
        hcdecode::encode_image({a, b, {"KIV data", hcdecode::encode_record(rec), 3}});
    for (int mtd : {HOSTCFG_MTD, BACKUP_MTD})
        EXPECT_TRUE(std::equal(saved.begin(), saved.end(), dev.flash(mtd).begin())) << mtd;
}

} // namespace
