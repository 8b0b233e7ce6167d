// The builder's images, read back by an independent decoder and by the product's
// validation: layout, CRCs, padding, and one defect per fault.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "mkzunf/image_decode.hpp"
#include "mkzunf/zunf_builder.hpp"
#include "zunf/zunf_validate.hpp"

using namespace mkzunf;

namespace {

const std::string RELEASE_TEXT = "Release 2.1.7\nproducts=m1,m2\n";
const std::string KIVM_TEXT = "2,ROOT,0,/,squashfs,-,1.2.3,1\n3,APPL,0,/mnt/appl,jffs2,-,1.2.3,3\n";
constexpr std::uint32_t RELEASE_DATE = 1714564800; // 2024-05-01T12:00:00Z

Bytes content(std::size_t n, std::uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i)
        b[i] = static_cast<std::uint8_t>(seed + i * 7);
    return b;
}

// Release header, metadata, two contents of odd lengths and one empty part, so that
// every padding length 0..3 occurs somewhere.
ImageBuilder release_image() {
    ImageBuilder b;
    b.add_release_header({2, 1, 7}, RELEASE_DATE, "REL-2.1.7", RELEASE_TEXT)
        .add_kivm(KIVM_TEXT)
        .add_software("ROOT", {1, 2, 3}, "build-root", content(13, 1))
        .add_software("APPL", {1, 2, 4}, "build-appl", content(6, 9))
        .add_data("empty", {});
    return b;
}

const zunf_image_header *image_header(const Bytes &img) {
    return reinterpret_cast<const zunf_image_header *>(img.data() + ZUNF_MAGIC_LEN);
}

const zunf_content_header *part_at(const Bytes &img, std::size_t off) {
    return reinterpret_cast<const zunf_content_header *>(img.data() + off);
}

// The product's verdict on the image header, the image body and each part, the parts found
// at the offsets the decoder read from a clean image.
std::vector<int> product_results(const Bytes &img, const decode::Image &at) {
    std::vector<int> r = {zunf_validate_header(image_header(img)),
                          zunf_validate_body(image_header(img), img.data() + 24)};
    for (const decode::Part &p : at.parts)
        r.push_back(zunf_validate_content_part(part_at(img, p.offset),
                                               img.data() + p.offset + p.hdr_length));
    return r;
}

std::string str(const Bytes &b) {
    return std::string(b.begin(), b.end());
}

TEST(ZunfBuilder, ReleaseImageLayoutReadsBackIndependently) {
    Bytes img = release_image().build();
    decode::Image d = decode::read(img);

    EXPECT_EQ(d.magic, "FNUZZUNF");
    EXPECT_EQ(d.version, 1u);
    EXPECT_EQ(d.reserved, 0u);
    EXPECT_EQ(d.hdr_length, 16u);
    EXPECT_EQ(d.body_length, img.size() - 24);
    EXPECT_TRUE(d.hdr_crc_ok);
    EXPECT_TRUE(d.body_crc_ok);
    ASSERT_TRUE(d.well_formed);
    ASSERT_EQ(d.parts.size(), 5u);
    // Every stored CRC matching its bytes also proves the order: innermost first.
    for (const decode::Part &p : d.parts) {
        SCOPED_TRACE(p.name);
        EXPECT_EQ(p.offset % 4, 0u);
        EXPECT_TRUE(p.hdr_crc_ok);
        EXPECT_TRUE(p.body_crc_ok);
        EXPECT_EQ(p.padding, Bytes(p.padding.size(), 0));
    }

    const decode::Part &rel = d.parts[0];
    EXPECT_EQ(rel.type_id, 1u);
    ASSERT_EQ(rel.hdr_length, 76u);
    EXPECT_EQ(rel.type_header[0], 2);
    EXPECT_EQ(rel.type_header[1], 1);
    EXPECT_EQ(decode::u16(rel.type_header, 2), 7u);
    EXPECT_EQ(decode::u32(rel.type_header, 4), RELEASE_DATE);
    EXPECT_EQ(decode::text(rel.type_header, 8, 36), "REL-2.1.7");
    EXPECT_EQ(str(rel.body), RELEASE_TEXT + '\0');

    const decode::Part &kivm = d.parts[1];
    EXPECT_EQ(kivm.name, "kivm");
    EXPECT_EQ(kivm.type_id, 3u);
    EXPECT_EQ(kivm.hdr_length, 32u);
    EXPECT_EQ(str(kivm.body), KIVM_TEXT + '\0');

    const decode::Part &root = d.parts[2];
    EXPECT_EQ(root.name, "ROOT");
    EXPECT_EQ(root.type_id, 4u);
    ASSERT_EQ(root.hdr_length, 64u);
    EXPECT_EQ(root.body, content(13, 1));
    EXPECT_EQ(root.padding.size(), 3u);
    EXPECT_EQ(root.type_header[0], 1);
    EXPECT_EQ(root.type_header[1], 2);
    EXPECT_EQ(decode::u16(root.type_header, 2), 3u);
    EXPECT_EQ(decode::text(root.type_header, 4, 28), "build-root");

    EXPECT_EQ(d.parts[4].body_length, 0u);
    EXPECT_EQ(d.parts[4].body_crc, 0u) << "a CRC over no bytes is 0";
    EXPECT_EQ(product_results(img, d), std::vector<int>(7, ZUNF_VALID));
}

TEST(ZunfBuilder, LongTextFieldsAreCutToTheirWidth) {
    ImageBuilder b;
    b.add_release_header({1, 0, 0}, 0, std::string(50, 'r'), "")
        .add_software("ABCDEFGHIJKLMNOPQRSTUVWXYZ", {1, 0, 0}, std::string(40, 's'), content(4, 0))
        .add_data("0123456789abcdef", content(1, 0));
    decode::Image d = decode::read(b.build());
    ASSERT_EQ(d.parts.size(), 3u);
    EXPECT_EQ(decode::text(d.parts[0].type_header, 8, 36), std::string(35, 'r'));
    EXPECT_EQ(str(d.parts[0].body), std::string(1, '\0')) << "an empty text ends with its NUL";
    EXPECT_EQ(d.parts[1].name, "ABCDEFGHIJKLMNO");
    EXPECT_EQ(decode::text(d.parts[1].type_header, 4, 28), std::string(27, 's'));
    EXPECT_EQ(d.parts[2].name, "0123456789abcde");
    for (const decode::Part &p : d.parts)
        EXPECT_TRUE(p.hdr_crc_ok && p.body_crc_ok) << p.name;
}

TEST(ZunfBuilder, RawPartKeepsTheGivenHeaderLength) {
    ImageBuilder b;
    b.add_raw_part(9, "vendor", 48, Bytes{1, 2, 3, 4, 5, 6, 7, 8}, content(5, 3));
    Bytes img = b.build();
    decode::Image d = decode::read(img);
    ASSERT_EQ(d.parts.size(), 1u);
    EXPECT_EQ(d.parts[0].type_id, 9u);
    EXPECT_EQ(d.parts[0].hdr_length, 48u);
    EXPECT_EQ(d.parts[0].type_header, (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(d.parts[0].body, content(5, 3));
    EXPECT_EQ(product_results(img, d), std::vector<int>(3, ZUNF_VALID));
}

// Each fault changes its own field, and no bytes but that field and the CRCs (which the
// product's verdicts then show to be right for everything else).
TEST(ZunfBuilder, EachFaultIsTheOnlyDefect) {
    struct Case {
        const char *name;
        std::function<void(ImageBuilder &)> apply;
        int part;         // -1: the field is in the image header
        std::size_t from; // the field, from the start of the image or of the part
        std::size_t to;
        std::vector<int> results; // image header, image body, then each part
    };
    const std::vector<int> valid(7, ZUNF_VALID);
    auto all_valid_but = [](std::size_t index, int code) {
        std::vector<int> r(7, ZUNF_VALID);
        r[index] = code;
        return r;
    };
    const Case cases[] = {
        {"first magic half", [](ImageBuilder &b) { b.fault_bad_magic(1); }, -1, 0, 4, valid},
        {"second magic half", [](ImageBuilder &b) { b.fault_bad_magic(2); }, -1, 4, 8, valid},
        {"version 2", [](ImageBuilder &b) { b.fault_version(2); }, -1, 12, 13,
         all_valid_but(0, ZUNF_ERR_VERSION)},
        {"image hdr_length 15", [](ImageBuilder &b) { b.fault_image_hdr_length(15); }, -1, 14, 16,
         all_valid_but(0, ZUNF_ERR_HDR_LENGTH)},
        {"image hdr_crc", [](ImageBuilder &b) { b.fault_image_hdr_crc(); }, -1, 8, 12,
         all_valid_but(0, ZUNF_ERR_HDR_CRC)},
        {"image body_crc", [](ImageBuilder &b) { b.fault_image_body_crc(); }, -1, 20, 24,
         all_valid_but(1, ZUNF_ERR_BODY_CRC)},
        {"part 1 hdr_crc", [](ImageBuilder &b) { b.fault_part_hdr_crc(1); }, 1, 0, 4,
         all_valid_but(3, ZUNF_ERR_HDR_CRC)},
        {"part 2 body_crc", [](ImageBuilder &b) { b.fault_part_body_crc(2); }, 2, 28, 32,
         all_valid_but(4, ZUNF_ERR_BODY_CRC)},
        {"part 4 empty body_crc", [](ImageBuilder &b) { b.fault_part_body_crc(4); }, 4, 28, 32,
         all_valid_but(6, ZUNF_ERR_BODY_CRC)},
        {"part 3 hdr_length 31", [](ImageBuilder &b) { b.fault_part_hdr_length(3, 31); }, 3, 6, 8,
         all_valid_but(5, ZUNF_ERR_HDR_LENGTH)},
    };
    const Bytes clean = release_image().build();
    const decode::Image cd = decode::read(clean);
    ASSERT_EQ(cd.parts.size(), 5u);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ImageBuilder b = release_image();
        c.apply(b);
        Bytes img = b.build();
        ASSERT_EQ(img.size(), clean.size());
        const std::size_t base = c.part < 0 ? 0 : cd.parts[static_cast<std::size_t>(c.part)].offset;
        auto in = [](std::size_t i, std::size_t from, std::size_t to) {
            return i >= from && i < to;
        };
        bool own_changed = false;
        for (std::size_t i = 0; i < img.size(); ++i) {
            if (img[i] == clean[i]) continue;
            bool own = in(i, base + c.from, base + c.to);
            own_changed = own_changed || own;
            bool crc = in(i, 8, 12) || in(i, 20, 24) || (c.part >= 0 && in(i, base, base + 4));
            EXPECT_TRUE(own || crc) << "unexpected change at offset " << i;
        }
        EXPECT_TRUE(own_changed);
        EXPECT_EQ(product_results(img, cd), c.results);
    }
}

TEST(ZunfBuilder, TruncateAndAppendWorkOnTheFinishedImage) {
    const Bytes clean = release_image().build();
    EXPECT_EQ(release_image().fault_truncate(100).build(),
              Bytes(clean.begin(), clean.begin() + 100));
    EXPECT_EQ(release_image().fault_truncate(clean.size() + 10).build(), clean);
    Bytes expect = clean;
    expect.insert(expect.end(), {0xDE, 0xAD, 0xBE, 0xEF, 0x01});
    EXPECT_EQ(release_image().fault_append(Bytes{0xDE, 0xAD, 0xBE, 0xEF, 0x01}).build(), expect);
}

TEST(ZunfBuilder, HostconfigImageHoldsDataPartsOnly) {
    Bytes kiv(2964, 0x5A);
    Bytes img = build_hostconfig({{"KIV data", kiv}, {"vendor", content(5, 2)}});
    decode::Image d = decode::read(img);
    EXPECT_EQ(img.size(), 24u + 32 + 2964 + 32 + 8);
    ASSERT_EQ(d.parts.size(), 2u);
    EXPECT_EQ(d.parts[0].name, "KIV data");
    EXPECT_EQ(d.parts[0].body, kiv);
    EXPECT_EQ(d.parts[1].name, "vendor");
    for (const decode::Part &p : d.parts) {
        EXPECT_EQ(p.type_id, 3u);
        EXPECT_EQ(p.hdr_length, 32u);
    }
    EXPECT_EQ(product_results(img, d), std::vector<int>(4, ZUNF_VALID));

    ImageFaults f;
    f.part_body_crc = 0;
    Bytes bad = build_hostconfig({{"KIV data", kiv}}, f);
    EXPECT_EQ(zunf_validate_content_part(part_at(bad, 24), bad.data() + 56), ZUNF_ERR_BODY_CRC);
}

TEST(ZunfBuilder, SoftwareBlockDescribesTheContent) {
    Bytes c = content(10, 4);
    zunf_pinfometa m = make_software_block("ROOT-SAFE", {3, 4, 500}, "bid", c);
    Bytes block(zunf_bytes(&m), zunf_bytes(&m) + sizeof m);
    EXPECT_EQ(decode::u16(block, 4), 4u);
    EXPECT_EQ(decode::u16(block, 6), 64u);
    EXPECT_EQ(decode::u32(block, 8), 10u);
    EXPECT_EQ(decode::text(block, 12, 16), "ROOT-SAFE");
    EXPECT_EQ(decode::u32(block, 28), decode::crc32(c));
    EXPECT_EQ(decode::u32(block, 0), decode::crc32(std::span(block).subspan(4)));
    EXPECT_EQ(block[32], 3);
    EXPECT_EQ(block[33], 4);
    EXPECT_EQ(decode::u16(block, 34), 500u);
    EXPECT_EQ(decode::text(block, 36, 28), "bid");
}

TEST(ZunfBuilder, PartitionLayoutsFollowTheWriteType) {
    struct Case {
        std::size_t len;
        int wts;
        std::size_t block_at; // SIZE_MAX: no block
        std::size_t content_at;
        std::size_t size;
    };
    const Case cases[] = {
        {10, 1, SIZE_MAX, 0, 10}, {10, 2, 0, 64, 74},
        {10, 3, 12, 0, 76}, // 10 content bytes, a 2-byte gap, the block
        {12, 3, 12, 0, 76}, // already aligned: no gap
        {0, 3, 0, 0, 64},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "wts " << c.wts << " len " << c.len);
        Bytes data = content(c.len, 7);
        Bytes part = build_partition(c.wts, "APPL-SAFE", {1, 2, 3}, "id", data, 0xAA);
        ASSERT_EQ(part.size(), c.size);
        EXPECT_TRUE(std::equal(data.begin(), data.end(),
                               part.begin() + static_cast<std::ptrdiff_t>(c.content_at)));
        if (c.block_at == SIZE_MAX) continue;
        for (std::size_t i = c.len; i < c.block_at && c.wts == 3; ++i)
            EXPECT_EQ(part[i], 0xAA) << "gap byte " << i;
        const auto *blk = part_at(part, c.block_at);
        EXPECT_EQ(decode::text(part, c.block_at + 12, 16), "APPL-SAFE");
        EXPECT_EQ(zunf_validate_content_header(blk), ZUNF_VALID);
        EXPECT_EQ(zunf_validate_content_body(blk, part.data() + c.content_at), ZUNF_VALID);
    }
    EXPECT_TRUE(build_partition(4, "X", {}, "", content(4, 0)).empty());
}

TEST(ZunfBuilder, ParseVersion) {
    const std::pair<const char *, bool> cases[] = {
        {"255.255.65535", true}, {"0.0.0", true},    {"256.0.0", false}, {"1.256.0", false},
        {"1.0.65536", false},    {"1.2.3.4", false}, {"a.b.c", false},   {"", false},
        {"1..3", false},         {"-1.0.0", false},
    };
    for (auto [text, ok] : cases) {
        Version v;
        EXPECT_EQ(parse_version(text, v), ok) << text;
    }
}

} // namespace
