// install on the simulated device: release images made with the image producer, the flash
// and both hostconfig copies read back with the independent decoder. The device is laid
// out as an integrator describes it: the fallback set installed on 7, 8, 19 (singleton
// pools), set 1 on 9, 11, 13 and set 2 on 10, 12, 14 (pools of two partitions each).
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;
using mkzunf::Version;

const Version V1{2, 1, 7}, V2{2, 2, 0}, V3{2, 3, 0}, V4{2, 4, 0}, V5{3, 0, 0};
constexpr std::uint32_t DATE = 1700000000;
const hcdecode::ReleaseHeader REL_V1{2, 1, 7, DATE, "REL"};
const std::string NUL_BYTE(1, '\0');

// One content of a release. The pool decides the layout and the size, so that every
// layout is written: KNL plain, ROOT header first, APPL header behind an odd-sized body.
struct Sw {
    std::string pool;
    Version v;
    std::uint8_t seed;
    std::string column = ""; // version column of its kivm line; empty: v
    int cidx = 0;            // 0: carried, in order; else the kivm line's CIDX, part not carried
};
const std::vector<Sw> R1 = {{"KNL", V1, 1}, {"ROOT", V1, 2}, {"APPL", V1, 3}};

int wts_of(const Sw &s) {
    return s.pool[0] == 'K' ? 1 : s.pool[0] == 'R' ? 2 : 3;
}
Bytes content_of(const Sw &s) {
    return content_bytes(s.pool[0] == 'K' ? 5000 : s.pool[0] == 'R' ? 9000 : 4099, s.seed);
}
std::string pool_of(int pn) {
    const char *pools[] = {"KNL-SAFE", "ROOT-SAFE", "KNL", "KNL", "ROOT", "ROOT", "APPL", "APPL"};
    return pn == 19 ? "APPL-SAFE" : pools[pn - 7];
}

mkzunf::ImageBuilder builder(const std::vector<Sw> &sws) {
    mkzunf::ImageBuilder b;
    b.add_release_header(V1, DATE, "REL", "Demo\nproducts=demo,kiosk\n");
    std::string kivm = "# cidx,pool,reserved,mount,fstype,platform,version,wts\n";
    int next = 2;
    for (const Sw &s : sws) {
        const std::string v = std::to_string(s.v.major) + "." + std::to_string(s.v.minor) + "." +
                              std::to_string(s.v.build);
        kivm += std::to_string(s.cidx == 0 ? next++ : s.cidx) + "," + s.pool + ",0,/m/" + s.pool +
                ",jffs2,-," + (s.column.empty() ? v : s.column) + "," + std::to_string(wts_of(s)) +
                "\n";
    }
    b.add_kivm(kivm);
    for (const Sw &s : sws)
        if (s.cidx == 0) b.add_software(s.pool, s.v, "b", content_of(s));
    return b;
}

std::string file_of(Device &dev, const Bytes &image) {
    return dev.write_file("rel.zunf", std::string(image.begin(), image.end()));
}

std::vector<std::string> words(const std::string &text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

// The fallback set carries its software blocks behind the contents, where a rebuild of a
// lost hostconfig looks for them; the application's block gives the set's release version.
InstalledDevice described() {
    InstalledDevice d;
    for (int pn = 9; pn <= 14; ++pn)
        d.entry(pn, pool_of(pn));
    for (const auto &[pn, v] : {std::pair{7, Version{1, 0, 1}}, {8, {1, 0, 2}}, {19, {1, 4, 9}}})
        d.install(pn, pool_of(pn), 3, content_bytes(3000 + pn, 40 + pn), pool_of(pn), v);
    d.set(0, "SAFESET", {7, 8, 19});
    d.set(1, "SET1", {9, 11, 13});
    d.set(2, "SET2", {10, 12, 14});
    return d;
}

// A device whose application file system holds the default hostconfig: the described
// record without what the fallback partitions' blocks tell.
DeviceOptions with_defaults() {
    hcdecode::Record rec = described().rec;
    for (int pn : {7, 8, 19})
        rec.pinfometa[pn] = {};
    const Bytes image = image_of(rec);
    DeviceOptions options;
    options.hostcfg_default = std::string(image.begin(), image.end());
    return options;
}

// The model after the install wrote s into partition pn.
void wrote(InstalledDevice &model, int pn, const Sw &s) {
    model.install(pn, s.pool, wts_of(s), content_of(s), s.pool, s.v, "b");
    // The gap of the third layout is left erased.
    model.partitions[pn] =
        mkzunf::build_partition(wts_of(s), s.pool, s.v, "b", content_of(s), 0xFF);
    model.rec.partinfo[pn].mountpnt = "/m/" + s.pool;
    model.rec.partinfo[pn].fstype = "jffs2";
}

// Both hostconfig copies hold the model's record byte for byte, and every partition what
// the model says (erased where it says nothing).
void expect_device(const Device &dev, const InstalledDevice &model) {
    const Bytes want = hcdecode::encode_record(model.rec);
    for (int mtd : {HOSTCFG_MTD, BACKUP_MTD}) {
        const hcdecode::Image image = hcdecode::decode_image(dev.flash(mtd));
        const hcdecode::Part *part = image.find("KIV data");
        ASSERT_TRUE(part != nullptr && part->body.size() == want.size()) << "mtd" << mtd;
        EXPECT_TRUE(part->body == want)
            << "record on mtd" << mtd << " differs first at offset "
            << std::mismatch(want.begin(), want.end(), part->body.begin()).first - want.begin();
    }
    for (int pn = 6; pn < 20; ++pn) {
        const Bytes flash = dev.flash(pn);
        Bytes expected = model.partitions.contains(pn) ? model.partitions.at(pn) : Bytes{};
        mkzunf::pad_to(expected, flash.size());
        EXPECT_TRUE(flash == expected) << "mtd" << pn;
    }
}

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// A critical region the run entered is left, with the run's exit code, as its last word
// (except when the test state cannot be set: that ends the install at once).
void expect_region_closed(const SandboxResult &r) {
    const SyslogLine entered = logged(LOG_NOTICE, "install: entering critical region\n");
    if (std::find(r.syslog.begin(), r.syslog.end(), entered) == r.syslog.end()) return;
    if (r.logged("cannot set test mode")) return;
    const std::string left = "install: leaving critical region with exitcode=";
    EXPECT_EQ(r.syslog.back(), logged(LOG_NOTICE, left + std::to_string(r.exit) + "\n"))
        << r.describe();
}

// kiv with the test plug-in preloaded into it alone, as kiv_with_plugin, under a fault.
SandboxResult with_plugin(Device &dev, const std::vector<std::string> &settings,
                          const std::vector<std::string> &args, const std::string &fault) {
    std::vector<std::string> argv = {"/usr/bin/env", std::string("LD_PRELOAD=") + KIV_TEST_PLUGIN};
    argv.insert(argv.end(), settings.begin(), settings.end());
    argv.push_back(kiv::test::kiv_bin());
    argv.insert(argv.end(), args.begin(), args.end());
    RunOptions options;
    options.keep.push_back(std::filesystem::path(KIV_TEST_PLUGIN).parent_path());
    if (!fault.empty()) options.faults = {fault};
    return run_on(dev, argv, options);
}

// Installs whose whole outcome is known, with the plug-in preloaded: every partition and
// both record copies as modelled, what was written, the upgrade states, the files read by
// later runs and the hooks called. The plug-in records each call with the target set and
// the active set it sees (for data_rcvd the bytes received, for hcfg_fail the rebuild's
// result, for on_failure the install's).
TEST(InstallE2e, OutcomesAsModelled) {
    const std::string NONE = "(none)";
    const std::string UP_TO_WRITE = "data_rcvd=SIZE pre_metainstall=0 pre_install=0";
    const std::string W = UP_TO_WRITE + " post_write_out=0", ACTIVATED = W + " post_activate=";
    const std::vector<Sw> SAFE = {{"KNL-SAFE", V1, 1}};
    // The release checks at their boundaries: the size, the version, the list's last model.
    const std::string CHECKS = " -product=kiosk -minver=2.1.7 -zunfsize=SIZE";
    enum { NOTHING, WRITES, SAVES, BOTH };
    struct Row {
        // After the image; not for kiv: LOST (neither hostconfig copy readable), HOOKS=the
        // plug-in's answers, FAULT=an erase fault on the partition whose write then fails
        // (every other flash fault: faults_test.cpp).
        std::string args;
        std::vector<Sw> release;
        int set, actset, exit, effect;
        std::string states, activeset, err, calls;
    };
    const std::vector<Row> rows = {
        {"-1 -test" + CHECKS, R1, 1, 1, 0, BOTH, "TV", NONE, "", ACTIVATED + "1"},
        {"2 -noactivate", R1, 2, 0, 0, BOTH, "VV", "2", "", ACTIVATED + "0"},
        // The set that stays active is the one put in test: the fallback set has no state
        // to mark, and the failure ends the install at once, without further hooks.
        {"2 -noactivate -test", R1, 2, 0, 1, BOTH, "VV", "2", "cannot set test mode\n", W},
        {"2 -onlymeta", R1, 2, 2, 0, SAVES, "VV", NONE, "", ACTIVATED + "2"},
        {"-1 -dryrun -test", R1, 1, 0, 0, NOTHING, "VV", NONE, "", ACTIVATED + "0"},
        // A singleton pool takes the content in place, only when forced.
        {"0 -f", SAFE, 0, 0, 0, BOTH, "VV", NONE, "", ACTIVATED + "0"},
        {"-1 LOST", R1, 1, 1, 0, BOTH, "VV", NONE,
         "install: hostcfg loading failed.\nrebuild_hostcfg: Using /mnt/appl/hostcfg.default as "
         "initial hostconfig\n",
         "hcfg_fail=1 " + ACTIVATED + "1"},
        {"1 HOOKS=post_activate=6", R1, 1, 1, 6, BOTH, "VV", NONE, "",
         ACTIVATED + "1 on_failure=6"},
        {"1 HOOKS=post_write_out=7", R1, 1, 0, 7, WRITES, "VV", NONE, "", W + " on_failure=7"},
        // Failures before the write-out end the install there: on_failure is not called.
        {"1 HOOKS=pre_install=3", R1, 1, 0, 3, NOTHING, "VV", NONE, "", UP_TO_WRITE},
        {"1 HOOKS=data_rcvd=4", R1, 1, 0, 9, NOTHING, "VV", NONE,
         "kiv_install_hook_data_rcvd failed (4)\n", "data_rcvd=SIZE"},
        {"0 -f -test", SAFE, 0, 0, 1, BOTH, "VV", NONE, "cannot set test mode\n", W},
        // A failed write-out is saved, without the failed partition's metadata and without
        // activating; the write-out stops there.
        {"-1 -test FAULT=erase:mtd9:0", R1, 1, 0, 1, BOTH, "VV", NONE,
         "FAILED TO INSTALL KNL INTO 9\n", W + " on_failure=1"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.args);
        const InstalledDevice before = described();
        InstalledDevice model = before;
        Device dev(with_defaults());
        model.write_to(dev);
        const Bytes image = builder(row.release).build();
        const std::string autoset = dev.scratch_path("autoset"), activeset = dev.scratch_path("as");
        const std::string calls = dev.write_file("calls", ""), size = std::to_string(image.size());
        std::vector<std::string> args = {"-autosetfile=" + autoset, "-activesetfile=" + activeset,
                                         "install", file_of(dev, image)};
        std::string hooks, fault;
        for (const std::string &word : words(row.args)) {
            if (word.starts_with("HOOKS=")) hooks = word.substr(6);
            if (word.starts_with("FAULT=")) fault = word.substr(6);
            for (int mtd : {HOSTCFG_MTD, BACKUP_MTD})
                if (word == "LOST") dev.erase_flash(mtd);
            if (word.find_first_of("-0123456789") == 0)
                args.push_back(word == "-zunfsize=SIZE" ? "-zunfsize=" + size : word);
        }
        if (has(row.args, "LOST")) model.rec.rhdr[0] = {1, 4, 9, 0, ""};
        SandboxResult r = with_plugin(
            dev, {"KIV_TEST_HOOK_RECORD=" + calls, "KIV_TEST_INSTALL_HOOKS=" + hooks}, args, fault);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        EXPECT_TRUE(has(r.err, row.err)) << r.err;
        expect_region_closed(r);
        const int failed = fault.empty() ? -1 : std::stoi(fault.substr(fault.find("mtd") + 3));
        // Set 1 on 9, 11, 13, set 2 on 10, 12, 14; the fallback kernel on 7.
        std::string out, called;
        std::vector<int> into;
        bool stopped = false; // the set refers to every planned partition, reached or not
        for (std::size_t i = 0; i < row.release.size(); ++i) {
            const int pn = row.set == 0 ? 7 : 9 + 2 * static_cast<int>(i) + (row.set == 2);
            into.push_back(pn);
            if (stopped) continue;
            if ((row.effect & WRITES) && pn != failed)
                out += "Writing out " + std::to_string(content_of(row.release[i]).size()) +
                       " bytes of data to /dev/mtd" + std::to_string(pn) + "\n";
            wrote(model, pn, row.release[i]);
            if (pn != failed) continue;
            // The erase failed: the partition holds what it held.
            model.partitions[pn] =
                before.partitions.contains(pn) ? before.partitions.at(pn) : Bytes{};
            model.rec.pinfometa[pn] = {};
            model.rec.partinfo[pn].mountpnt = model.rec.partinfo[pn].fstype = "";
            stopped = true;
        }
        EXPECT_EQ(r.out, out);
        model.set(row.set, model.rec.sets[row.set].name, into);
        model.rec.rhdr[row.set] = REL_V1;
        model.rec.actset = static_cast<std::uint8_t>(row.actset);
        if (!(row.effect & SAVES)) model.rec = before.rec;
        if (!(row.effect & WRITES)) model.partitions = before.partitions;
        expect_device(dev, model);
        EXPECT_EQ(states_on(dev), row.states);
        // An autodetected install that was saved leaves the set that was active before it;
        // one that failed may be tried again.
        const bool tried = row.args[0] == '-' && (row.effect & SAVES) && row.exit == 0;
        for (const auto &[path, content] :
             {std::pair{autoset, tried ? NUL_BYTE : NONE}, {activeset, row.activeset}})
            EXPECT_EQ(std::filesystem::exists(path) ? kiv::test::read_text_file(path) : NONE,
                      content);
        for (const std::string &call : words(row.calls)) {
            // The target set is not chosen yet when the hostconfig turns out lost: that hook
            // sees the set as requested, 255 for one to be autodetected.
            const std::string name = call.substr(0, call.find('=')),
                              value = call.substr(name.size() + 1);
            called +=
                "kiv_install_hook_" + name + " set=" +
                (name == "hcfg_fail" && row.args[0] == '-' ? "255" : std::to_string(row.set)) +
                " value=" + (value == "SIZE" ? size : value) + "\n";
        }
        EXPECT_EQ(kiv::test::read_text_file(calls), called);
        // The fallback set that was running stays intact, unless it was the target.
        const bool other_target = row.exit != 0 && row.set != 0;
        EXPECT_TRUE(!other_target || kiv_on(dev, {"verify", "SAFESET"}).exit == 0);
    }
}

// Refusals before the critical region: flash and the files read by later runs stay as they
// were, and the last words on standard error say why.
TEST(InstallE2e, RefusedBeforeAnyWrite) {
    const Bytes ok = builder(R1).build();
    mkzunf::ImageBuilder kivm_first, no_kivm;
    kivm_first.add_kivm("2,KNL,0,-,-,-,2.1.7,1\n").add_release_header(V1, DATE, "REL", "Demo\n");
    no_kivm.add_release_header(V1, DATE, "REL", "Demo\n").add_software("KNL", V1, "b", ok);
    const std::string LOAD = "install: failed to load ZUNF\n";
    const std::string INVALID = "install: invalid set idx?\n", META = "install: meta install in ";
    auto part1 = [&](int code) {
        return "install: kivl_meta_install_part1 failed: " + std::to_string(code) +
               "\ninstall: search kivl for KIVL_META_INSTALL_ERR_\n" + LOAD;
    };
    const std::string NO_CURL = "curl was not enabled at compile time, sorry.\n";
    // TRIED: an autodetected install was tried before. LOST: neither hostconfig copy
    // readable, and the fallback root carries its content without the block behind it.
    enum { PLAIN, TRIED, LOST };
    struct Row {
        std::string args; // after "install"; IMG: the row's image
        Bytes image;
        int exit;
        std::string err_end;
        int damage = PLAIN;
    };
    const std::vector<Row> rows = {
        {"IMG", ok, 1, "install: missing set idx?\n"},
        {"IMG 3", ok, 1, INVALID},
        {"IMG -2", ok, 1, INVALID},
        {"IMG one", ok, 1, INVALID},
        {"none.zunf -1", {}, 8, "install: could not open ZUNF\n"},
        {"IMG -1", {}, 9, "install: empty ZUNF\n"},
        {"IMG -1 -zunfsize=" + std::to_string(ok.size() - 1), ok, 9, "install: ZUNF too big\n"},
        {"http://host/rel.zunf -1", {}, 1, NO_CURL},
        {"file:///rel.zunf -1", {}, 1, NO_CURL},
        {"IMG -1", builder(R1).fault_part_body_crc(3).build(), 9,
         "install: content part 3 not valid error\n" + LOAD},
        {"IMG -1", builder(R1).fault_truncate(ok.size() - 1).build(), 9,
         "install: incomplete ZUNF\n"},
        {"IMG -1", kivm_first.build(), 9, "install: KIVM before RH\n" + LOAD},
        {"IMG -1 -product=kios", ok, 6, "install: Release header does not contain model 'kios'\n"},
        {"IMG -1 -minver=2.1.8", ok, 7, "install: Version in release header lower than 2.1-8\n"},
        {"IMG -1", no_kivm.build(), 2,
         META + "hostconfig failed (-1), reason:\ninstall: no content\n"},
        // A line naming a part the image does not hold passes the first planning pass.
        {"IMG -1", builder({{"KNL", V1, 1, "", 7}}).build(), 2,
         META + "hostconfig failed (-6), reason:\ninstall: partinfo kivm match\n"},
        {"IMG -1", builder({{"NOPOOL", V1, 1}}).build(), 9, part1(-4)},
        // A partial image whose kept content no partition holds.
        {"IMG -1", builder({{"KNL", V1, 1}, {"ROOT", V1, 2, "", -1}}).build(), 9, part1(-2)},
        {"IMG 0", builder({{"KNL-SAFE", V1, 1}}).build(), 9,
         "install: Can't install into singleton partitions without -f\n" + LOAD},
        {"IMG -1", ok, 5,
         "Autodetected set installation has already been tried by KIV with or without success.\n",
         TRIED},
        {"IMG -1", ok, 1,
         "rebuild_hostcfg: tsb for ROOT-SAFE not found\nrebuild_hostcfg: rebuild of pinfometa "
         "failed.\ninstall: rebuild of hostcfg failed\n",
         LOST},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.args);
        Device dev(with_defaults());
        described().write_to(dev);
        const std::string autoset = dev.scratch_path("autoset"), activeset = dev.scratch_path("as");
        if (row.damage == TRIED) dev.write_file("autoset", NUL_BYTE);
        if (row.damage == LOST) {
            dev.erase_flash(HOSTCFG_MTD);
            dev.erase_flash(BACKUP_MTD);
            dev.erase_flash(8);
            dev.set_flash(8, content_bytes(3008, 48)); // the content alone
        }
        std::vector<std::string> args = {"-autosetfile=" + autoset, "-activesetfile=" + activeset,
                                         "install"};
        for (const std::string &word : words(row.args))
            args.push_back(word == "IMG"         ? file_of(dev, row.image)
                           : word == "none.zunf" ? dev.scratch_path(word)
                                                 : word);
        SandboxResult r = kiv_on(dev, args);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        EXPECT_TRUE(r.err.ends_with(row.err_end)) << r.err;
        EXPECT_EQ(r.out, "");
        expect_flash_untouched(r);
        EXPECT_EQ(std::filesystem::exists(autoset), row.damage == TRIED);
        EXPECT_FALSE(std::filesystem::exists(activeset));
    }
}

// Releases in turn on one device: what a partition already holds intact is kept (also
// from another set), a changed content goes to a partition no other set uses, and a kept
// partition that went bad is written again, elsewhere when another set shares it.
TEST(InstallE2e, ReleasesInTurnKeepWhatIsInstalled) {
    const Sw K1{"KNL", V1, 1}, K2{"KNL", V2, 4}, K3{"KNL", V3, 5}, K4{"KNL", V4, 6};
    const Sw R{"ROOT", V1, 2}, A{"APPL", V1, 3};
    // Without a version an element keeps what its pool holds newest; not carried, it can
    // only be kept.
    const std::string ANY = "-1.-1.-1";
    const Sw any_root{"ROOT", V1, 2, ANY}, any_knl{"KNL", V3, 5, ANY};
    const Sw kept_root{"ROOT", V1, 2, "", -1}, kept_appl{"APPL", V1, 3, "", -1};
    const Sw any_kept_appl{"APPL", V1, 3, ANY, -1};
    const std::string BAD = "CRC32 validation for partition ", REINSTALL = " failed marking it "
                                                                           "for reinstall\n";
    const std::string MOVED =
        BAD + "11" + REINSTALL +
        "Other sets also refer to partition 11.\nUse free partition 12 instead\n";
    const std::string REWRITES = "Mark partition 9 for rewrite\nMark partition 11 for rewrite\n"
                                 "Mark partition 13 for rewrite\n";
    const std::string PARTIAL = "Handling partial ZUNF\n";
    const std::string ONLY_FULL = "CRC32 validation of partition 13 failed. Only fixable with a "
                                  "non-partial ZUNF.\n";
    struct Step {
        std::vector<Sw> release;
        std::string args; // the set and options
        int corrupt;      // partition damaged on flash before the run; 0: none
        int exit;
        std::string says;         // lines on standard error
        std::vector<int> written; // partitions erased and written
        std::vector<int> refs;    // of the target set afterwards
    };
    const std::vector<Step> steps = {
        {{K1, R, A}, "1", 0, 0, "", {9, 11, 13}, {9, 11, 13}},
        {{K2, R, A}, "2", 0, 0, "", {10}, {10, 11, 13}},
        {{K3, R, A}, "1", 0, 0, "", {9}, {9, 11, 13}},
        {{K3, R, A}, "1 -rewrite", 0, 0, REWRITES, {9, 11, 13}, {9, 11, 13}},
        {{K3, any_root, A}, "1", 11, 0, MOVED, {12}, {9, 12, 13}},
        {{any_knl, R, A}, "1", 9, 0, BAD + "9" + REINSTALL, {9}, {9, 12, 13}},
        {{K3, R, A}, "1", 13, 0, "", {14}, {9, 12, 14}},
        {{K4, kept_root, any_kept_appl}, "2", 0, 14, PARTIAL + ONLY_FULL, {}, {}},
        {{K4, kept_root, kept_appl}, "2", 0, 0, PARTIAL, {10}, {10, 12, 14}},
    };
    Device dev;
    InstalledDevice model = described();
    model.write_to(dev);
    for (const Step &step : steps) {
        SCOPED_TRACE("step " + std::to_string(&step - steps.data()));
        if (step.corrupt != 0) {
            dev.set_flash(step.corrupt, Bytes{0x5A}, 100);
            model.partitions[step.corrupt][100] = 0x5A;
        }
        std::vector<std::string> args = words("install - " + step.args);
        args[1] = file_of(dev, builder(step.release).build());
        SandboxResult r = kiv_on(dev, args);
        expect_region_closed(r);
        EXPECT_EQ(r.exit, step.exit) << r.describe();
        EXPECT_TRUE(has(r.err, step.says)) << r.err;
        std::vector<int> changed;
        for (int pn = 6; pn < 20; ++pn)
            if (!changes_on(r, pn).empty()) changed.push_back(pn);
        EXPECT_EQ(changed, step.written);
        for (int pn : step.written)
            wrote(model, pn,
                  *std::find_if(step.release.begin(), step.release.end(),
                                [&](const Sw &sw) { return sw.pool == pool_of(pn); }));
        const int set = step.args[0] - '0';
        if (step.exit == 0) {
            model.set(set, model.rec.sets[set].name, step.refs);
            model.rec.rhdr[set] = REL_V1;
            model.rec.actset = static_cast<std::uint8_t>(set);
        }
        expect_device(dev, model);
    }
}

} // namespace
