// Editing the hostconfig by hand on the device: partset defines a partition set, partinfo
// describes or forgets a partition. What each command leaves on flash is compared byte
// for byte with the record the independent encoder makes of the expected content; every
// refused command must leave the flash as it was.
#include <algorithm>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/cat.hpp"

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;
using hcdecode::Record;

// A hostconfig in use: every field partset and partinfo may touch holds something else.
Record base_record() {
    Record rec = empty_record();
    set_refs(rec.sets[0], "SAFESET", {7});
    set_refs(rec.sets[1], "OLD1", {1, 2});
    rec.sets[1].bootable = 1;
    set_refs(rec.sets[2], "OLD2", {5});
    for (std::size_t s = 0; s < 3; ++s)
        rec.rhdr[s] = {9, static_cast<std::uint8_t>(s), 999, 1700000000,
                       "build-" + std::to_string(s)};
    rec.partinfo[4] = {"OLDPOOL", 4, 0x1000, 0x2000, "/old", "ext4"};
    rec.partinfo[7] = {"KNL-SAFE", 7, 0x180000, 0x200000, "", ""};
    rec.pinfometa[4] = {0x11111111, 4, 64, 77, "oldcontent", 0x22222222, 1, 2, 3, "oldid"};
    return rec;
}

// A device whose hostconfig and backup hold the record.
void seed(Device &dev, const Record &rec) {
    dev.set_flash(HOSTCFG_MTD, image_of(rec));
    dev.set_flash(BACKUP_MTD, image_of(rec));
}

// Both stored records equal `expected` byte for byte; a mismatch names the first offset.
void expect_stored(const Device &dev, const Record &expected) {
    const Bytes want = hcdecode::encode_record(expected);
    for (int mtd : {HOSTCFG_MTD, BACKUP_MTD}) {
        SCOPED_TRACE("mtd" + std::to_string(mtd));
        hcdecode::Image img = hcdecode::decode_image(dev.flash(mtd));
        ASSERT_TRUE(img.ok) << img.error;
        ASSERT_NE(img.find("KIV data"), nullptr);
        const Bytes &body = img.find("KIV data")->body;
        ASSERT_EQ(body.size(), want.size());
        const auto differs = std::mismatch(body.begin(), body.end(), want.begin()).first;
        EXPECT_TRUE(differs == body.end())
            << "record differs first at offset " << differs - body.begin();
    }
}

std::string joined(const std::vector<std::string> &words) {
    std::string s;
    for (const std::string &w : words)
        s += w + " ";
    return s;
}

std::string numbers(int from, int to) {
    std::string list;
    for (int i = from; i <= to; ++i)
        list += cat(list.empty() ? "" : ",", std::to_string(i));
    return list;
}

// One edit on a device holding base_record(): it succeeds silently with one save.
void expect_edit(const std::vector<std::string> &args, const Record &want) {
    SCOPED_TRACE(joined(args));
    Device dev;
    seed(dev, base_record());
    SandboxResult r = kiv_on(dev, args);
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    const auto action = std::find_if(args.begin(), args.end(),
                                     [](const std::string &word) { return word[0] != '-'; });
    EXPECT_EQ(r.syslog, save_markers(*action));
    expect_stored(dev, want);
}

TEST(PartsetE2e, DefinesTheSet) {
    struct Row {
        std::vector<std::string> args;
        int set;
        std::string name;
        std::vector<int> refs;
        mkzunf::Version version = {};
    };
    std::vector<int> twenty(20);
    std::iota(twenty.begin(), twenty.end(), 0);
    const std::vector<Row> rows = {
        {{"partset", "1", "SET1", "-refs=3,4,5"}, 1, "SET1", {3, 4, 5}},
        {{"partset", "1", "SET1", "-refs=3,4,5", "-meta=2.1.7"}, 1, "SET1", {3, 4, 5}, {2, 1, 7}},
        // The version is cut to the widths of the release header fields.
        {{"-meta=258.1.65543", "partset", "1", "SET1"}, 1, "SET1", {}, {2, 1, 7}},
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
    for (const Row &row : rows) {
        Record want = base_record();
        set_refs(want.sets[row.set], row.name, row.refs);
        want.sets[row.set].bootable = 0;
        hcdecode::ReleaseHeader &rh = want.rhdr[row.set];
        rh.major = row.version.major;
        rh.minor = row.version.minor;
        rh.build = row.version.build;
        expect_edit(row.args, want);
    }
}

TEST(PartinfoE2e, DescribesThePartition) {
    struct Row {
        std::vector<std::string> args;
        std::size_t index;
        hcdecode::PartInfo entry;
        std::uint32_t metalength = 0, metacrc = 0;
        mkzunf::Version version = {};
    };
    const std::string mount31 = cat("/", std::string(30, 'm'));
    const std::vector<std::string> with_meta = {
        "partinfo", "4", "P", "1", "-metacrc=3735928559", "-metalength=4096", "-meta=1.2.3"};
    const std::vector<Row> rows = {
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
        {{"partinfo", "4", "P", "1", "-mount=" + mount31, "-fstype=squashfs9"},
         4,
         {"P", 4, 0, 1, mount31, "squashfs9"}},
        {{"partinfo", "4", "P", "1", "-mount=/a", "-mount=/b"}, 4, {"P", 4, 0, 1, "/b", ""}},
        // Words that match no option form are passed over.
        {{"partinfo", "4", "P", "1", "-offset=zz", "-foo", "-mount=", "junk"},
         4,
         {"P", 4, 0, 1, "", ""}},
        {with_meta, 4, {"P", 4, 0, 1, "", ""}, 4096, 0xDEADBEEF, {1, 2, 3}},
        {{"partinfo", "4", "P", "010"}, 4, {"P", 4, 0, 8, "", ""}},
        {{"partinfo", "4", "P", "4294967295"}, 4, {"P", 4, 0, 0xFFFFFFFF, "", ""}},
        {{"partinfo", "4", "ABCDEFGHIJKLMNO", "1"}, 4, {"ABCDEFGHIJKLMNO", 4, 0, 1, "", ""}},
        {{"partinfo", "0x13", "APPL-SAFE", "0x600000", "-offset=E00000", "-fstype=jffs2",
          "-mount=/mnt/appl"},
         19,
         {"APPL-SAFE", 19, 0xE00000, 0x600000, "/mnt/appl", "jffs2"}},
    };
    for (const Row &row : rows) {
        Record want = base_record();
        want.partinfo[row.index] = row.entry;
        // Only the content's length, CRC and version are set; the rest of what was last
        // written into the partition stays.
        hcdecode::PinfoMeta &meta = want.pinfometa[row.index];
        meta.body_length = row.metalength;
        meta.body_crc = row.metacrc;
        meta.sw_major = row.version.major;
        meta.sw_minor = row.version.minor;
        meta.sw_build = row.version.build;
        expect_edit(row.args, want);
    }
    // PARTIDX alone forgets the partition and keeps its content's description.
    Record want = base_record();
    want.partinfo[4] = {};
    expect_edit({"partinfo", "4"}, want);
}

// Refused commands: exit 1, the message on standard error and in the system log, and not
// a single byte of either hostconfig copy changed, under -dryrun too.
TEST(EditE2e, RefusesWhatTheRecordCannotHold) {
    const std::string set_idx = "partset action: invalid set idx?\n";
    const std::string refs = "partset action: invalid refs list.\n";
    const std::string wrong = "partinfo action: wrong syntax.\n";
    const std::string size = "partinfo action: size invalid.\n";
    const std::string pn = "partinfo action: pn invalid.\n";
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
        {{"partset"}, "partset action: missing set idx?\n"},
        {{"partset", "3"}, set_idx},
        {{"partset", "-1"}, set_idx},
        {{"partset", "x", "SET1"}, set_idx},
        // Set names are not looked up here: only a number names the set to define.
        {{"partset", "SAFESET"}, set_idx},
        {{"partset", "99999999999999999999"}, set_idx},
        {{"partset", "5", "-dryrun"}, set_idx},
        {{"partset", "1", "SET1", "-refs=" + numbers(0, 20)}, "partset action: too many refs.\n"},
        {{"partset", "1", "SET1", "-refs=1,x"}, refs},
        {{"partset", "1", "SET1", "-refs=x"}, refs},
        {{"partset", "1", "SET1", "-refs=1,,2"}, refs},
        {{"partset", "1", "SET1", "-refs=,1"}, refs},
        {{"partset", "1", "SET1", "-refs=99999999999999999999"}, refs},
        {{"partinfo"}, wrong},
        {{"partinfo", "20"}, wrong},
        {{"partinfo", "-1"}, wrong},
        {{"partinfo", "x"}, wrong},
        {{"partinfo", "x", "POOL", "1"}, wrong},
        {{"partinfo", "99999999999999999999"}, wrong},
        {{"partinfo", "4", "POOL"}, wrong},
        {{"partinfo", "4", "", "1"}, wrong},
        {{"partinfo", "4", "ABCDEFGHIJKLMNOP", "1"}, "partinfo action: pool name too long.\n"},
        {{"partinfo", "4", "POOL", "x"}, size},
        {{"partinfo", "4", "POOL", "-1"}, size},
        {{"partinfo", "4", "POOL", "0x100000000"}, size},
        {{"partinfo", "4", "POOL", "1", "-pn=256"}, pn},
        {{"partinfo", "4", "POOL", "1", "-pn=256", "-dryrun"}, pn},
        {{"partinfo", "4", "POOL", "1", "-pn=-2"}, pn},
        {{"partinfo", "4", "POOL", "1", "-pn=99999999999999999999"}, pn},
        {{"partinfo", "4", "POOL", "1", "-mount=/" + std::string(31, 'm')},
         "mountpoint name too long.\n"},
        {{"partinfo", "4", "POOL", "1", "-fstype=squashfs10"}, "fstype name too long.\n"},
        {{"partinfo", "4", "POOL", "1", "-offset=100000000"}, "partinfo action: offset invalid.\n"},
        {{"partinfo", "4", "POOL", "1", "-metacrc=4294967296"},
         "partinfo action: metacrc invalid.\n"},
        {{"partinfo", "4", "POOL", "1", "-metalength=-5"},
         "partinfo action: metalength invalid.\n"},
        // pn is checked before the names, as a later word can still override it.
        {{"partinfo", "4", "POOL", "1", "-fstype=squashfs10", "-pn=300"}, pn},
    };
    Device dev;
    seed(dev, base_record());
    for (const auto &[args, message] : rows) {
        SCOPED_TRACE(joined(args));
        SandboxResult r = kiv_on(dev, args);
        EXPECT_EQ(r.exit, 1) << r.describe();
        EXPECT_EQ(r.err, message);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.syslog, std::vector{logged(LOG_ERR, message)});
        expect_flash_untouched(r);
    }
    expect_stored(dev, base_record());
}

// Under -v the dump shows the change, and -dryrun saves nothing.
TEST(EditE2e, DryRunShowsTheChangeAndWritesNothing) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
        {{"-dryrun", "-v", "partset", "1", "SET1", "-refs=3"},
         SETS_P1_HEAD +
             "  0  SAFESET          0          9.00 999   7    ACTIVE SET\n"
             "  1  SET1             0          0.00 0     3 \n"
             "  2  OLD2             0          9.02 999   5 \n" +
             SETS_P2_HEAD},
        {{"partinfo", "4", "TESTPOOL", "0x100", "-pn=22", "-dryrun", "-v", "-mount=/mnt/test",
          "-fstype=ext4"},
         PARTS_P1_HEAD +
             "  4  22  TESTPOOL         0x0         0x100        0.00 0     ext4      /mnt/test\n"
             "  7   7  KNL-SAFE         0x180000    0x200000     0.00 0               \n" +
             PARTS_P2_HEAD + "  4  TESTPOOL         oldcontent        0x0         0x0       \n"},
    };
    for (const auto &[args, dump] : rows) {
        SCOPED_TRACE(joined(args));
        Device dev;
        seed(dev, base_record());
        SandboxResult dry = kiv_on(dev, args);
        EXPECT_EQ(dry.exit, 0) << dry.describe();
        EXPECT_NE(dry.out.find(dump), std::string::npos) << dry.describe();
        EXPECT_EQ(dry.syslog, std::vector<SyslogLine>{}) << dry.describe();
        expect_flash_untouched(dry);
        expect_stored(dev, base_record());
    }
}

// A flash block that no longer erases: the failure reaches the system log even on a
// terminal, and the critical part is still closed.
TEST(EditE2e, AFailedSaveIsReported) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
        {{"partset", "1", "SET1"}, "hostcfg saving failed.\n"},
        {{"partinfo", "4", "P", "1"}, "partset action: hostcfg saving failed.\n"},
    };
    for (const auto &[args, message] : rows) {
        SCOPED_TRACE(joined(args));
        Device dev;
        seed(dev, base_record());
        RunOptions options;
        options.faults = {"erase:mtd5:0"};
        options.stdout_tty = true;
        SandboxResult r = kiv_on(dev, args, options);
        EXPECT_EQ(r.exit, 1) << r.describe();
        EXPECT_NE(r.err.find(message), std::string::npos) << r.describe();
        std::vector<SyslogLine> log = save_markers(args[0]);
        log.push_back(logged(LOG_CRIT, message));
        std::vector<SyslogLine> notices_and_crit;
        for (const SyslogLine &line : r.syslog)
            if (line.severity == LOG_NOTICE || line.severity == LOG_CRIT)
                notices_and_crit.push_back(line);
        EXPECT_EQ(notices_and_crit, log);
    }
}

} // namespace
