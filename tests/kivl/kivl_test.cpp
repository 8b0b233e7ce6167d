// Release texts kivl reads, at edges kiv shows only as yes or no; CSV lists: see getrh -pif.
#include "kivl/kivl.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "common/hcdecode.hpp"

namespace {

TEST(KivlModel, ProductListMatching) {
    const std::string listed = "products=m1,m2\n", text = "Rel\nproducts=a,beta\nnotes=g,\n";
    // Text 76 bytes into the part, newline and NUL behind; an entry ends at ',' or newline.
    using Row = std::tuple<std::string, const char *, int>;
    const Row rows[] = {
        {listed, "m2", 1},           {listed, "m1", 1},           {listed, "m", 0},
        {listed, "m12", 0},          {text, "beta", 1},           {text, "g", 0},
        {"products=m1,m2", "m2", 0}, {"products=m1,m2", "m1", 1}, {"no list\n", "m1", 0},
        {"products=,m1\n", "m1", 1}};
    for (const auto &[body, model, result] : rows) {
        std::vector<std::uint8_t> part(ZUNF_RELEASE_PART_HDR_LEN + body.size() + 2, '\n');
        part.back() = 0;
        std::memcpy(part.data() + ZUNF_RELEASE_PART_HDR_LEN, body.data(), body.size());
        hcdecode::put32(part, 8, static_cast<std::uint32_t>(body.size()));
        EXPECT_EQ(kivl_match_model(reinterpret_cast<zunf_content_header *>(part.data()), model),
                  result)
            << body << " " << model;
    }
}

std::string summary(const kivl_kivm_elem &e) {
    return std::to_string(e.cidx) + " " + e.poolname + " " + std::to_string(e.reserved) + " " +
           e.mountpnt + " " + e.fstype + " " + e.platform + " " + std::to_string(e.meta_valid) +
           " " + std::to_string(e.sw_version_major) + "." + std::to_string(e.sw_version_minor) +
           "." + std::to_string(e.sw_build_number.get()) + " " + std::to_string(e.wts);
}

TEST(KivmParse, LinesToElements) {
    const std::string line = "1,P,0,-,-,-,1.2.3,1", longest = line + std::string(1980, ' ');
    // Text, elements parsed into room for 2, the first of them.
    const std::tuple<std::string, int, std::string> rows[] = {
        {"3,POOL,7,/m,jffs2,arm,2.1.7,3", 1, "3 POOL 7 /m jffs2 arm 1 2.1.7 3"},
        {"# note\n1,P,0,-,-,-,0x0201FFFF,2\n\n" + line, 1, "1 P 0   - 1 2.1.65535 2"},
        {"-1,P,0,-,-,-,-1.0.0,1", 1, "-1 P 0   - 0 0.0.0 1"},
        {"1,P,0,-,-,-,1.-2.0,1", 1, "1 P 0   - 2 0.0.0 1"},
        {"1,P,0,-,-,-,1.2,1\n" + line, 1, "1 P 0   - 1 1.2.3 1"},
        {longest + "\n" + longest + " \n" + line, 2, "1 P 0   - 1 1.2.3 1"},
        {line + "\n" + line + "\n" + line, -1, "1 P 0   - 1 1.2.3 1"},
    };
    for (const auto &[text, count, first] : rows) {
        kivl_kivm_elem elems[2];
        std::memset(static_cast<void *>(elems), 0x5A, sizeof elems);
        EXPECT_EQ(kivl_parse_kivmd(elems, 2, text.c_str()), count) << text;
        EXPECT_EQ(summary(elems[0]), first) << text;
        EXPECT_EQ(elems[1].used, count == 1 ? 0 : 1) << text;
    }
}

TEST(KivlVersions, MinimumVersionAgainst2_1_7) {
    const kivl_version have{2, 1, 7};
    const std::uint32_t rows[][4] = {{2, 1, 7, 1}, {2, 1, 8, 0},     {1, 9, 999, 1},
                                     {2, 2, 0, 0}, {2, 0, 65535, 1}, {3, 0, 0, 0}};
    for (const auto &r : rows)
        EXPECT_EQ(kivl_check_minver(&have, r[0], r[1], r[2]), static_cast<int>(r[3]))
            << r[0] << "." << r[1] << "." << r[2];
}

} // namespace
