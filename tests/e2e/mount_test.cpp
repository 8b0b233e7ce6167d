// Mounting a set's partitions: which are mounted, the line each gets, the refusals, and what
// a real mount(2) answers in the sandbox (types that need no block device).
#include <tuple>

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;

TEST(MountE2e, MountsTheSetsPartitions) {
    hcdecode::Record rec = empty_record();
    rec.partinfo[7] = {"KNL", 7, 0, 0x40000, "/boot", ""};        // no file system type
    rec.partinfo[11] = {"ROOT", 11, 0, 0x40000, "/", "squashfs"}; // mounted by the kernel
    rec.partinfo[13] = {"APPL", 13, 0, 0x40000, "/mnt/appl", "jffs2"};
    rec.partinfo[15] = {"DATA", 15, 0, 0x40000, "", "ext4"};         // no mount point
    rec.partinfo[16] = {"LOG", 22, 0, 0x40000, "/var/log", "ubifs"}; // partition 22
    rec.partinfo[17] = {"A", 17, 0, 0x40000, "/tmp/m/a", "tmpfs"};
    rec.partinfo[18] = {"B", 18, 0, 0x40000, "/tmp/m/b", "nosuchfs"};
    rec.partinfo[14] = {"Q", 14, 0, 0x40000, "/tmp/m/q", "mqueue"}; // mounted before: EBUSY
    set_refs(rec.sets[1], "SET1", {7, 11, 13, 25, -5, 15, 16});     // 25, -5: no entry, passed over
    set_refs(rec.sets[2], "REAL", {17, 18, 14});
    Device dev;
    dev.set_flash(HOSTCFG_MTD, image_of(rec));
    const std::string M = "KIV: Mounting /dev/mtd", D = "... DRYRUN\n";
    const std::string set1 = M + "13 on /mnt/appl as jffs2" + D + M + "22 on /var/log as ubifs" + D;
    // {args, out, err}: err is logged as an error too.
    const std::vector<std::tuple<std::string, std::string, std::string>> rows = {
        {"-dryrun mount 0x1", set1 + "exit=0\n", ""},
        {"mount -dryrun", "exit=1\n", "mount: missing set idx?\n"},
        {"mount 3 -dryrun", "exit=1\n", "mount: invalid set idx?\n"},
        {"mount -1", "exit=1\n", "mount: invalid set idx?\n"},
        {"mount REAL",
         M + "17 on /tmp/m/a as tmpfs... OK\n" + M +
             "18 on /tmp/m/b as nosuchfs... FAILED: No such device\n" + M +
             "14 on /tmp/m/q as mqueue... PASS: Already mounted or in use (EBUSY)\n"
             "exit=0\n/dev/mtd17 /tmp/m/a tmpfs\n",
         ""},
    };
    for (const auto &[args, out, err] : rows) {
        SCOPED_TRACE(args);
        SandboxResult r = run_on(
            dev,
            {"/bin/sh", "-c",
             "mkdir -p /tmp/m/a /tmp/m/b /tmp/m/q && mount -t mqueue none /tmp/m/q && " +
                 kiv::test::kiv_bin() + " " + args +
                 "; echo exit=$?; grep ' /tmp/m/. tmpfs' /proc/self/mounts | cut -d' ' -f1-3"});
        EXPECT_EQ(r.out, out) << r.describe();
        EXPECT_EQ(r.err, err);
        EXPECT_EQ(r.syslog,
                  err.empty() ? std::vector<SyslogLine>{} : std::vector{logged(LOG_ERR, err)});
        expect_flash_untouched(r);
    }
}

} // namespace
