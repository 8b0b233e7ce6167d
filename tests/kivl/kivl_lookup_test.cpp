// Set, pool and partition questions on the upgrade data.
#include "kivl/kivl.hpp"

#include <gtest/gtest.h>

#include "common/cat.hpp"

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

std::unique_ptr<kivl_data> new_data() {
    auto data = std::make_unique<kivl_data>();
    EXPECT_EQ(kivl_init(data.get()), 1);
    return data;
}

void define_set(kivl_data &data, int s, const char *name, std::vector<int> refs) {
    kivl_set &set = data.rec.sets[s];
    std::strcpy(set.name, name);
    std::memset(set.refs, -1, sizeof set.refs);
    for (std::size_t k = 0; k < refs.size(); ++k)
        set.refs[k] = static_cast<std::int8_t>(refs[k]);
}

void use_partition(kivl_data &data, int i, const char *pool) {
    std::strcpy(data.rec.partinfo[i].poolname, pool);
    data.rec.partinfo[i].pn = static_cast<std::uint8_t>(i);
}

} // namespace

TEST(KivlSets, ActiveSetAndLookupByName) {
    auto data = new_data();
    define_set(*data, 0, "SAFESET", {0});
    define_set(*data, 2, "ABCDEFGHIJKLMN", {1});
    data->rec.actset = 2;
    EXPECT_EQ(kivl_actset_get(data.get()), 2);
    const std::pair<const char *, int> cases[] = {
        {"SAFESET", 0}, {"ABCDEFGHIJKLMN", 2}, {"", -2},        {"SET1", -1},
        {"SAFE", -1},   {"SAFESETX", -1},      {"safeset", -1},
    };
    for (auto [name, result] : cases)
        EXPECT_EQ(kivl_getsetidx(data.get(), name), result) << name;
}

TEST(KivlSets, OwnershipScansAllTwentyRefs) {
    auto data = new_data();
    define_set(*data, 0, "SAFESET", {0, 1});
    define_set(*data, 1, "SET1", {2, 3});
    define_set(*data, 2, "SET2", {4});
    data->rec.sets[2].refs[5] = 3;  // behind the terminator
    data->rec.sets[2].refs[19] = 7; // the very last byte
    struct Case {
        int pidx;
        int except;
        int result;
    };
    const Case cases[] = {
        {3, 1, 1},                                    // set 2 lists 3 after its -1
        {3, 2, 1},                                    // set 1 lists it too
        {2, 1, 0},                                    // only set 1 has it
        {7, 0, 1},                                    // last ref byte counts
        {7, 2, 0},  {0, 0, 0}, {0, 1, 1}, {-1, 0, 1}, // the terminators themselves are refs bytes
        {19, 0, 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(kivl_partinfo_owned_by_set(data.get(), c.pidx, c.except), c.result)
            << c.pidx << " except " << c.except;
    // Refs never written are twenty zeros: they list partition 0.
    auto fresh = new_data();
    EXPECT_EQ(kivl_partinfo_owned_by_set(fresh.get(), 0, 1), 1);
    EXPECT_EQ(kivl_partinfo_owned_by_set(fresh.get(), 1, 1), 0);
}

TEST(KivlPartinfo, MarkMetaInvalidKeepsTheLayout) {
    auto data = new_data();
    kivl_partinfo &pi = data->rec.partinfo[6];
    use_partition(*data, 6, "rootfs");
    pi.offset = 0x10000u;
    pi.size = 0x20000u;
    std::memset(pi.mountpnt, 'm', sizeof pi.mountpnt);
    std::memset(pi.fstype, 'f', sizeof pi.fstype);
    std::memset(static_cast<void *>(&data->rec.pinfometa[6]), 0x77, 2 * sizeof(zunf_pinfometa));
    kivl_partinfo want = pi;
    std::memset(want.mountpnt, 0, sizeof want.mountpnt);
    std::memset(want.fstype, 0, sizeof want.fstype);

    EXPECT_EQ(kivl_partinfo_mark_meta_invalid(data.get(), 6), 1);
    EXPECT_EQ(std::memcmp(&pi, &want, sizeof pi), 0) << "only the mount point and fstype cleared";
    const auto *meta = reinterpret_cast<const std::uint8_t *>(&data->rec.pinfometa[6]);
    EXPECT_EQ(std::vector<std::uint8_t>(meta, meta + 64), std::vector<std::uint8_t>(64, 0));
    EXPECT_EQ(data->rec.pinfometa[7].hdr.body_length.get(), 0x77777777u); // neighbour untouched
}

TEST(KivlVersions, MinimumVersion) {
    zunf_release_header rh{};
    rh.release_version_major = 2;
    rh.release_version_minor = 1;
    rh.release_build_number = 7;
    zunf_software_header sw{};
    sw.sw_version_major = 2;
    sw.sw_version_minor = 1;
    sw.sw_build_number = 7;
    struct Case {
        std::uint32_t major, minor, build;
        int result;
    };
    const Case cases[] = {
        {2, 1, 7, 1},     {2, 1, 8, 0}, {1, 9, 999, 1}, {2, 2, 0, 0},
        {2, 0, 65535, 1}, {3, 0, 0, 0}, {0, 0, 0, 1},   {2, 1, 6, 1},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(kivl_check_minver(&rh, c.major, c.minor, c.build), c.result)
            << c.major << "." << c.minor << "." << c.build;
        EXPECT_EQ(kivl_check_minver(&sw, c.major, c.minor, c.build), c.result);
    }
    // The build number is a 16-bit field, compared unsigned.
    rh.release_build_number = 0xFFFF;
    EXPECT_EQ(kivl_check_minver(&rh, 2, 1, 0x8000), 1);
    EXPECT_EQ(kivl_check_minver(&rh, 2, 1, 0x10000), 0);
    rh.release_version_major = 200;
    EXPECT_EQ(kivl_check_minver(&rh, 100, 0, 0), 1);
}

TEST(KivlPools, GroupedInOrderOfFirstMention) {
    auto data = new_data();
    use_partition(*data, 0, "P1");
    use_partition(*data, 1, "P2");
    use_partition(*data, 2, "P1");
    use_partition(*data, 5, "P3");

    std::uint8_t items[20];
    EXPECT_EQ(kivl_partpool_items_count(data.get(), "P1"), -1); // not generated yet
    EXPECT_EQ(kivl_partpool_items(data.get(), "P1", items), -1);

    kivl_partpool_generate(data.get());
    EXPECT_STREQ(data->pools[2].name, "P3");

    struct Case {
        const char *pool;
        int count;
        std::vector<std::uint8_t> members;
    };
    const Case cases[] = {
        {"P1", 2, {0, 2}}, {"P2", 1, {1}}, {"P3", 1, {5}},
        {"P4", -1, {}},    {"P", -1, {}},  {"", 0, {}}, // an empty name finds the first free slot
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pool);
        EXPECT_EQ(kivl_partpool_items_count(data.get(), c.pool), c.count);
        std::memset(items, 0xEE, sizeof items);
        EXPECT_EQ(kivl_partpool_items(data.get(), c.pool, items), c.count);
        std::vector<std::uint8_t> expected = c.members;
        expected.resize(20, c.count < 0 ? 0xEE : 0);
        EXPECT_EQ(std::vector<std::uint8_t>(items, items + 20), expected);
    }
}

TEST(KivlPools, RegenerationForgetsOldPools) {
    auto data = new_data();
    use_partition(*data, 3, "old");
    kivl_partpool_generate(data.get());
    std::memset(data->rec.partinfo[3].poolname, 0, KIVL_POOLNAME_LEN);
    use_partition(*data, 4, "new");
    kivl_partpool_generate(data.get());
    EXPECT_EQ(kivl_partpool_items_count(data.get(), "old"), -1);
    EXPECT_EQ(kivl_partpool_items_count(data.get(), "new"), 1);
    EXPECT_EQ(data->pools_count, 1u);
}

TEST(KivlPools, TwentyPartitionsInOnePoolAndTwentyPools) {
    auto one = new_data();
    for (int i = 0; i < 20; ++i)
        use_partition(*one, i, "all");
    kivl_partpool_generate(one.get());
    std::uint8_t items[20];
    EXPECT_EQ(kivl_partpool_items(one.get(), "all", items), 20);
    EXPECT_EQ(items[19], 19);

    auto many = new_data();
    for (int i = 0; i < 20; ++i)
        use_partition(*many, i, cat("p", std::to_string(i)).c_str());
    kivl_partpool_generate(many.get());
    EXPECT_EQ(many->pools_count, 20u);
    EXPECT_EQ(kivl_partpool_items_count(many.get(), "p19"), 1);
    EXPECT_EQ(kivl_partpool_items_count(many.get(), ""), -1); // no free slot left
}

namespace {

// A release header part as it lies in an image: 76 header bytes, then the body text.
// `body_length` may be shorter than the text to show that the scan stops there.
std::vector<std::uint8_t> release_part(const std::string &text, std::uint32_t body_length) {
    std::vector<std::uint8_t> part(ZUNF_RELEASE_PART_HDR_LEN + text.size() + 1, 0);
    auto *hdr = reinterpret_cast<zunf_content_header *>(part.data());
    hdr->type_id = ZUNF_TYPE_RELEASE_HEADER;
    hdr->hdr_length = ZUNF_RELEASE_PART_HDR_LEN;
    hdr->body_length = body_length;
    std::memcpy(part.data() + ZUNF_RELEASE_PART_HDR_LEN, text.data(), text.size());
    return part;
}

} // namespace

TEST(KivlModel, ProductListMatching) {
    const std::string listed = "products=m1,m2\n";
    const std::string unterminated = "products=m1,m2";
    const std::string in_text = "Release 4.2\nfixes\nproducts=alpha,beta\nnotes=gamma,\n";
    struct Case {
        std::string text;
        std::uint32_t body_length; // 0: the text and its NUL
        const char *model;
        int result;
    };
    const Case cases[] = {
        {listed, 0, "m2", 1},
        {listed, 0, "m1", 1},
        {listed, 0, "m", 0},
        {listed, 0, "m12", 0},
        {listed, 0, "", 0},
        {unterminated, 0, "m2", 0}, // the last entry needs its newline
        {unterminated, 0, "m1", 1},
        // The newline lies past body_length and is never seen.
        {listed, static_cast<std::uint32_t>(listed.size() - 1), "m2", 0},
        {listed, static_cast<std::uint32_t>(listed.size() - 1), "m1", 1},
        {listed, 5, "m1", 0},
        {in_text, 0, "beta", 1},
        {in_text, 0, "alpha", 1},
        {in_text, 0, "gamma", 0}, // another line
        {"no list here\n", 0, "m1", 0},
        {"products=\n", 0, "m1", 0},
        {"products=", 0, "m1", 0},
        {"products=,m1\n", 0, "m1", 1},
        {"products=m1,,m2\n", 0, "m2", 1},
    };
    for (const Case &c : cases) {
        std::uint32_t len =
            c.body_length ? c.body_length : static_cast<std::uint32_t>(c.text.size() + 1);
        auto part = release_part(c.text, len);
        EXPECT_EQ(
            kivl_match_model(reinterpret_cast<const zunf_content_header *>(part.data()), c.model),
            c.result)
            << "'" << c.text << "' len " << len << " model " << c.model;
    }
}

TEST(KivlCsv, FieldSplitting) {
    struct Case {
        const char *src;
        int max;
        int count;
        std::vector<std::string> fields;
    };
    const Case cases[] = {
        {"a,b,", 8, 3, {"a", "b", ""}},
        {"a,b,c", 3, -1, {}},
        {"a,b,c", 4, 3, {"a", "b", "c"}},
        {"", 8, 0, {}},
        {"", 0, 0, {}},
        {"single", 2, 1, {"single"}},
        {"single", 1, -1, {}},
        {"a,b", 2, -1, {}},
        {",", 3, 2, {"", ""}},
        {",,x", 4, 3, {"", "", "x"}},
        {"12,7,3", 8, 3, {"12", "7", "3"}},
    };
    for (const Case &c : cases) {
        char buffer[64];
        std::memset(buffer, 'Z', sizeof buffer);
        char *fields[8] = {buffer};
        ASSERT_LE(c.max, 8);
        int n = kivl_parse_csv(c.src, fields, c.max);
        EXPECT_EQ(n, c.count) << c.src << " max " << c.max;
        EXPECT_EQ(fields[0], buffer);
        for (int i = 1; i <= n && i <= static_cast<int>(c.fields.size()); ++i)
            EXPECT_EQ(std::string(fields[i]), c.fields[static_cast<std::size_t>(i - 1)])
                << c.src << " field " << i;
    }
}
