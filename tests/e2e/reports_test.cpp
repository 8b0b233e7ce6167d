#include <gtest/gtest.h>

#include <cstdio>
#include <iterator>
#include <sstream>

#include "common/cat.hpp"
#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;
using mkzunf::ImageBuilder;
using std::to_string;

const std::string PIF_REFUSED = "getpartset action: PIF could not parse or too long.\n";
const std::string ILLEGAL = "getpartset action: SETIDX is illegal.\n";
const std::string STATES_VALID =
    "KIV Data Upgrade set 1: VALID(0)\nKIV Data Upgrade set 2: VALID(0)\n";

const std::string PART[] = {
    "0,ROOT-SAFE,0,0x00000000,0x00040000,/,squashfs,0x1447DB2C,0x000003E8,1.2,3,safe-7\n",
    "3,APPL,3,0x00300000,0x00040000,/mnt/appl,jffs2,0xC5B23688,0x00000BB8,2.5,300,appl-b300\n",
    "7,KERNEL,12,0x00C00000,0x00600000,,,0xEA05874B,0x00001004,12.0,65535,k\n"};

std::string partset_listing(int set, const std::string &lines) {
    return cat("# KIV Partion Set CSV version 1.0\n# Selected Partition Set: ", std::to_string(set),
               "\n# pidx,pool,pn,offset,size,mountpnt,fstype,crc,len,ver,build,build_id\n", lines,
               "# End of list\n");
}

std::string repeat_list(const std::string &name, int count) {
    return count == 1 ? name : name + "," + repeat_list(name, count - 1);
}

std::string warning(int broken, const std::string &kind) {
    return cat("WARNING: ", std::to_string(broken), "/3 ", kind,
               " pools have a disparity between\n"
               "             calculated and hostconfig recorded",
               kind == "multi" ? "" : " ", "\n             CRC32 values.\n");
}
const std::string DO_NOT_REBOOT =
    "             AT LEAST ONE OF THESE SINGLETONS IS PART OF THE ACTIVE SET\n"
    "             DO NOT REBOOT UNTIL THIS ISSUE HAS BEEN FIXED!\n";

InstalledDevice listing_device(const std::vector<int> &corrupted = {}) {
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
    d.set(0, "SAFESET", {});
    d.set(1, "SET1", {3, 7, 10});
    d.set(2, "SET2", {1, 100, 3, 6});
    d.rec.sets[2].raw_refs[5] = 10;
    d.rec.actset = 1;
    for (int p : corrupted)
        d.partitions[p][17] ^= 0x40;
    return d;
}

// The listing of listing_device; appl: the result of entry 3 (header behind the content).
std::string listing(const std::vector<int> &corrupted, const char *appl = "OK") {
    const char *const pools[] = {"KERNEL-SAFE", "ROOT-SAFE", "",       "APPL", "-",   "",
                                 "DATA",        "KERNEL",    "KERNEL", "-",    "CONF"};
    const char *const results[] = {"OK",      "OK (wts=2)", "",   appl, "",  "",
                                   "UNKNOWN", "OK",         "OK", "",   "OK"};
    std::string out = "Verifying partitions:\n";
    char line[128];
    for (int i = 0; i < 20; ++i) {
        const std::string pool = i < 11 ? pools[i] : "";
        const char *result = std::ranges::count(corrupted, i) ? "DISPARITY" : results[i % 11];
        std::snprintf(line, sizeof line, "%3d  Belongs to pool %-15s  CRC32 content check: %s\n", i,
                      pool.c_str(), result);
        if (pool.size() < 2)
            std::snprintf(line, sizeof line, "%3d  %s\n", i,
                          pool.empty() ? "Not handled by KIV" : "Nothing installed");
        out += line;
    }
    return out;
}

const std::string SEP = "-------------------------------------------------------\n";

std::string head(int i, int type, const std::string &name, int valid = 1) {
    return cat(SEP, "Content Part: ", to_string(i), ", type ", to_string(type), ", name ", name,
               "\nvalid...................: ", to_string(valid),
               "\ncovered_by_signature....: 0\nvalidated_by_signature..: 0\n");
}

std::string software(int i, const std::string &name, int major, int minor, int build) {
    return cat(head(i, 4, name), "sw_version_major..: ", to_string(major),
               "\nsw_version_minor..: ", to_string(minor),
               "\nsw_build_number...: ", to_string(build), "\nsw_build_id.......: ", name,
               "-build\n");
}

ImageBuilder release_image() {
    return ImageBuilder()
        .add_release_header({3, 14, 1592}, 0xF0000001u, "rel-3.14.1592", "products=alpha")
        .add_kivm("rootfs,5,7\nkernel,6,8\n")
        .add_software("rootfs", {3, 14, 7}, "rootfs-build", mkzunf::to_bytes("root contents"))
        .add_software("kernel", {4, 1, 65535}, "kernel-build", mkzunf::to_bytes("kern"));
}

// {words after kiv, exit, out, err (logged as errors too)}; under -v a summary precedes out.
using Row = std::tuple<std::string, int, std::string, std::string>;

void run_rows(Device &dev, const std::vector<Row> &rows, const std::string &setting = "A=") {
    const std::string plugin = KIV_TEST_PLUGIN;
    RunOptions options;
    options.keep.push_back(plugin.substr(0, plugin.rfind('/')));
    for (const auto &[args, exit, out, err] : rows) {
        SCOPED_TRACE(args);
        std::istringstream words(args);
        std::vector<std::string> argv = {"/usr/bin/env", "LD_PRELOAD=" + plugin, setting,
                                         kiv::test::kiv_bin()};
        argv.insert(argv.end(), std::istream_iterator<std::string>(words), {});
        SandboxResult r = run_on(dev, argv, options);
        EXPECT_EQ(r.exit, exit) << r.describe();
        const std::size_t at = args.ends_with("-v") ? r.out.find(out) : 0;
        EXPECT_EQ(r.out.substr(std::min(at, r.out.size())), out);
        EXPECT_EQ(r.err, err);
        std::string log;
        for (const SyslogLine &line : r.syslog)
            log += line.severity == LOG_ERR ? line.text : "(not an error) " + line.text;
        EXPECT_EQ(log, err);
        expect_flash_untouched(r);
    }
}

TEST(ReportsE2e, ReleaseHeadersAndPartitionSets) {
    InstalledDevice d;
    d.install(0, "ROOT-SAFE", 1, content_bytes(1000, 1), "rootfs-safe", {1, 2, 3}, "safe-7");
    d.install(3, "APPL", 1, content_bytes(3000, 3), "appl", {2, 5, 300}, "appl-b300");
    d.install(7, "KERNEL", 2, content_bytes(4100, 7), "kernel", {12, 0, 65535}, "k");
    d.rec.partinfo[0] = {"ROOT-SAFE", 0, 0x00000000, 0x00040000, "/", "squashfs"};
    d.rec.partinfo[3] = {"APPL", 3, 0x00300000, 0x00040000, "/mnt/appl", "jffs2"};
    d.rec.partinfo[7] = {"KERNEL", 12, 0x00C00000, 0x00600000, "", ""};
    d.set(0, "SAFESET", {0});
    d.set(1, "SET1", {3, 7, 100, 0}); // 100: past the table, skipped
    d.rec.rhdr[1] = {3, 5, 1592, 1700000000, "rel-3.5"};
    d.rec.actset = 1;
    Device dev;
    d.write_to(dev);
    const std::string rh1 = "# KIV Release Header CSV version 1.0\n# Selected Partition Set: 1\n"
                            "# ver,build,build_id,build_time\n"
                            "3.5,1592,rel-3.5,2023.11.14 22:13:20\n# End of list\n";
    const std::string nineteen = repeat_list("ver", 19);
    // Every field but pidx: 99 characters, the longest list accepted.
    const std::string all = "pool,pn,offset,size,size_dec,mountpnt,fstype,len,len_dec,ver,"
                            "ver_major,ver_minor,build_num,build_id";
    const std::string all_values = "APPL,3,0x00300000,0x00040000,262144,/mnt/appl,jffs2,"
                                   "0x00000BB8,3000,2.05,2,05,300,appl-b300\n";
    run_rows(dev, {
                      {"getrh active", 0, rh1, ""},
                      {"getrh 1 -pif=ver,ver_major,ver_minor,build_num,foo,build_id,build_time", 0,
                       "3.05,3,05,1592,,rel-3.5,2023.11.14 22:13:20\n", ""},
                      {"getrh 1 -pif=" + nineteen, 0, repeat_list("3.05", 19) + "\n", ""},
                      {"getrh 1 -pif=" + nineteen + ",ver", 1, "", PIF_REFUSED},
                      {"getpartset active", 0, partset_listing(1, PART[1] + PART[2] + PART[0]), ""},
                      {"getpartset 0 -v", 0, STATES_VALID + partset_listing(0, PART[0]), ""},
                      {"getpartset 1 APPL", 0, PART[1], ""},
                      {"getpartset 1 -pif=pidx,pn", 0, "3,3\n7,12\n0,0\n", ""},
                      {"getpartset 1 APPL -pif=" + all, 0, all_values, ""},
                      {"getpartset 1 APPL -pif=" + all + "x", 1, "", PIF_REFUSED},
                  });

    d.rec.actset = 3;
    d.write_to(dev);
    run_rows(dev, {
                      {"getrh active", 1, "", "getrh: invalid set idx?\n"},
                      {"getrh", 1, "", "getrh: missing set idx?\n"},
                      {"getpartset active", 1, "", ILLEGAL},
                      {"getpartset", 1, "", "getpartset action: SETIDX is missing.\n"},
                      {"getpartset 3", 1, "", ILLEGAL},
                      {"getpartset x", 1, "", ILLEGAL},
                      {"getpartset -1", 1, "", ILLEGAL},
                  });
}

TEST(ReportsE2e, Verify) {
    const std::string every_set =
        "verify_sets: Checking set -1\nverify_set: Set 0: SAFESET\nverify_set:   no refs\n"
        "verify_set: Set 1: SET1\nverify_set:   ref  3: APPL         appl        : ok\n"
        "verify_set:   ref  7: KERNEL       kernel      : ok\n"
        "verify_set:   ref 10: CONF         conf        : ok\nverify_set: Set 2: SET2\n"
        "verify_set:   ref  1: ROOT-SAFE    rootfs-safe : bad\n"
        "verify_set:   ref 100:                          : bad\n"
        "verify_set:   ref  3: APPL         appl        : ok\n"
        "verify_set:   ref  6: DATA         data        : empty\n";
    Device dev;
    listing_device({7, 8, 10}).write_to(dev);
    run_rows(dev, {{"verify", 0, listing({7, 8, 10}) + DO_NOT_REBOOT,
                    warning(2, "multi") + warning(1, "singleton")}});
    // Singletons outside the active set; the first open fails, so the third layout is named.
    listing_device({0, 1}).write_to(dev);
    run_rows(
        dev,
        {{"verify -v", 0, STATES_VALID + listing({0, 1}, "OK (wts=3)"), warning(2, "singleton")}},
        "KIV_TEST_FAIL_OPEN=/dev/mtd3");
    run_rows(dev, {
                      {"verify 0x1", 0, "", ""},
                      {"verify NOSUCHSET", 1, every_set, ""},
                      {"activate 2", 1, "", "activate: set 2 validation err=2\n"},
                  });
}

TEST(ReportsE2e, Zunfinfo) {
    const Bytes image = release_image().build();
    const std::string release = head(0, 1, "release") +
                                "release_version_major..: 3\nrelease_version_minor..: 14\n"
                                "release_build_number...: 1592\nrelease_date...........: "
                                "-268435455\nrelease_build_id.......: rel-3.14.1592\n";
    const std::string rootfs = software(2, "rootfs", 3, 14, 7);
    ImageBuilder late = release_image();
    late.add_data("fill", Bytes(1200, 1)).add_data("x", {}).fault_part_hdr_crc(5);
    const Bytes big =
        ImageBuilder().add_release_header({1, 0, 0}, 1, "b", std::string(1500, 'r')).build();
    const std::string failed = "zunfinfo: loading ZUNF failed.\n", no_hdr = "zunfinfo: no header\n";
    Device dev;
    auto zunf = [&](const char *name, const Bytes &bytes) {
        return "zunfinfo " + dev.write_file(name, std::string(bytes.begin(), bytes.end()));
    };
    const std::string good = zunf("good.zunf", image), late_defect = zunf("late", late.build());
    const std::string bad_magic = zunf("magic", release_image().fault_bad_magic(1).build());
    run_rows(dev,
             {
                 {good, 0, release, ""},
                 {good + " -allparts", 0,
                  release + head(1, 3, "kivm") + rootfs + software(3, "kernel", 4, 1, 65535), ""},
                 {good + " -al", 0, release, ""},
                 {good + " -zunfsize=" + to_string(image.size()), 0, release, ""},
                 // Refused before anything is read, the bad magic unseen.
                 {bad_magic + " -zunfsize=" + to_string(image.size() - 1), 9, "",
                  "zunfinfo: ZUNF too big\n"},
                 {late_defect, 0, release, ""},
                 {late_defect + " -all", 9, "", failed},
                 {zunf("big", big), 0, SEP + "WARNING: CONTENT PART IS NULL! Skipping.\n", ""},
                 {zunf("kivm", release_image().fault_part_body_crc(1).build()) + " -all", 0,
                  release + head(1, 3, "kivm", -1) + rootfs, ""},
                 {bad_magic, 9, "", no_hdr + failed},
                 {zunf("24.zunf", release_image().fault_truncate(24).build()), 9, "",
                  no_hdr + "zunfinfo: File contains no data.\n"},
                 {zunf("empty.zunf", {}), 9, "", "zunfinfo: empty ZUNF\n"},
                 {"zunfinfo " + dev.scratch_path("absent.zunf"), 8, "",
                  "zunfinfo: could not open ZUNF\n"},
                 {"zunfinfo", 1, "", "zunfinfo: ZUNF is missing.\n"},
             });
}

} // namespace
