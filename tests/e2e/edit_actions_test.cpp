// Editing the hostconfig by hand on the device: partset defines a partition set, partinfo
// describes or forgets a partition. What each command leaves on flash is compared byte
// for byte with the record the independent encoder makes of the expected content; every
// refused command must leave the flash as it was.
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;
using hcdecode::Record;

// A hostconfig in use: every field partset and partinfo may touch holds something else.
Record base_record() {
    Record rec = empty_record();
    rec.sets[0].name = "SAFESET";
    rec.sets[0].raw_refs[0] = 7;
    rec.sets[1].name = "OLD1";
    rec.sets[1].bootable = 1;
    rec.sets[1].raw_refs[0] = 1;
    rec.sets[1].raw_refs[1] = 2;
    rec.sets[2].name = "OLD2";
    rec.sets[2].raw_refs[0] = 5;
    for (std::size_t s = 0; s < 3; ++s)
        rec.rhdr[s] = {9, static_cast<std::uint8_t>(s), 999, 1700000000,
                       "build-" + std::to_string(s)};
    rec.partinfo[4] = {"OLDPOOL", 4, 0x1000, 0x2000, "/old", "ext4"};
    rec.partinfo[7] = {"KNL-SAFE", 7, 0x180000, 0x200000, "", ""};
    hcdecode::PinfoMeta &meta = rec.pinfometa[4];
    meta.hdr_crc = 0x11111111;
    meta.type_id = 4;
    meta.hdr_length = 64;
    meta.name = "oldcontent";
    meta.body_length = 77;
    meta.body_crc = 0x22222222;
    meta.sw_major = 1;
    meta.sw_minor = 2;
    meta.sw_build = 3;
    meta.sw_build_id = "oldid";
    return rec;
}

// A device whose hostconfig and backup hold the record.
void seed(Device &dev, const Record &rec) {
    dev.set_flash(HOSTCFG_MTD, image_of(rec));
    dev.set_flash(BACKUP_MTD, image_of(rec));
}

// The stored record equals `expected` byte for byte; a mismatch names the first offset.
void expect_stored(const Device &dev, int mtd, const Record &expected) {
    SCOPED_TRACE("mtd" + std::to_string(mtd));
    hcdecode::Image img = hcdecode::decode_image(dev.flash(mtd));
    ASSERT_TRUE(img.ok) << img.error;
    const hcdecode::Part *part = img.find("KIV data");
    ASSERT_NE(part, nullptr);
    const std::vector<std::uint8_t> want = hcdecode::encode_record(expected);
    ASSERT_EQ(part->body.size(), want.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
        if (part->body[i] != want[i]) {
            ADD_FAILURE() << "record differs first at offset " << i << ": stored "
                          << int(part->body[i]) << ", expected " << int(want[i]);
            return;
        }
    }
}

std::string joined(const std::vector<std::string> &words) {
    std::ostringstream s;
    for (const std::string &w : words)
        s << w << ' ';
    return s.str();
}

// A refused command: exit 1, the message on standard error and in the system log, and
// not a single byte of either hostconfig copy changed.
void expect_refused(Device &dev, const std::vector<std::string> &args, const std::string &message) {
    SCOPED_TRACE(joined(args));
    const std::vector<std::uint8_t> primary = dev.flash(HOSTCFG_MTD);
    const std::vector<std::uint8_t> backup = dev.flash(BACKUP_MTD);
    SandboxResult r = kiv_on(dev, args);
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_EQ(r.err, message);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.syslog, std::vector{logged(LOG_ERR, message)});
    expect_flash_untouched(r);
    EXPECT_TRUE(dev.flash(HOSTCFG_MTD) == primary);
    EXPECT_TRUE(dev.flash(BACKUP_MTD) == backup);
}

std::string numbers(int from, int to) {
    std::string list;
    for (int i = from; i <= to; ++i)
        list += (list.empty() ? "" : ",") + std::to_string(i);
    return list;
}

// ---------------------------------------------------------------- partset

struct PartsetRow {
    std::vector<std::string> args;
    int set;
    std::string name;
    std::vector<int> refs; // stored in order, -1 after them
    std::uint8_t major = 0, minor = 0;
    std::uint16_t build = 0;
};

TEST(PartsetE2e, DefinesTheSet) {
    std::vector<int> twenty;
    for (int i = 0; i < 20; ++i)
        twenty.push_back(i);
    const std::vector<PartsetRow> rows = {
        {{"partset", "1", "SET1", "-refs=3,4,5"}, 1, "SET1", {3, 4, 5}},
        {{"partset", "1", "SET1", "-refs=3,4,5", "-meta=2.1.7"}, 1, "SET1", {3, 4, 5}, 2, 1, 7},
        // The version is cut to the widths of the release header fields.
        {{"-meta=258.1.65543", "partset", "1", "SET1"}, 1, "SET1", {}, 2, 1, 7},
        {{"partset", "1", "SET1"}, 1, "SET1", {}},
        {{"partset", "1"}, 1, "", {}},
        // The name is always the second word, whatever it looks like.
        {{"partset", "1", "-refs=3,4"}, 1, "-refs=3,4", {}},
        {{"partset", "1", "ABCDEFGHIJKLMNOPQRS"}, 1, "ABCDEFGHIJKLMN", {}},
        {{"partset", "1", "FOURTEENCHARSX"}, 1, "FOURTEENCHARSX", {}},
        // A third word that is not a refs list is ignored.
        {{"partset", "1", "SET1", "3,4"}, 1, "SET1", {}},
        {{"partset", "2", "X", "-refs="}, 2, "X", {}},
        {{"partset", "2", "X", "-refs=0x10,7"}, 2, "X", {16, 7}},
        {{"partset", "2", "X", "-refs=1;2"}, 2, "X", {1}},
        {{"partset", "2", "X", "-refs=3,"}, 2, "X", {3}},
        {{"partset", "2", "X", "-refs=010,300"}, 2, "X", {8, 44}},
        {{"partset", "2", "X", "-refs=" + numbers(0, 19)}, 2, "X", twenty},
        {{"partset", "0x2", "X", "-refs=9", "extra"}, 2, "X", {9}},
        {{"partset", "0", "SAFESET", "-refs=7,8,19"}, 0, "SAFESET", {7, 8, 19}},
    };
    for (const PartsetRow &row : rows) {
        SCOPED_TRACE(joined(row.args));
        Device dev;
        seed(dev, base_record());
        SandboxResult r = kiv_on(dev, row.args);
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.syslog, save_markers("partset"));

        Record want = base_record();
        hcdecode::Set &set = want.sets[static_cast<std::size_t>(row.set)];
        set.bootable = 0;
        set.name = row.name;
        set.raw_refs.fill(-1);
        for (std::size_t i = 0; i < row.refs.size(); ++i)
            set.raw_refs[i] = static_cast<std::int8_t>(row.refs[i]);
        hcdecode::ReleaseHeader &rh = want.rhdr[static_cast<std::size_t>(row.set)];
        rh.major = row.major;
        rh.minor = row.minor;
        rh.build = row.build;
        expect_stored(dev, HOSTCFG_MTD, want);
        expect_stored(dev, BACKUP_MTD, want);
    }
}

TEST(PartsetE2e, RefusesWhatTheSetTableCannotHold) {
    Device dev;
    seed(dev, base_record());
    const std::string too_many = "-refs=" + numbers(0, 20);
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
        {{"partset"}, "partset action: missing set idx?\n"},
        {{"partset", "3"}, "partset action: invalid set idx?\n"},
        {{"partset", "-1"}, "partset action: invalid set idx?\n"},
        {{"partset", "x", "SET1"}, "partset action: invalid set idx?\n"},
        // Set names are not looked up here: only a number names the set to define.
        {{"partset", "SAFESET"}, "partset action: invalid set idx?\n"},
        {{"partset", "99999999999999999999"}, "partset action: invalid set idx?\n"},
        {{"partset", "1", "SET1", too_many}, "partset action: too many refs.\n"},
        {{"partset", "1", "SET1", "-refs=1,x"}, "partset action: invalid refs list.\n"},
        {{"partset", "1", "SET1", "-refs=x"}, "partset action: invalid refs list.\n"},
        {{"partset", "1", "SET1", "-refs=1,,2"}, "partset action: invalid refs list.\n"},
        {{"partset", "1", "SET1", "-refs=,1"}, "partset action: invalid refs list.\n"},
        {{"partset", "1", "SET1", "-refs=99999999999999999999"},
         "partset action: invalid refs list.\n"},
    };
    for (const auto &[args, message] : rows)
        expect_refused(dev, args, message);
    // Refused even when the dry run would not have written anything.
    expect_refused(dev, {"partset", "5", "-dryrun"}, "partset action: invalid set idx?\n");
    expect_stored(dev, HOSTCFG_MTD, base_record());
}

TEST(PartsetE2e, DryRunShowsTheChangeAndWritesNothing) {
    Device dev;
    seed(dev, base_record());
    const std::vector<std::uint8_t> before = dev.flash(HOSTCFG_MTD);
    SandboxResult r = kiv_on(dev, {"-dryrun", "-v", "partset", "1", "SET1", "-refs=3"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_NE(r.out.find(SETS_P1_HEAD +
                         "  0  SAFESET          0          9.00 999   7    ACTIVE SET\n"
                         "  1  SET1             0          0.00 0     3 \n"
                         "  2  OLD2             0          9.02 999   5 \n" +
                         SETS_P2_HEAD),
              std::string::npos)
        << r.describe();
    EXPECT_TRUE(r.syslog.empty()) << r.describe();
    expect_flash_untouched(r);
    EXPECT_TRUE(dev.flash(HOSTCFG_MTD) == before);

    // Without -dryrun the same dump is printed and the change is saved.
    SandboxResult saved = kiv_on(dev, {"-v", "partset", "1", "SET1", "-refs=3"});
    EXPECT_EQ(saved.exit, 0) << saved.describe();
    EXPECT_EQ(saved.out.substr(saved.out.find(SETS_P1_HEAD)),
              r.out.substr(r.out.find(SETS_P1_HEAD)));
    EXPECT_EQ(record_on(dev, HOSTCFG_MTD)->sets[1].name, "SET1");
}

TEST(PartsetE2e, WithoutAHostconfigNothingIsDefined) {
    Device dev;
    SandboxResult r = kiv_on(dev, {"partset", "1", "SET1"});
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_EQ(r.err, "hostconfig_load failed.\npartset action: loading hostcfg failed.\n");
    EXPECT_EQ(r.syslog.back(), logged(LOG_ERR, "partset action: loading hostcfg failed.\n"));
    expect_flash_untouched(r);
}

// A flash block that no longer erases: the failure reaches the system log even on a
// terminal, and the critical part is still closed.
TEST(PartsetE2e, AFailedSaveIsReported) {
    struct Row {
        std::vector<std::string> args;
        std::string message;
        std::string caller;
    };
    const std::vector<Row> rows = {
        {{"partset", "1", "SET1"}, "hostcfg saving failed.\n", "partset"},
        {{"partinfo", "4", "P", "1"}, "partset action: hostcfg saving failed.\n", "partinfo"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(joined(row.args));
        Device dev;
        seed(dev, base_record());
        RunOptions options;
        options.faults = {"erase:mtd5:0"};
        options.stdout_tty = true;
        SandboxResult r = kiv_on(dev, row.args, options);
        EXPECT_EQ(r.exit, 1) << r.describe();
        EXPECT_NE(r.err.find(row.message), std::string::npos) << r.describe();
        std::vector<SyslogLine> log = save_markers(row.caller);
        log.push_back(logged(LOG_CRIT, row.message));
        std::vector<SyslogLine> notices_and_crit;
        for (const SyslogLine &line : r.syslog)
            if (line.severity == LOG_NOTICE || line.severity == LOG_CRIT)
                notices_and_crit.push_back(line);
        EXPECT_EQ(notices_and_crit, log);
    }
}

// ---------------------------------------------------------------- partinfo

struct PartinfoRow {
    std::vector<std::string> args;
    std::size_t index;
    hcdecode::PartInfo entry;
    std::uint32_t metalength = 0, metacrc = 0;
    std::uint8_t major = 0, minor = 0;
    std::uint16_t build = 0;
};

TEST(PartinfoE2e, DescribesThePartition) {
    const std::string mount31 = "/" + std::string(30, 'm');
    const std::string fs9 = "squashfs9";
    const std::vector<PartinfoRow> rows = {
        {{"partinfo", "4", "TESTPOOL", "0x100", "-pn=22"}, 4, {"TESTPOOL", 22, 0, 256, "", ""}},
        {{"partinfo", "4", "TESTPOOL", "0x100"}, 4, {"TESTPOOL", 4, 0, 256, "", ""}},
        // The offset is always hexadecimal.
        {{"partinfo", "4", "P", "1", "-offset=100"}, 4, {"P", 4, 256, 1, "", ""}},
        {{"partinfo", "4", "P", "1", "-offset=0x100"}, 4, {"P", 4, 256, 1, "", ""}},
        {{"partinfo", "4", "P", "1", "-offset=FFFFFFFF"}, 4, {"P", 4, 0xFFFFFFFF, 1, "", ""}},
        {{"partinfo", "4", "P", "1", "-pn=255"}, 4, {"P", 255, 0, 1, "", ""}},
        {{"partinfo", "4", "P", "1", "-pn=0"}, 4, {"P", 0, 0, 1, "", ""}},
        {{"partinfo", "4", "P", "1", "-pn=-1"}, 4, {"P", 4, 0, 1, "", ""}},
        {{"partinfo", "4", "P", "1", "-pn=3", "-pn=5"}, 4, {"P", 5, 0, 1, "", ""}},
        {{"partinfo", "4", "P", "1", "-mount=" + mount31, "-fstype=" + fs9},
         4,
         {"P", 4, 0, 1, mount31, fs9}},
        {{"partinfo", "4", "P", "1", "-mount=/a", "-mount=/b"}, 4, {"P", 4, 0, 1, "/b", ""}},
        // Words that match no option form are passed over.
        {{"partinfo", "4", "P", "1", "-offset=zz", "-foo", "-mount=", "junk"},
         4,
         {"P", 4, 0, 1, "", ""}},
        {{"partinfo", "4", "P", "1", "-metacrc=3735928559", "-metalength=4096", "-meta=1.2.3"},
         4,
         {"P", 4, 0, 1, "", ""},
         4096,
         3735928559u,
         1,
         2,
         3},
        {{"partinfo", "4", "P", "010"}, 4, {"P", 4, 0, 8, "", ""}},
        {{"partinfo", "4", "P", "4294967295"}, 4, {"P", 4, 0, 0xFFFFFFFF, "", ""}},
        {{"partinfo", "4", "ABCDEFGHIJKLMNO", "1"}, 4, {"ABCDEFGHIJKLMNO", 4, 0, 1, "", ""}},
        {{"partinfo", "0x13", "APPL-SAFE", "0x600000", "-offset=E00000", "-fstype=jffs2",
          "-mount=/mnt/appl"},
         19,
         {"APPL-SAFE", 19, 0xE00000, 0x600000, "/mnt/appl", "jffs2"}},
    };
    for (const PartinfoRow &row : rows) {
        SCOPED_TRACE(joined(row.args));
        Device dev;
        seed(dev, base_record());
        SandboxResult r = kiv_on(dev, row.args);
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.syslog, save_markers("partinfo"));

        Record want = base_record();
        want.partinfo[row.index] = row.entry;
        // Only the content's length, CRC and version are set; the rest of what was last
        // written into the partition stays.
        hcdecode::PinfoMeta &meta = want.pinfometa[row.index];
        meta.body_length = row.metalength;
        meta.body_crc = row.metacrc;
        meta.sw_major = row.major;
        meta.sw_minor = row.minor;
        meta.sw_build = row.build;
        expect_stored(dev, HOSTCFG_MTD, want);
        expect_stored(dev, BACKUP_MTD, want);
    }
}

TEST(PartinfoE2e, PartidxAloneForgetsThePartition) {
    Device dev;
    seed(dev, base_record());
    SandboxResult r = kiv_on(dev, {"partinfo", "4"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.syslog, save_markers("partinfo"));
    Record want = base_record();
    want.partinfo[4] = {};
    expect_stored(dev, HOSTCFG_MTD, want); // the content metadata is kept

    SandboxResult info = kiv_on(dev, {"info"});
    EXPECT_EQ(info.out.find("OLDPOOL"), std::string::npos) << info.describe();
}

TEST(PartinfoE2e, RefusesWhatTheEntryCannotHold) {
    Device dev;
    seed(dev, base_record());
    const std::string wrong = "partinfo action: wrong syntax.\n";
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
        {{"partinfo"}, wrong},
        {{"partinfo", "20"}, wrong},
        {{"partinfo", "-1"}, wrong},
        {{"partinfo", "x"}, wrong},
        {{"partinfo", "x", "POOL", "1"}, wrong},
        {{"partinfo", "99999999999999999999"}, wrong},
        {{"partinfo", "4", "POOL"}, wrong},
        {{"partinfo", "4", "", "1"}, wrong},
        {{"partinfo", "4", "ABCDEFGHIJKLMNOP", "1"}, "partinfo action: pool name too long.\n"},
        {{"partinfo", "4", "POOL", "x"}, "partinfo action: size invalid.\n"},
        {{"partinfo", "4", "POOL", "-1"}, "partinfo action: size invalid.\n"},
        {{"partinfo", "4", "POOL", "0x100000000"}, "partinfo action: size invalid.\n"},
        {{"partinfo", "4", "POOL", "1", "-pn=256"}, "partinfo action: pn invalid.\n"},
        {{"partinfo", "4", "POOL", "1", "-pn=-2"}, "partinfo action: pn invalid.\n"},
        {{"partinfo", "4", "POOL", "1", "-pn=99999999999999999999"},
         "partinfo action: pn invalid.\n"},
        {{"partinfo", "4", "POOL", "1", "-mount=/" + std::string(31, 'm')},
         "mountpoint name too long.\n"},
        {{"partinfo", "4", "POOL", "1", "-fstype=squashfs10"}, "fstype name too long.\n"},
        {{"partinfo", "4", "POOL", "1", "-offset=100000000"}, "partinfo action: offset invalid.\n"},
        {{"partinfo", "4", "POOL", "1", "-metacrc=4294967296"},
         "partinfo action: metacrc invalid.\n"},
        {{"partinfo", "4", "POOL", "1", "-metalength=-5"},
         "partinfo action: metalength invalid.\n"},
        // pn is checked before the names, as a later word can still override it.
        {{"partinfo", "4", "POOL", "1", "-fstype=squashfs10", "-pn=300"},
         "partinfo action: pn invalid.\n"},
    };
    for (const auto &[args, message] : rows)
        expect_refused(dev, args, message);
    expect_refused(dev, {"partinfo", "4", "POOL", "1", "-pn=256", "-dryrun"},
                   "partinfo action: pn invalid.\n");
    expect_stored(dev, HOSTCFG_MTD, base_record());
}

TEST(PartinfoE2e, DryRunShowsTheChangeAndWritesNothing) {
    Device dev;
    seed(dev, base_record());
    const std::vector<std::uint8_t> before = dev.flash(HOSTCFG_MTD);
    SandboxResult r = kiv_on(dev, {"partinfo", "4", "TESTPOOL", "0x100", "-pn=22", "-dryrun", "-v",
                                   "-mount=/mnt/test", "-fstype=ext4"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_NE(
        r.out.find(PARTS_P1_HEAD +
                   "  4  22  TESTPOOL         0x0         0x100        0.00 0     ext4      "
                   "/mnt/test\n"
                   "  7   7  KNL-SAFE         0x180000    0x200000     0.00 0               \n" +
                   PARTS_P2_HEAD +
                   "  4  TESTPOOL         oldcontent        0x0         0x0       \n"),
        std::string::npos)
        << r.describe();
    EXPECT_TRUE(r.syslog.empty()) << r.describe();
    expect_flash_untouched(r);
    EXPECT_TRUE(dev.flash(HOSTCFG_MTD) == before);
}

TEST(PartinfoE2e, WithoutAHostconfigNothingIsDescribed) {
    Device dev;
    SandboxResult r = kiv_on(dev, {"partinfo", "4", "POOL", "1"});
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_EQ(r.err, "hostconfig_load failed.\npartinfo action: loading hostcfg failed.\n");
    expect_flash_untouched(r);
}

} // namespace
