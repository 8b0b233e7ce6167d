// The read-only actions on the simulated device: the getrh and getpartset CSV that scripts
// read, the verify content check and the zunfinfo image listing, with their refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "common/cat.hpp"
#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;
using mkzunf::ImageBuilder;
using std::to_string;

const std::string PIF_REFUSED = "getpartset action: PIF could not parse or too long.\n";
const std::string ILLEGAL = "getpartset action: SETIDX is illegal.\n";
const std::string BAD_SET = "getrh: invalid set idx?\n";

InstalledDevice report_device() {
    InstalledDevice d;
    d.install(0, "ROOT-SAFE", 1, content_bytes(1000, 1), "rootfs-safe", {1, 2, 3}, "safe-7");
    d.install(3, "APPL", 1, content_bytes(3000, 3), "appl", {2, 5, 300}, "appl-b300");
    d.install(7, "KERNEL", 2, content_bytes(4100, 7), "kernel", {12, 0, 65535}, "k");
    d.rec.partinfo[0] = {"ROOT-SAFE", 0, 0x00000000, 0x00040000, "/", "squashfs"};
    d.rec.partinfo[3] = {"APPL", 3, 0x00300000, 0x00040000, "/mnt/appl", "jffs2"};
    d.rec.partinfo[7] = {"KERNEL", 12, 0x00C00000, 0x00600000, "", ""};
    d.set(0, "SAFESET", {0});
    // A reference past the partition table is skipped, the ones behind it are not.
    d.set(1, "SET1", {3, 7, 100, 0});
    d.set(2, "SET2", {});
    d.rec.rhdr[1] = {3, 5, 1592, 1700000000, "rel-3.5"};
    d.rec.actset = 1;
    return d;
}

const std::string PART0 =
    "0,ROOT-SAFE,0,0x00000000,0x00040000,/,squashfs,0x1447DB2C,0x000003E8,1.2,3,safe-7\n";
const std::string PART3 =
    "3,APPL,3,0x00300000,0x00040000,/mnt/appl,jffs2,0xC5B23688,0x00000BB8,2.5,300,appl-b300\n";
const std::string PART7 =
    "7,KERNEL,12,0x00C00000,0x00600000,,,0xEA05874B,0x00001004,12.0,65535,k\n";

std::string partset_listing(int set, const std::string &lines) {
    return cat("# KIV Partion Set CSV version 1.0\n# Selected Partition Set: ", std::to_string(set),
               "\n# pidx,pool,pn,offset,size,mountpnt,fstype,crc,len,ver,build,build_id\n", lines,
               "# End of list\n");
}

std::string repeat_list(const std::string &name, int count) {
    std::string list = name;
    for (int i = 1; i < count; ++i)
        list += "," + name;
    return list;
}

// KERNEL-SAFE, ROOT-SAFE and CONF are singleton pools, APPL, DATA and KERNEL multi pools.
std::string warning(int broken, const std::string &kind) {
    return cat("WARNING: ", std::to_string(broken), "/3 ", kind,
               " pools have a disparity between\n"
               "             calculated and hostconfig recorded",
               kind == "multi" ? "" : " ", "\n             CRC32 values.\n");
}
const std::string DO_NOT_REBOOT =
    "             AT LEAST ONE OF THESE SINGLETONS IS PART OF THE ACTIVE SET\n"
    "             DO NOT REBOOT UNTIL THIS ISSUE HAS BEEN FIXED!\n";

// Every content check outcome on one device; the corrupted partitions get one bit flipped.
// Set 0 is empty, set 2 names a partition past the table and ends before entry 10.
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

// The listing of listing_device; appl: the result of entry 3, whose header is written behind
// the content.
std::string listing(const std::vector<int> &corrupted, const char *appl = "OK") {
    const char *const pools[] = {"KERNEL-SAFE", "ROOT-SAFE", "",       "APPL", "-",   "",
                                 "DATA",        "KERNEL",    "KERNEL", "-",    "CONF"};
    const char *const results[] = {"OK",      "OK (wts=2)", "",   appl, "",  "",
                                   "UNKNOWN", "OK",         "OK", "",   "OK"};
    std::string out = "Verifying partitions:\n";
    for (int i = 0; i < 20; ++i) {
        const std::string pool = i < 11 ? pools[i] : "";
        const char *result = std::ranges::count(corrupted, i) ? "DISPARITY" : results[i % 11];
        char text[128];
        std::snprintf(text, sizeof text, "Belongs to pool %-15s  CRC32 content check: %s",
                      pool.c_str(), result);
        out += cat(i < 10 ? "  " : " ", std::to_string(i), "  ",
                   pool.empty()  ? "Not handled by KIV"
                   : pool == "-" ? "Nothing installed"
                                 : text,
                   "\n");
    }
    return out;
}

const std::string SEP = "-------------------------------------------------------\n";

std::string head(int i, int type, const std::string &name, int valid) {
    return cat(SEP, "Content Part: ", to_string(i), ", type ", to_string(type), ", name ", name,
               "\nvalid...................: ", to_string(valid),
               "\ncovered_by_signature....: 0\nvalidated_by_signature..: 0\n");
}

std::string software(int i, const std::string &name, int major, int minor, int build) {
    return cat(head(i, 4, name, 1), "sw_version_major..: ", to_string(major),
               "\nsw_version_minor..: ", to_string(minor),
               "\nsw_build_number...: ", to_string(build), "\nsw_build_id.......: ", name,
               "-build\n");
}

// The release date is shown as a signed number.
ImageBuilder release_image() {
    ImageBuilder b;
    b.add_release_header({3, 14, 1592}, 0xF0000001u, "rel-3.14.1592", "products=alpha");
    b.add_kivm("rootfs,5,7\nkernel,6,8\n");
    b.add_software("rootfs", {3, 14, 7}, "rootfs-build", mkzunf::to_bytes("root contents"));
    b.add_software("kernel", {4, 1, 65535}, "kernel-build", mkzunf::to_bytes("kern"));
    return b;
}

// args: the words after "kiv". Under -v a summary comes first: out is then compared from
// where it starts. Every message on standard error is logged as an error as well.
struct Row {
    std::string args;
    int exit;
    std::string out;
    std::string err;
};

void run_rows(Device &dev, const std::vector<Row> &rows, const std::string &plugin = "") {
    for (const Row &row : rows) {
        SCOPED_TRACE(row.args);
        std::vector<std::string> args;
        std::istringstream words(row.args);
        for (std::string word; words >> word;)
            args.push_back(word);
        SandboxResult r = plugin.empty() ? kiv_on(dev, args) : kiv_with_plugin(dev, {plugin}, args);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        const std::size_t at = row.args.ends_with("-v") ? r.out.find(row.out) : 0;
        EXPECT_EQ(r.out.substr(std::min(at, r.out.size())), row.out);
        EXPECT_EQ(r.err, row.err);
        std::string log;
        for (const SyslogLine &line : r.syslog)
            log += line.severity == LOG_ERR ? line.text : "(not an error) " + line.text;
        EXPECT_EQ(log, row.err);
        expect_flash_untouched(r);
    }
}

TEST(ReportsE2e, ReleaseHeadersAndPartitionSets) {
    // Refused before the hostconfig is read: on a blank device the refusal is the only message.
    Device dev;
    run_rows(dev, {
                      {"getpartset", 1, "", "getpartset action: SETIDX is missing.\n"},
                      {"getpartset 3", 1, "", ILLEGAL},
                      {"getpartset x", 1, "", ILLEGAL},
                      {"getpartset -1", 1, "", ILLEGAL},
                      {"getpartset 1 APPL -pif=" + repeat_list("pidx", 20), 1, "", PIF_REFUSED},
                      {"getrh", 1, "", "getrh: missing set idx?\n"},
                  });

    InstalledDevice d = report_device();
    d.write_to(dev);
    const std::string rh1 = "# KIV Release Header CSV version 1.0\n# Selected Partition Set: 1\n"
                            "# ver,build,build_id,build_time\n"
                            "3.5,1592,rel-3.5,2023.11.14 22:13:20\n# End of list\n";
    const std::string set1 = partset_listing(1, PART3 + PART7 + PART0);
    const std::string nineteen = repeat_list("ver", 19);
    const std::string rh_fields = "ver,ver_major,ver_minor,build_num,foo,build_id,build_time";
    // Every field but pidx: 99 characters, the longest list accepted.
    const std::string all = "pool,pn,offset,size,size_dec,mountpnt,fstype,len,len_dec,ver,"
                            "ver_major,ver_minor,build_num,build_id";
    const std::string all_values = "APPL,3,0x00300000,0x00040000,262144,/mnt/appl,jffs2,"
                                   "0x00000BB8,3000,2.05,2,05,300,appl-b300\n";
    run_rows(dev, {
                      {"getrh 1", 0, rh1, ""},
                      {"getrh active", 0, rh1, ""},
                      {"getrh SET1 -pif=", 0, rh1, ""},
                      {"getrh 1 -pif=" + rh_fields, 0,
                       "3.05,3,05,1592,,rel-3.5,2023.11.14 22:13:20\n", ""},
                      {"getrh 1 -pif=" + nineteen, 0, repeat_list("3.05", 19) + "\n", ""},
                      {"getrh 1 -pif=" + nineteen + ",ver", 1, "", PIF_REFUSED},
                      // The set word is checked before the field list.
                      {"getrh 3 -pif=" + nineteen + ",ver", 1, "", BAD_SET},
                      {"getpartset 1", 0, set1, ""},
                      {"getpartset active", 0, set1, ""},
                      {"getpartset 0x1", 0, set1, ""},
                      {"getpartset 2", 0, partset_listing(2, ""), ""},
                      {"getpartset 0 -v", 0, STATES_VALID + partset_listing(0, PART0), ""},
                      // The pool name filter: default lines without comments, exact names only.
                      {"getpartset 1 APPL", 0, PART3, ""},
                      {"getpartset 1 APPLX", 0, "", ""},
                      {"getpartset 1 -pif=pidx,pn", 0, "3,3\n7,12\n0,0\n", ""},
                      {"getpartset 1 APPL -pif=" + all, 0, all_values, ""},
                      {"getpartset 1 APPL -pif=" + all + "x", 1, "", PIF_REFUSED},
                  });

    // An active set byte that names no set is refused, not used as an index.
    d.rec.actset = 3;
    d.write_to(dev);
    run_rows(dev, {
                      {"getrh 3", 1, "", BAD_SET},
                      {"getrh active", 1, "", BAD_SET},
                      {"getpartset active", 1, "", ILLEGAL},
                  });
}

TEST(ReportsE2e, Verify) {
    const std::string set2 = "verify_set: Set 2: SET2\n"
                             "verify_set:   ref  1: ROOT-SAFE    rootfs-safe : bad\n"
                             "verify_set:   ref 100:                          : bad\n"
                             "verify_set:   ref  3: APPL         appl        : ok\n"
                             "verify_set:   ref  6: DATA         data        : empty\n";
    const std::string every_set =
        "verify_sets: Checking set -1\nverify_set: Set 0: SAFESET\nverify_set:   no refs\n"
        "verify_set: Set 1: SET1\nverify_set:   ref  3: APPL         appl        : ok\n"
        "verify_set:   ref  7: KERNEL       kernel      : ok\n"
        "verify_set:   ref 10: CONF         conf        : ok\n" +
        set2;
    const std::vector<std::tuple<std::vector<int>, std::string, std::string>> listings = {
        {{}, listing({}), ""},
        {{7, 8, 10},
         listing({7, 8, 10}) + DO_NOT_REBOOT,
         warning(2, "multi") + warning(1, "singleton")},
        // Neither broken singleton belongs to the running set.
        {{0, 1}, listing({0, 1}), warning(2, "singleton")},
    };
    for (const auto &[corrupted, out, err] : listings) {
        Device dev;
        listing_device(corrupted).write_to(dev);
        run_rows(dev, {{"verify", 0, out, err}});
    }
    Device dev;
    listing_device().write_to(dev);
    // The third layout is only named when the first two did not confirm the content: here
    // the device does not answer the first time it is opened. The dump comes first.
    run_rows(dev, {{"verify -v", 0, STATES_VALID + listing({}, "OK (wts=3)"), ""}},
             "KIV_TEST_FAIL_OPEN=/dev/mtd3");
    run_rows(dev, {
                      {"verify 0x1", 0, "", ""},
                      {"verify 2 -v", 1, "verify_sets: Checking set 2\n" + set2, ""},
                      // A word that names no set checks every set, reporting as under -v.
                      {"verify NOSUCHSET", 1, every_set, ""},
                      // The set's result is its last failure: "empty" after "bad".
                      {"activate 2", 1, "", "activate: set 2 validation err=2\n"},
                  });
}

TEST(ReportsE2e, Zunfinfo) {
    const Bytes image = release_image().build();
    const std::string release = head(0, 1, "release", 1) +
                                "release_version_major..: 3\nrelease_version_minor..: 14\n"
                                "release_build_number...: 1592\nrelease_date...........: "
                                "-268435455\nrelease_build_id.......: rel-3.14.1592\n";
    const std::string rootfs = software(2, "rootfs", 3, 14, 7);
    const std::string all =
        release + head(1, 3, "kivm", 1) + rootfs + software(3, "kernel", 4, 1, 65535);
    // Without -all only the first 1024 bytes are read: a defect further on goes unseen.
    ImageBuilder late;
    late.add_release_header({3, 14, 1592}, 0xF0000001u, "rel-3.14.1592", "products=alpha");
    late.add_data("filler", Bytes(1200, 0x11));
    late.add_software("rootfs", {1, 0, 0}, "r", mkzunf::to_bytes("abc")).fault_part_hdr_crc(2);
    ImageBuilder big;
    big.add_release_header({1, 0, 0}, 1, "big", std::string(1500, 'r'));
    const std::string failed = "zunfinfo: loading ZUNF failed.\n";
    const std::string no_header = "zunfinfo: no header\n";
    const std::string size = to_string(image.size());
    Device dev;
    auto file = [&](const char *name, const Bytes &bytes) {
        return " " + dev.write_file(name, std::string(bytes.begin(), bytes.end()));
    };
    const std::string good = "zunfinfo" + file("good.zunf", image);
    const std::string late_defect = "zunfinfo" + file("late.zunf", late.build());
    const std::string kivm_crc =
        "zunfinfo" + file("kivm.zunf", release_image().fault_part_body_crc(1).build());
    const std::string bad_magic =
        "zunfinfo" + file("magic.zunf", release_image().fault_bad_magic(1).build());
    run_rows(dev, {
                      {good, 0, release, ""},
                      {good + " -allparts", 0, all, ""},
                      {good + " -al", 0, release, ""},
                      {good + " -zunfsize=" + size, 0, release, ""},
                      // Refused before anything is read: a bad magic would otherwise be reported.
                      {bad_magic + " -zunfsize=" + to_string(image.size() - 1), 9, "",
                       "zunfinfo: ZUNF too big\n"},
                      {late_defect, 0, release, ""},
                      {late_defect + " -all", 9, "", failed},
                      {"zunfinfo" + file("big.zunf", big.build()), 0,
                       SEP + "WARNING: CONTENT PART IS NULL! Skipping.\n", ""},
                      // -all lists as many slots as there are valid parts, from slot 0 on.
                      {kivm_crc + " -all", 0, release + head(1, 3, "kivm", -1) + rootfs, ""},
                      {bad_magic, 9, "", no_header + failed},
                      {"zunfinfo" + file("24.zunf", release_image().fault_truncate(24).build()), 9,
                       "", no_header + "zunfinfo: File contains no data.\n"},
                      {"zunfinfo" + file("empty.zunf", {}), 9, "", "zunfinfo: empty ZUNF\n"},
                      {"zunfinfo " + dev.scratch_path("absent.zunf"), 8, "",
                       "zunfinfo: could not open ZUNF\n"},
                      {"zunfinfo", 1, "", "zunfinfo: ZUNF is missing.\n"},
                  });
}

} // namespace
