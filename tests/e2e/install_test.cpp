// install on the device: fallback set on 7, 8, 19 (singletons), sets 1, 2 on 9-14 (pools).
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;

const auto has = [](const std::string &t, const std::string &p) { return t.find(p) != t.npos; };
std::vector<std::string> words(const std::string &text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}
const auto text = [](const Bytes &b) { return std::string(b.begin(), b.end()); };

struct Sw {
    std::string pool, column;
    mkzunf::Version v;
    int wts, cidx;
    Bytes content;
};

// Pool initial (S: KNL-SAFE, N: NOPOOL), minor of 2.N, * newest, - kept, @N absent; model.
Sw sw(const std::string &name, InstalledDevice *model = nullptr, int pn = 0, int wts_more = 0) {
    const std::size_t kind = std::string("KRASN").find(name[0]);
    const auto minor = static_cast<std::uint8_t>(name[1] - '0');
    const int wts = kind == 1 ? 2 : kind == 2 ? 3 : 1; // every layout: KNL, ROOT, APPL
    const Sw s{
        std::vector<std::string>{"KNL", "ROOT", "APPL", "KNL-SAFE", "NOPOOL"}[kind],
        has(name, "*") ? "-1.-1.-1" : "2." + name.substr(1, 1) + (minor == 1 ? ".7" : ".0"),
        {2, minor, static_cast<std::uint16_t>(minor == 1 ? 7 : 0)},
        wts + wts_more * (wts == 2),
        has(name, "@") ? name.back() - '0' : -has(name, "-"),
        content_bytes(std::vector{5000, 9000, 4099}[wts - 1], std::uint8_t(name[0] + name[1]))};
    if (!model) return s;
    model->install(pn, s.pool, s.wts, s.content, s.pool, s.v, "b");
    model->partitions[pn] = mkzunf::build_partition(s.wts, s.pool, s.v, "b", s.content, 0xFF);
    model->rec.partinfo[pn].mountpnt = "/m/" + s.pool;
    model->rec.partinfo[pn].fstype = "jffs2";
    return s;
}

// The release of the named contents; no-kivm, kivm-first, crc (part 3), cut, empty spoil it.
std::string release_image(const std::string &names) {
    mkzunf::ImageBuilder b;
    std::string kivm;
    std::vector<Sw> carried;
    for (const std::string &name : words(names)) {
        if (std::islower(name[0])) continue;
        const Sw s = sw(name);
        kivm += std::to_string(s.cidx ? s.cidx : carried.size() + 2) + "," + s.pool + ",0,/m/" +
                s.pool + ",jffs2,-," + s.column + "," + std::to_string(s.wts) + "\n";
        if (s.cidx == 0) carried.push_back(s);
    }
    if (has(names, "kivm-first")) b.add_kivm(kivm);
    b.add_release_header({2, 1, 7}, 1700000000, "REL", "Demo\nproducts=demo,kiosk\n");
    if (!has(names, "kivm")) b.add_kivm(kivm);
    for (const Sw &s : carried)
        b.add_software(s.pool, s.v, "b", s.content);
    if (has(names, "crc")) b.fault_part_body_crc(3);
    const std::string image = text(b.build());
    return image.substr(0, has(names, "empty") ? 0 : image.size() - has(names, "cut"));
}

// Release 2.1 in sets 1 and 2 when installed, else their pools' entries only.
InstalledDevice described(bool installed = false) {
    InstalledDevice d;
    for (int pn = 9; pn <= 14; ++pn) {
        d.entry(pn, std::vector<std::string>{"KNL", "ROOT", "APPL"}[(pn - 9) / 2]);
        if (installed) sw(words("K1 R1 A1")[(pn - 9) / 2], &d, pn, 1); // the layout verify reads
    }
    for (const auto &[pn, pool] : {std::pair{7, "KNL-SAFE"}, {8, "ROOT-SAFE"}, {19, "APPL-SAFE"}})
        d.install(pn, pool, 3, content_bytes(3000 + pn, 40 + pn), pool, {1, 0, std::uint16_t(pn)});
    d.set(0, "SAFESET", {7, 8, 19});
    d.set(1, "SET1", {9, 11, 13});
    d.set(2, "SET2", {10, 12, 14});
    return d;
}

// NEW: fresh device; LOST, NOTSB (root block erased), TRIED, BAD=N, HOOKS=, FAULT= as named.
TEST(InstallE2e, InstallsOnTheDevice) {
    const std::string R1 = "K1 R1 A1", LOAD = "install: failed to load ZUNF\n",
                      META = "install: meta install in hostconfig failed (", AUTO = "VV auto=0",
                      P1 = "install: kivl_meta_install_part1 failed: ",
                      P1_END = "\ninstall: search kivl for KIVL_META_INSTALL_ERR_\n" + LOAD,
                      REDO = " failed marking it for reinstall\n",
                      SHARED = "11" + REDO + "Other sets also refer to partition 11.\n";
    const std::vector<int> S1 = {9, 11, 13}, S2 = {10, 12, 14}, MOVED = {9, 12, 13}, NO;
    struct Row {
        std::string args, release; // IMG: the release's file
        int exit;
        std::string err;                          // on standard error (a refusal's end)
        std::vector<int> written = {}, refs = {}; // partitions written; the set's new references
        std::uint8_t actset = 0;
        std::string states = "VV";
    };
    const std::vector<Row> rows = {
        {"NEW IMG -1 -test LOST -product=kiosk -minver=2.1.7 -zunfsize=SIZE", R1, 0,
         "rebuild_hostcfg: Using /mnt/appl/hostcfg.default as initial hostconfig\n", S1, S1, 1,
         "TV auto=0"},
        {"NEW IMG 2 -noactivate", R1, 0, "", S2, S2, 0, "VV as=2"},
        {"NEW IMG 2 -noactivate -test", R1, 1, "cannot set test mode\n", S2, S2, 0, "VV as=2"},
        {"NEW IMG 2 -onlymeta", R1, 0, "", {}, S2, 2},
        {"NEW IMG -1 -dryrun -test", R1, 0, ""},
        {"NEW IMG 0 -f", "S1", 0, "", {7}, {7}}, // a singleton pool, only when forced
        {"NEW IMG -1 HOOKS=post_activate=6", R1, 6, "", S1, S1, 1, AUTO},
        {"NEW IMG 1 HOOKS=post_write_out=7", R1, 7, "", S1},
        {"NEW IMG -1 -test FAULT=erase:mtd9:0", R1, 1, "FAILED TO INSTALL KNL INTO 9\n", {}, S1},
        {"NEW IMG -1 HOOKS=pre_install=3", R1, 3, "", {}, {}, 0, AUTO},
        {"NEW IMG 1 HOOKS=data_rcvd=4", R1, 9, "kiv_install_hook_data_rcvd failed (4)\n" + LOAD},
        {"IMG", R1, 1, "install: missing set idx?\n"},
        {"IMG 3", R1, 1, "install: invalid set idx?\n"},
        {"/none.zunf -1", R1, 8, "install: could not open ZUNF\n"},
        {"IMG -1", "empty", 9, "install: empty ZUNF\n"},
        {"IMG -1 -zunfsize=LESS", R1, 9, "install: ZUNF too big\n"},
        {"IMG -1", R1 + " cut", 9, "install: incomplete ZUNF\n"},
        {"IMG -1", R1 + " crc", 9, "install: content part 3 not valid error\n" + LOAD},
        {"IMG -1", "K1 kivm-first", 9, "install: KIVM before RH\n" + LOAD},
        {"IMG -1 -product=kios", R1, 6, "install: Release header does not contain model 'kios'\n"},
        {"IMG -1 -minver=2.1.8", R1, 7, "install: Version in release header lower than 2.1-8\n"},
        {"IMG -1", "K1 no-kivm", 2, META + "-1), reason:\ninstall: no content\n"},
        {"IMG -1", "K1@7", 2, META + "-6), reason:\ninstall: partinfo kivm match\n"},
        {"IMG -1", "N1", 9, P1 + "-4" + P1_END},
        {"IMG -1", "K1 R1-", 9, P1 + "-2" + P1_END}, // kept content no partition holds
        {"IMG 0", "K2", 9, P1 + "-5" + P1_END},      // both KNL partitions used by other sets
        {"IMG 0", "S1", 9, "install: Can't install into singleton partitions without -f\n" + LOAD},
        {"IMG -1 TRIED", R1, 5, "already been tried by KIV with or without success.\n", NO, NO, 0,
         AUTO},
        // Intact contents are kept, also another set's; changed or bad ones go to an unshared one.
        {"NEW IMG 1", R1, 0, "", S1, S1, 1},
        {"IMG 2", "K2 R1 A1", 0, "", {10}, {10, 11, 13}, 2},
        {"IMG 1", "K3 R1 A1", 0, "", {9}, S1, 1},
        {"IMG 1 -rewrite", "K3 R1 A1", 0, "Mark partition 13 for rewrite\n", S1, S1, 1},
        {"IMG 1 BAD=11", "K3 R1* A1", 0, SHARED, {12}, MOVED, 1},
        {"IMG 1 BAD=9", "K3* R1 A1", 0, "CRC32 validation for partition 9" + REDO, {9}, MOVED, 1},
        {"IMG 1 BAD=13", "K3 R1 A1", 0, "", {14}, {9, 12, 14}, 1},
        {"IMG 2", "K4 R1- A1*-", 14, "partition 13 failed. Only fixable with a non-partial ZUNF.\n",
         NO, NO, 1},
        {"IMG 2", "K4 R1- A1-", 0, "Handling partial ZUNF\n", {10}, {10, 12, 14}, 2},
        {"NEW IMG -1 LOST NOTSB", R1, 1,
         "tsb for ROOT-SAFE not found\nrebuild_hostcfg: rebuild of "
         "pinfometa failed.\ninstall: rebuild of hostcfg failed\n"},
    };
    hcdecode::Record defaults = described().rec; // less what the fallback blocks tell
    defaults.pinfometa[7] = defaults.pinfometa[8] = defaults.pinfometa[19] = {};
    const DeviceOptions options_new{"", text(image_of(defaults))};
    std::optional<Device> dev;
    InstalledDevice model;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.args + " of " + row.release);
        if (has(row.args, "NEW")) (model = described()).write_to(dev.emplace(options_new));
        const InstalledDevice before = model;
        const std::string image = release_image(row.release), plugin = KIV_TEST_PLUGIN;
        std::vector<std::string> argv = {"install", "-autosetfile=" + dev->scratch_path("auto"),
                                         "-activesetfile=" + dev->scratch_path("as")};
        RunOptions options;
        options.keep = {plugin.substr(0, plugin.rfind('/'))};
        int set = 1; // autodetected: set 1 on these devices
        for (std::string word : words(row.args)) {
            const int bad = word.starts_with("BAD=") ? std::stoi(word.substr(4)) : 0;
            if (bad) model.partitions[bad][100] = 0x5A, dev->set_flash(bad, Bytes{0x5A}, 100);
            if (word == "TRIED") dev->write_file("auto", std::string(1, '\0'));
            if (word == "LOST") dev->erase_flash(HOSTCFG_MTD), dev->erase_flash(BACKUP_MTD);
            if (word == "LOST") model.rec.rhdr[0] = {1, 0, 19, 0, ""};
            if (word == "NOTSB") dev->set_flash(8, Bytes(256, 0xFF), 3008); // the block erased
            if (word.starts_with("HOOKS="))
                options.env = {"LD_PRELOAD=" + plugin, "KIV_TEST_INSTALL_HOOKS=" + word.substr(6)};
            if (word.starts_with("FAULT=")) options.faults = {word.substr(6)};
            if (word.starts_with("-zunfsize="))
                word = "-zunfsize=" + std::to_string(image.size() - has(word, "LESS"));
            if (word == "IMG") word = dev->write_file("rel", image);
            if (std::isdigit(word[0]) || word == "-1") set = std::abs(std::stoi(word));
            if (!std::isupper(word[0])) argv.push_back(word);
        }
        SandboxResult r = kiv_on(*dev, argv, options);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        EXPECT_TRUE(row.exit == 0 ? has(r.err, row.err) : r.err.ends_with(row.err)) << r.err;
        const bool onlymeta = has(row.args, "-onlymeta");
        const bool untouched = row.written.empty() && row.refs.empty();
        std::string out;
        for (const int pn : onlymeta ? row.refs : row.written) {
            const Sw s = sw(words(row.release)[pn < 9 ? 0 : (pn - 9) / 2], &model, pn);
            out += "Writing out " + std::to_string(s.content.size()) +
                   " bytes of data to /dev/mtd" + std::to_string(pn) + "\n";
        }
        EXPECT_EQ(r.out, onlymeta ? "" : out);
        if (onlymeta) model.partitions = before.partitions;
        if (row.refs.empty()) model.rec = before.rec;
        if (!row.refs.empty()) model.set(set, model.rec.sets[set].name, row.refs);
        if (!row.refs.empty()) model.rec.rhdr[set] = {2, 1, 7, 1700000000, "REL"};
        model.rec.actset = row.actset;
        if (untouched) expect_flash_untouched(r);
        for (int mtd : {HOSTCFG_MTD, BACKUP_MTD}) {
            const hcdecode::Image img = hcdecode::decode_image(dev->flash(mtd));
            const hcdecode::Part *part = img.find("KIV data");
            EXPECT_TRUE(untouched || (part && part->body == hcdecode::encode_record(model.rec)));
        }
        for (int pn = 6; pn < 20 && !untouched; ++pn) {
            Bytes expected = model.partitions.contains(pn) ? model.partitions.at(pn) : Bytes{};
            mkzunf::pad_to(expected, dev->flash(pn).size());
            EXPECT_TRUE(dev->flash(pn) == expected) << "mtd" << pn;
        }
        std::string states = states_on(*dev);
        for (const std::string file : {"auto", "as"})
            if (const int c = std::ifstream(dev->scratch_path(file)).get();
                std::filesystem::remove(dev->scratch_path(file)))
                states += " " + file + "=" + std::to_string(c % 48);
        EXPECT_EQ(states, row.states);
    }
}

// One flash fault a run on every path kiv writes by; the running set still verifies after.
TEST(Faults, OneFlashFaultPerRun) {
    const std::string ERASE = "3 mtd_erase: Erase failed(-1)\n", FAILED = "2 FAILED TO INSTALL ",
                      SAVE = "7 hostconfig_save failed.\n",
                      STATE = "2 failed to set upgrade state\n",
                      ACTIVATE = SAVE + "2 activate action: hostcfg saving failed.\n";
    struct Row { // IMG: release 2.2 (of S2 for set 0); CFG: a file. States before>after.
        std::string args, fault, states;
        int exit;
        std::string copies, says; // active set in primary, backup; "SEVERITY TEXT" but notes
    };
    const std::vector<Row> rows = {
        {"install IMG 2", "erase:mtd10:0", "VV>VV", 1, "1", ERASE + FAILED + "KNL INTO 10\n"},
        {"install IMG 2", "write:mtd12:0", "VV>VV", 1, "1",
         "3 Could not fwrite to /dev/mtd12, errno=5 result=-1\n" + FAILED + "ROOT INTO 12\n"},
        {"install IMG 2", "short:mtd12:4096", "VV>VV", 0, "2", ""}, // the rest written after
        {"install IMG 2", "bitflip:mtd10:17:3", "VV>VV", 1, "1",
         "3 CRC32 VERIFY FAILED: partinfo_idx=10 se_idx=0\n"},
        {"install IMG 0 -f", "erase:mtd7:0", "VV>VV", 11, "1",
         ERASE + FAILED + "KNL-SAFE INTO 7\n2 KIV_EXIT_FATAL_ERR_SINGLETON_WRITE"},
        {"install IMG 2", "erase:mtd5:0", "VV>VV", 10, "1 2", // the backup is written first
         ERASE + SAVE + "2 KIV_EXIT_FATAL_ERR_HOSTCONFIG_WRITE\n"},
        {"activate 2", "erase:mtd2:0", "VT>VV", 0, "2 1", ERASE},
        {"activate 2", "write:mtd2:0", "VT>VV", 0, "2 -1", ""},
        {"activate 2", "erase:mtd5:0", "VT>VT", 1, "1 2", ERASE + ACTIVATE},
        {"activate 2", "write:mtd5:0", "VT>VV", 1, "-1 2", ACTIVATE},
        {"activate 2", "short:mtd5:1000", "VT>VV", 0, "2", ""},
        {"upgrade test", "write:mtd5:131070", "BV>VV", 1, "1", STATE},
        {"upgrade test", "short:mtd5:131071", "BV>TV", 0, "1", ""},
        {"upgrade test", "bitflip:mtd5:131071:0", "BV>TT", 1, "1", STATE},
        {"-cfg=CFG activate 2", "write:mtd5:131070", "VT>VT", 1, "1", "2 cannot set normal mode\n"},
        {"-cfg=CFG activate 2", "", "VT>VT", 1, "1", "2 cannot set normal mode\n"}, // NOR: 0s stay
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.args + " with " + row.fault);
        Device dev;
        InstalledDevice before = described(true); // set 1 is running
        before.rec.actset = 1;
        before.states = row.states.substr(0, 2);
        before.write_to(dev);
        const std::string rel = release_image(has(row.args, "IMG 0") ? "S2" : "K2 R2 A2");
        std::vector<std::string> args = {"-activesetfile=" + dev.write_file("activeset", "2")};
        for (std::string w : words(row.args)) {
            if (w == "IMG") w = dev.write_file("rel", rel);
            if (w == "-cfg=CFG")
                w = "-cfg=" + dev.write_file("hostcfg", text(image_of(before.rec)));
            args.push_back(w);
        }
        RunOptions options;
        if (!row.fault.empty()) options.faults = {row.fault};
        const SandboxResult r = kiv_on(dev, args, options);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        std::string says;
        for (const SyslogLine &line : r.syslog)
            if (line.severity != LOG_NOTICE && line.severity != LOG_INFO)
                says += std::to_string(line.severity) + " " + line.text;
        EXPECT_EQ(says, row.says);
        const int primary = actset_on(dev, HOSTCFG_MTD), backup = actset_on(dev, BACKUP_MTD);
        EXPECT_EQ(std::to_string(primary) + (primary == backup ? "" : " " + std::to_string(backup)),
                  row.copies);
        EXPECT_EQ(states_on(dev), row.states.substr(3));
        EXPECT_EQ(kiv_on(dev, {"verify", "SET1"}).exit, 0); // rebooted without the fault
    }
}

} // namespace
