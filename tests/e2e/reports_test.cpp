// getrh and getpartset on the simulated device: the CSV that scripts read, in the default
// format and with -pif= field lists, and the refusals. Reports only read the hostconfig.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;

const std::string PIF_REFUSED = "getpartset action: PIF could not parse or too long.\n";
const std::string ILLEGAL = "getpartset action: SETIDX is illegal.\n";
constexpr std::uint32_t NOV_2023 = 1700000000; // 2023.11.14 22:13:20 UTC
constexpr std::uint32_t JAN_1971 = 365 * 86400;

InstalledDevice report_device() {
    InstalledDevice d;
    d.install(0, "ROOT-SAFE", 1, content_bytes(1000, 1), "rootfs-safe", {1, 2, 3}, "safe-7");
    d.install(3, "APPL", 1, content_bytes(3000, 3), "appl", {2, 5, 300}, "appl-b300");
    d.install(4, "APPL", 1, content_bytes(2000, 4), "appl", {2, 4, 299}, "appl-b299");
    d.install(7, "KERNEL", 2, content_bytes(4100, 7), "kernel", {12, 0, 65535}, "k");
    // Placement as partinfo sets it; entry 7 reaches partition 12.
    d.rec.partinfo[0] = {"ROOT-SAFE", 0, 0x00000000, 0x00040000, "/", "squashfs"};
    d.rec.partinfo[3] = {"APPL", 3, 0x00300000, 0x00040000, "/mnt/appl", "jffs2"};
    d.rec.partinfo[4] = {"APPL", 4, 0x00340000, 0x00040000, "/mnt/appl", "jffs2"};
    d.rec.partinfo[7] = {"KERNEL", 12, 0x00C00000, 0x00600000, "", ""};
    d.rec.partinfo[8] = {"KERNEL", 8, 0x00800000, 0x00200000, "", ""};
    d.set(0, "SAFESET", {0});
    d.set(1, "SET1", {3, 7, 0});
    d.set(2, "SET2", {});
    d.rec.rhdr[0] = {2, 5, 12, JAN_1971, "safe-rel"};
    d.rec.rhdr[1] = {3, 14, 1592, NOV_2023, "rel-3.14.1592"};
    d.rec.actset = 1;
    return d;
}

// The default getpartset lines of entries 0, 3 and 7.
const std::string PART0 =
    "0,ROOT-SAFE,0,0x00000000,0x00040000,/,squashfs,0x1447DB2C,0x000003E8,1.2,3,safe-7\n";
const std::string PART3 =
    "3,APPL,3,0x00300000,0x00040000,/mnt/appl,jffs2,0xC5B23688,0x00000BB8,2.5,300,appl-b300\n";
const std::string PART7 =
    "7,KERNEL,12,0x00C00000,0x00600000,,,0xEA05874B,0x00001004,12.0,65535,k\n";

std::string partset_listing(int set, const std::string &lines) {
    return "# KIV Partion Set CSV version 1.0\n"
           "# Selected Partition Set: " +
           std::to_string(set) +
           "\n"
           "# pidx,pool,pn,offset,size,mountpnt,fstype,crc,len,ver,build,build_id\n" +
           lines + "# End of list\n";
}

std::string rh_listing(int set, const std::string &line) {
    return "# KIV Release Header CSV version 1.0\n"
           "# Selected Partition Set: " +
           std::to_string(set) +
           "\n"
           "# ver,build,build_id,build_time\n" +
           line + "# End of list\n";
}

std::string repeat_list(const std::string &name, int count) {
    std::string list;
    for (int i = 0; i < count; ++i)
        list += (i ? "," : "") + name;
    return list;
}

struct Row {
    std::vector<std::string> args;
    int exit;
    std::string out;
    std::string err; // logged at LOG_ERR as well
};

void run_rows(Device &dev, const std::vector<Row> &rows) {
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        SandboxResult r = kiv_on(dev, row.args);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.err);
        std::vector<SyslogLine> log;
        if (!row.err.empty()) log.push_back(logged(LOG_ERR, row.err));
        EXPECT_EQ(r.syslog, log);
        expect_flash_untouched(r);
    }
}

TEST(ReportsE2e, ReleaseHeaders) {
    Device dev;
    report_device().write_to(dev);
    const std::string set1 = rh_listing(1, "3.14,1592,rel-3.14.1592,2023.11.14 22:13:20\n");
    const std::string all_fields = "ver,ver_major,ver_minor,build_num,build_id,build_time";
    const std::string nineteen = repeat_list("ver", 19);
    // 99 characters after "-pif=": accepted; 100: refused.
    const std::string long_ok = repeat_list("build_num", 9) + "," + std::string(9, 'x');
    ASSERT_EQ(long_ok.size(), 99u);
    run_rows(dev,
             {
                 {{"getrh", "1"}, 0, set1, ""},
                 {{"getrh", "active"}, 0, set1, ""},
                 {{"getrh", "SET1"}, 0, set1, ""},
                 {{"getrh", "0x1"}, 0, set1, ""},
                 {{"getrh", "1", "-pif="}, 0, set1, ""},
                 {{"getrh", "1", "-pi"}, 0, set1, ""},
                 {{"getrh", "0"}, 0, rh_listing(0, "2.5,12,safe-rel,1971.01.01 00:00:00\n"), ""},
                 // A set that never received a release.
                 {{"getrh", "2"}, 0, rh_listing(2, "0.0,0,,1970.01.01 00:00:00\n"), ""},
                 {{"getrh", "0", "-pif=build_id,ver"}, 0, "safe-rel,2.05\n", ""},
                 {{"getrh", "SAFESET", "-pif=" + all_fields},
                  0,
                  "2.05,2,05,12,safe-rel,1971.01.01 00:00:00\n",
                  ""},
                 {{"getrh", "1", "-pif=ver,foo,build_num"}, 0, "3.14,,1592\n", ""},
                 {{"getrh", "1", "-pif=foo"}, 0, "\n", ""},
                 {{"getrh", "1", "-pif=ver,"}, 0, "3.14,\n", ""},
                 {{"getrh", "1", "-pif=" + nineteen}, 0, repeat_list("3.14", 19) + "\n", ""},
                 {{"getrh", "1", "-pif=" + long_ok}, 0, repeat_list("1592", 9) + ",\n", ""},
                 {{"getrh", "1", "-pif=" + nineteen + ",ver"}, 1, "", PIF_REFUSED},
                 {{"getrh", "1", "-pif=" + long_ok + "x"}, 1, "", PIF_REFUSED},
                 {{"getrh", "3"}, 1, "", "getrh: invalid set idx?\n"},
                 {{"getrh", "NOSUCHSET"}, 1, "", "getrh: invalid set idx?\n"},
                 // The set word is checked before the field list.
                 {{"getrh", "3", "-pif=" + nineteen + ",ver"}, 1, "", "getrh: invalid set idx?\n"},
             });
}

TEST(ReportsE2e, PartitionSets) {
    Device dev;
    report_device().write_to(dev);
    const std::string set1 = partset_listing(1, PART3 + PART7 + PART0);
    // All fields in two lists: together they are longer than a list may be.
    const std::string placement = "pidx,pool,pn,offset,size,size_dec,mountpnt,fstype";
    const std::string content = "pidx,len,len_dec,ver,ver_major,ver_minor,build_num,build_id";
    const std::string twenty = repeat_list("pidx", 20);
    run_rows(dev,
             {
                 {{"getpartset", "1"}, 0, set1, ""},
                 {{"getpartset", "active"}, 0, set1, ""},
                 {{"getpartset", "0x1"}, 0, set1, ""},
                 {{"getpartset", "01"}, 0, set1, ""},
                 {{"getpartset", "1", "-pif="}, 0, set1, ""},
                 {{"getpartset", "0"}, 0, partset_listing(0, PART0), ""},
                 // A set without references: only the comment lines.
                 {{"getpartset", "2"}, 0, partset_listing(2, ""), ""},
                 // The pool name filter: default lines, no comments.
                 {{"getpartset", "1", "APPL"}, 0, PART3, ""},
                 {{"getpartset", "1", "ROOT-SAFE"}, 0, PART0, ""},
                 {{"getpartset", "1", "APPL", "junk"}, 0, PART3, ""},
                 {{"getpartset", "1", "APP"}, 0, "", ""},
                 {{"getpartset", "1", "NOSUCHPOOL"}, 0, "", ""},
                 {{"getpartset", "1", "KERNEL", "-pif=pidx,pn"}, 0, "7,12\n", ""},
                 {{"getpartset", "active", "-pif=pidx,len_dec,foo"},
                  0,
                  "3,3000,\n7,4100,\n0,1000,\n",
                  ""},
                 {{"getpartset", "1", "-pif=" + placement},
                  0,
                  "3,APPL,3,0x00300000,0x00040000,262144,/mnt/appl,jffs2\n"
                  "7,KERNEL,12,0x00C00000,0x00600000,6291456,,\n"
                  "0,ROOT-SAFE,0,0x00000000,0x00040000,262144,/,squashfs\n",
                  ""},
                 {{"getpartset", "1", "-pif=" + content},
                  0,
                  "3,0x00000BB8,3000,2.05,2,05,300,appl-b300\n"
                  "7,0x00001004,4100,12.00,12,00,65535,k\n"
                  "0,0x000003E8,1000,1.02,1,02,3,safe-7\n",
                  ""},
                 {{"getpartset", "1", "-pif=" + placement + "," + content}, 1, "", PIF_REFUSED},
                 {{"getpartset", "1", "-pif=" + repeat_list("pn", 19)},
                  0,
                  repeat_list("3", 19) + "\n" + repeat_list("12", 19) + "\n" +
                      repeat_list("0", 19) + "\n",
                  ""},
                 {{"getpartset", "1", "APPL", "-pif=" + twenty}, 1, "", PIF_REFUSED},
                 {{"getpartset"}, 1, "", "getpartset action: SETIDX is missing.\n"},
             });

    // Under -v the dump comes first.
    SandboxResult r = kiv_on(dev, {"getpartset", "0", "-v"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    const std::size_t list = r.out.find("# KIV Partion Set CSV version 1.0\n");
    ASSERT_NE(list, std::string::npos) << r.out;
    EXPECT_LT(r.out.find(SETS_P1_HEAD), list);
    EXPECT_EQ(r.out.substr(list), partset_listing(0, PART0));
}

// Refused before the hostconfig is read: on a blank device the refusal is the only message.
TEST(ReportsE2e, RefusedBeforeLoading) {
    Device dev;
    run_rows(dev, {
                      {{"getpartset", "3"}, 1, "", ILLEGAL},
                      {{"getpartset", "x"}, 1, "", ILLEGAL},
                      {{"getpartset", "-1"}, 1, "", ILLEGAL},
                      {{"getpartset", "SET1"}, 1, "", ILLEGAL},
                      {{"getpartset", "99999999999999999999"}, 1, "", ILLEGAL},
                      {{"getpartset", "1", "-pif=" + repeat_list("pidx", 20)}, 1, "", PIF_REFUSED},
                      {{"getpartset", "1", "-pif=" + std::string(100, 'p')}, 1, "", PIF_REFUSED},
                      {{"getrh"}, 1, "", "getrh: missing set idx?\n"},
                  });
}

// An active set byte that names no set is refused, not used as an index.
TEST(ReportsE2e, ActiveSetOutOfRange) {
    Device dev;
    InstalledDevice d = report_device();
    d.rec.actset = 5;
    d.write_to(dev);
    run_rows(dev, {
                      {{"getrh", "active"}, 1, "", "getrh: invalid set idx?\n"},
                      {{"getpartset", "active"}, 1, "", ILLEGAL},
                  });
}

} // namespace
