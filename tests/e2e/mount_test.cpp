// Mounting a set's partitions on the device: which partitions are mounted, the line each
// one gets, what a real mount(2) answers inside the sandbox, and the refusals. Mounting
// never touches the hostconfig.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;
using hcdecode::Record;

// A layout with every kind of entry a set can refer to.
Record layout_record() {
    Record rec = empty_record();
    rec.partinfo[7] = {"KNL-SAFE", 7, 0, 0x200000, "", ""};           // nothing to mount
    rec.partinfo[8] = {"ROOT-SAFE", 8, 0, 0x800000, "/", "squashfs"}; // mounted by the kernel
    rec.partinfo[19] = {"APPL-SAFE", 19, 0, 0x600000, "/mnt/appl", "jffs2"};
    rec.partinfo[11] = {"ROOT", 11, 0, 0x40000, "/", "squashfs"};
    rec.partinfo[13] = {"APPL", 13, 0, 0x40000, "/mnt/appl", "jffs2"};
    rec.partinfo[15] = {"DATA", 15, 0, 0x40000, "", "ext4"};         // no mount point
    rec.partinfo[16] = {"LOG", 22, 0, 0x40000, "/var/log", "ubifs"}; // partition 22
    set_refs(rec.sets[0], "SAFESET", {7, 8, 19});
    // 25 and -5 name no entry: a damaged list is passed over, not followed.
    set_refs(rec.sets[1], "SET1", {11, 13, 25, -5, 15, 16});
    set_refs(rec.sets[2], "ROOTONLY", {11});
    return rec;
}

// Dry runs and refusals: the mount table is the same before and after.
TEST(MountE2e, DryRunListsTheMountablePartitions) {
    Device dev;
    dev.set_flash(HOSTCFG_MTD, image_of(layout_record()));
    const std::string set1 = "KIV: Mounting /dev/mtd13 on /mnt/appl as jffs2... DRYRUN\n"
                             "KIV: Mounting /dev/mtd22 on /var/log as ubifs... DRYRUN\n";
    const std::string safe = "KIV: Mounting /dev/mtd19 on /mnt/appl as jffs2... DRYRUN\n";
    const std::string missing = "mount: missing set idx?\n", invalid = "mount: invalid set idx?\n";
    struct Row {
        std::vector<std::string> args;
        int exit;
        std::string out, err; // err is logged as an error too
    };
    const std::vector<Row> rows = {
        {{"mount", "1", "-dryrun"}, 0, set1, ""},
        {{"mount", "SET1", "-dryrun"}, 0, set1, ""},
        {{"-dryrun", "mount", "0x1"}, 0, set1, ""},
        {{"mount", "SAFESET", "-dryrun"}, 0, safe, ""},
        {{"mount", "0", "-dryrun"}, 0, safe, ""},
        {{"mount", "ROOTONLY", "-dryrun"}, 0, "", ""},
        {{"mount"}, 1, "", missing},
        {{"mount", "-dryrun"}, 1, "", missing},
        {{"mount", "5"}, 1, "", invalid},
        {{"mount", "3", "-dryrun"}, 1, "", invalid},
        {{"mount", "NOSUCH"}, 1, "", invalid},
        {{"mount", "-1"}, 1, "", invalid},
    };
    for (const Row &row : rows) {
        std::string command = kiv::test::kiv_bin();
        for (const std::string &word : row.args)
            command += " " + word;
        SCOPED_TRACE(command);
        SandboxResult r = run_on(dev, {"/bin/sh", "-c",
                                       "cat /proc/self/mountinfo >/tmp/before; " + command +
                                           "; echo \"exit=$?\"; cat /proc/self/mountinfo "
                                           ">/tmp/after; cmp -s /tmp/before /tmp/after && "
                                           "echo unchanged"});
        EXPECT_EQ(r.out, row.out + "exit=" + std::to_string(row.exit) + "\nunchanged\n")
            << r.describe();
        EXPECT_EQ(r.err, row.err);
        std::vector<SyslogLine> log;
        if (!row.err.empty()) log.push_back(logged(LOG_ERR, row.err));
        EXPECT_EQ(r.syslog, log);
        expect_flash_untouched(r);
    }
}

// Real mounts inside the sandbox, with file-system types that need no block device: the
// device name is then only the source shown in the mount table.
TEST(MountE2e, MountsEachPartitionAndReportsItsFailure) {
    Record rec = empty_record();
    rec.partinfo[13] = {"APPL", 13, 0, 0x40000, "/tmp/kiv-mnt/appl", "tmpfs"};
    rec.partinfo[14] = {"ODD", 14, 0, 0x40000, "/tmp/kiv-mnt/odd", "nosuchfs"};
    rec.partinfo[15] = {"GONE", 15, 0, 0x40000, "/tmp/kiv-mnt/missing", "tmpfs"};
    rec.partinfo[16] = {"DATA", 16, 0, 0x40000, "/tmp/kiv-mnt/data", "tmpfs"};
    set_refs(rec.sets[1], "SET1", {13, 14, 15, 16});
    Device dev;
    dev.set_flash(HOSTCFG_MTD, image_of(rec));

    SandboxResult r = run_on(
        dev, {"/bin/sh", "-c",
              "mkdir -p /tmp/kiv-mnt/appl /tmp/kiv-mnt/odd /tmp/kiv-mnt/data && \"$0\" mount 1; "
              "echo \"exit=$?\"; grep ' /tmp/kiv-mnt/' /proc/self/mounts | cut -d' ' -f1-3",
              kiv::test::kiv_bin()});
    EXPECT_EQ(r.out,
              "KIV: Mounting /dev/mtd13 on /tmp/kiv-mnt/appl as tmpfs... OK\n"
              "KIV: Mounting /dev/mtd14 on /tmp/kiv-mnt/odd as nosuchfs... FAILED: No such device\n"
              "KIV: Mounting /dev/mtd15 on /tmp/kiv-mnt/missing as tmpfs... FAILED: No such file "
              "or directory\n"
              "KIV: Mounting /dev/mtd16 on /tmp/kiv-mnt/data as tmpfs... OK\n"
              "exit=0\n"
              "/dev/mtd13 /tmp/kiv-mnt/appl tmpfs\n"
              "/dev/mtd16 /tmp/kiv-mnt/data tmpfs\n")
        << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(r.syslog.empty()) << r.describe();
    expect_flash_untouched(r);
}

// A boot script that mounts a second time: a file system the kernel keeps one instance of
// (mqueue) answers EBUSY on the same mount point, which is not an error.
TEST(MountE2e, MountingAgainIsNotAnError) {
    Record rec = empty_record();
    rec.partinfo[13] = {"MQ", 13, 0, 0x40000, "/tmp/kiv-mq", "mqueue"};
    set_refs(rec.sets[2], "SET2", {13});
    Device dev;
    dev.set_flash(HOSTCFG_MTD, image_of(rec));

    SandboxResult r = run_on(dev, {"/bin/sh", "-c",
                                   "mkdir -p /tmp/kiv-mq && \"$0\" mount SET2; echo \"exit=$?\"; "
                                   "\"$0\" mount SET2; echo \"exit=$?\"",
                                   kiv::test::kiv_bin()});
    const std::string first = "KIV: Mounting /dev/mtd13 on /tmp/kiv-mq as mqueue... OK\nexit=0\n";
    if (r.out.rfind(first, 0) != 0)
        GTEST_SKIP() << "no mqueue file system on this kernel: " << r.describe();
    EXPECT_EQ(r.out, first + "KIV: Mounting /dev/mtd13 on /tmp/kiv-mq as mqueue... PASS: Already "
                             "mounted or in use (EBUSY)\n"
                             "exit=0\n")
        << r.describe();
    EXPECT_EQ(r.err, "");
    expect_flash_untouched(r);
}

} // namespace
