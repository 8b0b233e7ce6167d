#include <functional>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>

#include "common/cat.hpp"

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;
using hcdecode::Record;

const std::string TWENTY = "0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19";

// A hostconfig in use: every field partset and partinfo may touch holds something else.
Record base_record() {
    Record rec = empty_record();
    set_refs(rec.sets[1], "OLD1", {1, 2});
    rec.sets[1].bootable = 1;
    set_refs(rec.sets[2], "OLD2", {5});
    for (std::uint8_t s = 0; s < 3; ++s)
        rec.rhdr[s] = {9, s, 999, 1700000000, "build-" + std::to_string(s)};
    rec.partinfo[4] = {"OLDPOOL", 4, 0x1000, 0x2000, "/old", "ext4"};
    rec.pinfometa[4] = {0x11111111, 4, 64, 77, "oldcontent", 0x22222222, 1, 2, 3, "oldid"};
    return rec;
}

// An edit saves silently (erasing the states); a refusal or dry run changes no byte.
TEST(EditE2e, EditsRefusalsAndDryRuns) {
    using Edit = std::function<void(Record &)>;
    auto set = [](int s, const std::string &name, const std::vector<int> &refs,
                  mkzunf::Version v = {}) -> Edit {
        return [=](Record &r) {
            set_refs(r.sets[s], name, refs);
            r.sets[s].bootable = 0;
            r.rhdr[s] = {v.major, v.minor, v.build, r.rhdr[s].date, r.rhdr[s].build_id};
        };
    };
    auto part = [](int i, const hcdecode::PartInfo &entry, std::uint32_t length = 0,
                   std::uint32_t crc = 0, mkzunf::Version v = {}) -> Edit {
        return [=](Record &r) {
            r.partinfo[i] = entry;
            hcdecode::PinfoMeta &m = r.pinfometa[i];
            std::tie(m.body_length, m.body_crc, m.sw_major, m.sw_minor, m.sw_build) =
                std::tuple(length, crc, v.major, v.minor, v.build);
        };
    };
    const std::vector<int> twenty = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,
                                     10, 11, 12, 13, 14, 15, 16, 17, 18, 19};
    const std::string m31 = cat("/", std::string(30, 'm'));
    const std::string set_idx = "partset action: invalid set idx?\n";
    const std::string wrong = "partinfo action: wrong syntax.\n";
    // {words, edit (none: refused), message of a refusal or found on standard output}
    const std::vector<std::tuple<std::string, Edit, std::string>> rows = {
        {"partset 0 SAFE -refs=7,8,19 -meta=258.1.65543", set(0, "SAFE", {7, 8, 19}, {2, 1, 7}),
         ""},
        {"partset 1", set(1, "", {}), ""},
        {"partset 1 ABCDEFGHIJKLMNOPQRS 3,4", set(1, "ABCDEFGHIJKLMN", {}), ""},
        {"partset 2 X -refs=0x10,010,300,", set(2, "X", {16, 8, 44}), ""},
        {cat("partset 0x2 X -refs=", TWENTY, ";20 extra"), set(2, "X", twenty), ""},
        {"partinfo 0 T 0x100 -pn=22 -offset=100", part(0, {"T", 22, 256, 256, "", ""}), ""},
        {"partinfo 4 ABCDEFGHIJKLMNO 010 -pn=-1", part(4, {"ABCDEFGHIJKLMNO", 4, 0, 8, "", ""}),
         ""},
        {"partinfo 4 P 4294967295 -offset=FFFFFFFF -pn=255 -metacrc=4294967295 -metalength=4096 "
         "-meta=1.2.3",
         part(4, {"P", 255, ~0u, ~0u, "", ""}, 4096, ~0u, {1, 2, 3}), ""},
        {cat("partinfo 0x13 P 1 -fstype=squashfs9 -mount=", m31),
         part(19, {"P", 19, 0, 1, m31, "squashfs9"}), ""},
        {"partinfo 4 P 1 -pn=3 -pn=0 -offset=zz -foo -mount=/b -mount= junk",
         part(4, {"P", 0, 0, 1, "/b", ""}), ""},
        {"partinfo 4", [](Record &r) { r.partinfo[4] = {}; }, ""},
        {"partset", {}, "partset action: missing set idx?\n"},
        {"partset 3", {}, set_idx},
        {"partset -1", {}, set_idx},
        {"partset SAFESET", {}, set_idx},
        {cat("partset 1 SET1 -refs=", TWENTY, ",20"), {}, "partset action: too many refs.\n"},
        {"partset 1 S -refs=1,,2", {}, "partset action: invalid refs list.\n"},
        {"partinfo", {}, wrong},
        {"partinfo 20", {}, wrong},
        {"partinfo -1", {}, wrong},
        {"partinfo 4 POOL", {}, wrong},
        {"partinfo 4 ABCDEFGHIJKLMNOP 1", {}, "partinfo action: pool name too long.\n"},
        {"partinfo 4 POOL x", {}, "partinfo action: size invalid.\n"},
        {"partinfo 4 POOL 1 -pn=256 -dryrun", {}, "partinfo action: pn invalid.\n"},
        {"partinfo 4 POOL 1 -pn=-2", {}, "partinfo action: pn invalid.\n"},
        {cat("partinfo 4 POOL 1 -mount=", m31, "m"), {}, "mountpoint name too long.\n"},
        {"partinfo 4 POOL 1 -fstype=squashfs10", {}, "fstype name too long.\n"},
        {"partinfo 4 POOL 1 -offset=100000000", {}, "partinfo action: offset invalid.\n"},
        {"partinfo 4 POOL 1 -metacrc=4294967296", {}, "partinfo action: metacrc invalid.\n"},
        {"partinfo 4 POOL 1 -metalength=-5", {}, "partinfo action: metalength invalid.\n"},
        {"partset 1 S -refs=3 -dryrun -v", set(1, "S", {3}),
         "  1  S                0          0.00 0     3 \n"},
        {"partinfo 4 T 0x100 -pn=22 -dryrun -v -fstype=ext4", part(4, {}),
         "  4  22  T                0x0 "},
    };
    for (const auto &[words, edit, message] : rows) {
        SCOPED_TRACE(words);
        Device dev;
        for (int mtd : {HOSTCFG_MTD, BACKUP_MTD})
            dev.set_flash(mtd, image_of(base_record()));
        set_states(dev, "TB");
        std::istringstream in(words);
        SandboxResult r = kiv_on(dev, {std::istream_iterator<std::string>(in), {}});
        const bool saved = edit && message.empty();
        EXPECT_EQ(r.exit, edit ? 0 : 1) << r.describe();
        EXPECT_EQ(r.out.empty(), saved || !edit) << r.out;
        EXPECT_NE(r.out.find(edit ? message : ""), std::string::npos) << r.out;
        EXPECT_EQ(r.err, edit ? "" : message);
        EXPECT_EQ(r.syslog, saved   ? save_markers(words.substr(0, words.find(' ')))
                            : !edit ? std::vector{logged(LOG_ERR, message)}
                                    : std::vector<SyslogLine>{});
        if (!saved) expect_flash_untouched(r);
        Record want = base_record();
        if (saved) edit(want);
        const Bytes image = image_of(want);
        for (int mtd : {HOSTCFG_MTD, BACKUP_MTD})
            EXPECT_TRUE(std::equal(image.begin(), image.end(), dev.flash(mtd).begin())) << mtd;
        EXPECT_EQ(states_on(dev), saved ? "VV" : "TB");
    }
}

} // namespace
