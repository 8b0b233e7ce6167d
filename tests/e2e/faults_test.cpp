// Flash faults on every path kiv writes by, one fault a run: the install write-out (erase,
// write and read-back of each partition), the hostconfig save (erase and write of the
// primary copy and of the backup) and the upgrade state bytes. Each row says what the user
// is left with: exit code, messages, what each hostconfig copy holds, the upgrade states.
// After every row the set that was running still verifies, and no write set a bit.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;
using mkzunf::Version;

const Version OLD{1, 0, 0}, NEW{2, 0, 0};

// The fallback set on 7 (a singleton pool), set 1 (running) on 9 and 11, set 2 on 10 and
// 12, all holding release 1.0.
InstalledDevice device(const std::string &states) {
    InstalledDevice d;
    d.install(7, "KNL-SAFE", 1, content_bytes(3000, 7), "KNL-SAFE", OLD);
    for (int pn : {9, 10})
        d.install(pn, "KNL", 1, content_bytes(5000, pn), "KNL", OLD);
    for (int pn : {11, 12})
        d.install(pn, "ROOT", 3, content_bytes(9000, pn), "ROOT", OLD);
    d.set(0, "SAFESET", {7});
    d.set(1, "SET1", {9, 11});
    d.set(2, "SET2", {10, 12});
    d.rec.actset = 1;
    d.states = states;
    return d;
}

// Release 2.0 carrying content for the pools, ROOT in the layout with its header behind.
std::string release(Device &dev, const std::vector<std::string> &pools) {
    mkzunf::ImageBuilder b;
    b.add_release_header(NEW, 1700000000, "REL", "Demo\n");
    std::string kivm;
    for (std::size_t i = 0; i < pools.size(); ++i)
        kivm += std::to_string(i + 2) + "," + pools[i] + ",0,-,-,-,2.0.0," +
                (pools[i] == "ROOT" ? "3\n" : "1\n");
    b.add_kivm(kivm);
    for (const std::string &pool : pools)
        b.add_software(pool, NEW, "b", content_bytes(pool == "ROOT" ? 9000 : 5000, 40));
    const Bytes image = b.build();
    return dev.write_file("rel.zunf", std::string(image.begin(), image.end()));
}

// A hostconfig copy as "ACTSET:R7,R10,R12", the release recorded for partitions 7, 10 and
// 12 ("-": none); "-" alone when the copy holds no record.
std::string summary(const Bytes &copy) {
    const std::optional<hcdecode::Record> rec = hcdecode::decode_kiv_data(copy);
    if (!rec) return "-";
    std::string s = std::to_string(rec->actset);
    for (int pn : {7, 10, 12}) {
        const hcdecode::PinfoMeta &m = rec->pinfometa[pn];
        s += pn == 7 ? ":" : ",";
        s += m.body_crc == 0 ? "-" : std::to_string(m.sw_major) + "." + std::to_string(m.sw_minor);
    }
    return s;
}

struct Row {
    std::string args;   // IMG: release 2.0 (KNL, ROOT); SAFE: one of KNL-SAFE; CFG: a file
    std::string fault;  // the one --fault of the run
    std::string states; // upgrade states before>after
    int exit;
    std::string out;
    std::string copies; // summary() of the primary (the file with CFG) and of the backup
    std::string says;   // "SEVERITY TEXT" of each message but the notes, "[" and "]"
                        // where a critical part starts and ends
};

TEST(Faults, OneFlashFaultPerRun) {
    const std::string BEFORE = "1:1.0,1.0,1.0", ACT2 = "2:1.0,1.0,1.0", NEW2 = "2:1.0,2.0,2.0";
    const std::string W10 = "Writing out 5000 bytes of data to /dev/mtd10\n",
                      W12 = W10 + "Writing out 9000 bytes of data to /dev/mtd12\n";
    const std::string ERASE = "3 mtd_erase: Erase failed(-1)\n",
                      SAVE = "7 hostconfig_save failed.\n", FAILED = "2 FAILED TO INSTALL ",
                      FWRITE = "3 Could not fwrite to /dev/mtd12, ",
                      STATE = "2 failed to set upgrade state\n";
    const std::vector<Row> rows = {
        // The write-out stops at the first failure; the hostconfig is saved without the
        // failed partition's release, and the partition not reached keeps its old one.
        {"install IMG 2", "erase:mtd10:0", "VV>VV", 1, "", "1:1.0,-,1.0",
         "[" + ERASE + FAILED + "KNL INTO 10\n]"},
        {"install IMG 2", "write:mtd12:0", "VV>VV", 1, W12, "1:1.0,2.0,-",
         "[" + FWRITE + "errno=5 result=-1\n" + FAILED + "ROOT INTO 12\n]"},
        {"install IMG 2", "short:mtd12:100", "VV>VV", 1, W12, "1:1.0,2.0,-",
         "[" + FWRITE + "errno=0 result=100\n" + FAILED + "ROOT INTO 12\n]"},
        {"install IMG 2", "bitflip:mtd10:17:3", "VV>VV", 1, W10, "1:1.0,-,1.0",
         "[3 CRC32 VERIFY FAILED: partinfo_idx=10 se_idx=0\n]"},
        {"install SAFE 0 -f", "erase:mtd7:0", "VV>VV", 11, "", "1:-,1.0,1.0",
         "[" + ERASE + FAILED + "KNL-SAFE INTO 7\n2 KIV_EXIT_FATAL_ERR_SINGLETON_WRITE]"},
        // Its one save: the backup is written first.
        {"install IMG 2", "erase:mtd5:0", "VV>VV", 10, W12, BEFORE + " " + NEW2,
         "[" + ERASE + SAVE + "2 KIV_EXIT_FATAL_ERR_HOSTCONFIG_WRITE\n]"},
        {"install IMG 2", "write:mtd5:0", "VV>VV", 10, W12, "- " + NEW2,
         "[" + SAVE + "2 KIV_EXIT_FATAL_ERR_HOSTCONFIG_WRITE\n]"},
        // Any save: only the primary copy decides its outcome, and a failed one sets no
        // state. An erase stops at the failing block; a write taken in part is carried on.
        {"activate 2", "erase:mtd2:0", "VT>VV", 0, "", ACT2 + " " + BEFORE, "[" + ERASE + "]"},
        {"activate 2", "erase:mtd2:1", "VT>VV", 0, "", ACT2 + " -", "[" + ERASE + "]"},
        {"activate 2", "write:mtd2:0", "VT>VV", 0, "", ACT2 + " -", "[]"},
        {"activate 2", "short:mtd2:1000", "VT>VV", 0, "", ACT2, "[]"},
        {"activate 2", "erase:mtd5:0", "VT>VT", 1, "", BEFORE + " " + ACT2,
         "[" + ERASE + "]" + SAVE + "2 activate action: hostcfg saving failed.\n"},
        {"upgrade activate -test", "erase:mtd5:1", "TV>TV", 1, "", "- " + ACT2,
         "[" + ERASE + "]" + SAVE + "2 upgrade: hostcfg saving failed.\n"},
        {"activate 2", "write:mtd5:0", "VT>VV", 1, "", "- " + ACT2,
         "[]" + SAVE + "2 activate action: hostcfg saving failed.\n"},
        {"activate 2", "short:mtd5:1000", "VT>VV", 0, "", ACT2, "[]"},
        {"activate 2", "bitflip:mtd5:100:0", "VT>VV", 0, "", ACT2,
         "7 hostconfig_load failed; loaded backup (/dev/mtd2) successfully.\n[]"},
        // The state bytes, written after the save: a failure leaves the save in place. The
        // write keeps the other set's byte as it reads it, misread or not.
        {"upgrade test", "write:mtd5:131070", "BV>VV", 1, "", BEFORE, "[]" + STATE},
        {"upgrade test", "short:mtd5:131071", "BV>TV", 0, "", BEFORE, "[]"},
        {"upgrade test", "bitflip:mtd5:131071:0", "BV>TT", 0, "", BEFORE, "[]"},
        {"upgrade activate -test", "write:mtd5:131070", "VV>VV", 1, "", ACT2, "[]" + STATE},
        // The install returns at once, inside its critical region.
        {"install IMG 2 -test", "write:mtd5:131070", "VV>VV", 1, W12, NEW2,
         "[2 cannot set test mode\n"},
        // With the hostconfig in a file, no save erases the state bytes.
        {"-cfg=CFG activate 2", "write:mtd5:131070", "VT>VT", 1, "", ACT2 + " " + BEFORE,
         "[]2 cannot set normal mode\n"},
        {"-cfg=CFG upgrade validate", "write:mtd5:131070", "TV>TV", 1, "", BEFORE, "[]" + STATE},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.args + " with " + row.fault);
        Device dev;
        const InstalledDevice before = device(row.states.substr(0, 2));
        before.write_to(dev);
        const Bytes old = image_of(before.rec);
        const std::string cfg = dev.write_file("hostcfg", std::string(old.begin(), old.end()));
        std::vector<std::string> args = {"-activesetfile=" + dev.write_file("activeset", "2")};
        std::istringstream words(row.args);
        for (std::string w; words >> w;)
            args.push_back(w == "IMG"        ? release(dev, {"KNL", "ROOT"})
                           : w == "SAFE"     ? release(dev, {"KNL-SAFE"})
                           : w == "-cfg=CFG" ? "-cfg=" + cfg
                                             : w);
        RunOptions options;
        options.faults = {row.fault};
        const SandboxResult r = kiv_on(dev, args, options);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        EXPECT_EQ(r.out, row.out);
        // Every message goes to standard error and the system log, except the MTD layer's
        // and the markers of a critical part ("[", "]" below): those go to the log only.
        std::string err, says;
        for (const SyslogLine &line : r.syslog) {
            const std::string &t = line.text;
            if (t.starts_with("critical part start") || t.starts_with("install: entering"))
                says += "[";
            else if (t.starts_with("critical part end") || t.starts_with("install: leaving"))
                says += "]";
            else if (!t.starts_with("mtd_"))
                err += t;
            if (line.severity != LOG_NOTICE && line.severity != LOG_INFO)
                says += std::to_string(line.severity) + " " + t;
        }
        EXPECT_EQ(r.err, err);
        EXPECT_EQ(says, row.says);
        const bool in_file = row.args.find("CFG") != std::string::npos;
        const std::string primary = summary(
            in_file ? kiv::test::bytes_of(kiv::test::read_text_file(cfg)) : dev.flash(HOSTCFG_MTD));
        const std::string backup = summary(dev.flash(BACKUP_MTD));
        EXPECT_EQ(primary == backup ? primary : primary + " " + backup, row.copies);
        EXPECT_EQ(states_on(dev), row.states.substr(3));
        // Rebooted without the fault, the set that was running is intact.
        const SandboxResult v = kiv_on(dev, {"verify", "SET1"});
        EXPECT_EQ(v.exit, 0) << v.describe();
    }
}

} // namespace
