// Release metadata and install planning at the edges an image cannot reach end to end:
// text columns at and past their field widths, and plans the planner must refuse with a
// code instead of an assertion or an overrun.
#include "kivl/kivl.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

std::string column(std::size_t n) {
    return std::string(n, 'x');
}

struct ColumnCase {
    const char *field;
    std::size_t width; // field size with its terminating zero
    std::string (*line)(const std::string &);
};

const ColumnCase COLUMNS[] = {
    {"poolname", KIVM_POOLNAME_LEN,
     [](const std::string &c) { return "1," + c + ",0,-,-,-,1.2.3,1"; }},
    {"mountpnt", KIVM_MOUNTPNT_LEN,
     [](const std::string &c) { return "1,P,0," + c + ",-,-,1.2.3,1"; }},
    {"fstype", KIVM_FSTYPE_LEN, [](const std::string &c) { return "1,P,0,-," + c + ",-,1.2.3,1"; }},
    {"platform", KIVM_PLATFORM_LEN,
     [](const std::string &c) { return "1,P,0,-,-," + c + ",0x01020003,2"; }},
};

TEST(KivmParse, TextColumnsFitTheirFieldsOrRefuseTheLine) {
    for (const ColumnCase &c : COLUMNS) {
        SCOPED_TRACE(c.field);
        // A full column fills the field up to its terminating zero; one more character
        // refuses the line, which costs no record.
        const std::string text = c.line(column(c.width - 1)) + "\n" + c.line(column(c.width)) +
                                 "\n" + c.line("y") + "\n";
        kivl_kivm_elem elems[3];
        std::memset(static_cast<void *>(elems), 0x5A, sizeof elems);
        testing::internal::CaptureStdout();
        ASSERT_EQ(kivl_parse_kivmd(elems, 3, text.c_str()), 2);
        EXPECT_NE(testing::internal::GetCapturedStdout().find("Wrong syntax, skip"),
                  std::string::npos);
        const char *full = c.field == std::string("poolname")   ? elems[0].poolname
                           : c.field == std::string("mountpnt") ? elems[0].mountpnt
                           : c.field == std::string("fstype")   ? elems[0].fstype
                                                                : elems[0].platform;
        EXPECT_EQ(std::string(full), column(c.width - 1));
        EXPECT_EQ(elems[1].used, 1);
        EXPECT_EQ(elems[2].used, 0); // zeroed, never written past
    }
}

TEST(KivmParse, LinesOfTheBufferSizeAreRefusedWhole) {
    const std::string longest = "1,P,0,-,-,-,1.2.3,1" + std::string(1999 - 19, ' ');
    kivl_kivm_elem elems[2];
    testing::internal::CaptureStdout();
    ASSERT_EQ(kivl_parse_kivmd(elems, 2, (longest + "\n" + longest + " \n").c_str()), 1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Wrong syntax, skip"), std::string::npos);
}

struct Plan {
    std::unique_ptr<kivl_data> data = std::make_unique<kivl_data>();
    kivl_kivm_elem elems[KIVM_MAX_ELEMS] = {};
    zunf_content_header part{};
    const zunf_content_header *parts[ZUNF_MAX_PARTS] = {&part};
    zunf_release_header rhdr{};

    Plan() { kivl_init(data.get()); }
    kivl_kivm_elem &elem(std::size_t k, int action, int cidx) {
        elems[k].used = 1;
        elems[k].action = action;
        elems[k].cidx = static_cast<std::int8_t>(cidx);
        elems[k].partinfo_idx = 0;
        return elems[k];
    }
    int final_pass() { return kivl_meta_install(data.get(), 1, &rhdr, elems, parts, "", 0); }
};

TEST(KivlPlan, UnfinishedOrOversizedPlansAreRefusedWithCodes) {
    Plan late;
    late.elem(0, KIV_ACTION_LATE, 0);
    EXPECT_EQ(late.final_pass(), KIVL_META_INSTALL_ERR_PARTINFO_MATCH);

    for (int cidx : {-1, 1, 20}) { // not carried, not in the table, out of range
        Plan write;
        write.elem(0, KIV_ACTION_WRITE, cidx);
        EXPECT_EQ(write.final_pass(), KIVL_META_INSTALL_ERR_PARTINFO_MATCH) << cidx;
    }

    Plan many;
    for (std::size_t k = 0; k < 21; ++k)
        many.elem(k, KIV_ACTION_KEEP, 0);
    std::memset(many.data->rec.sets[1].refs, 7, KIVL_REFS);
    EXPECT_EQ(many.final_pass(), KIVL_META_INSTALL_ERR_FATAL);
    EXPECT_EQ(many.data->rec.sets[1].refs[0], 7); // a refused plan records nothing

    // Without a version the pool decides; a pool that does not exist cannot.
    Plan unversioned;
    std::strcpy(unversioned.elem(0, KIV_ACTION_NONE, 0).poolname, "NOPOOL");
    kivl_partpool_generate(unversioned.data.get());
    EXPECT_EQ(kivl_meta_install_part1(unversioned.data.get(), 1, &unversioned.rhdr,
                                      unversioned.elems, "", 0),
              KIVL_META_INSTALL_ERR_FATAL);
}

} // namespace
