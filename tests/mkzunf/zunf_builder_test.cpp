// The builder's images, read back by an independent decoder and by the product's
// validation: layout, CRC coverage and order, padding, and one defect per fault.
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

// The product's verdict on every part, walking the image as the hostconfig loader does.
std::vector<int> product_part_results(const Bytes &img, const decode::Image &d) {
    std::vector<int> r;
    for (const decode::Part &p : d.parts) {
        const zunf_content_header *h = part_at(img, p.offset);
        r.push_back(zunf_validate_content_part(h, img.data() + p.offset + h->hdr_length));
    }
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

    std::size_t expect_off = 24;
    for (const decode::Part &p : d.parts) {
        SCOPED_TRACE(p.name);
        EXPECT_EQ(p.offset, expect_off);
        EXPECT_EQ(p.offset % 4, 0u);
        EXPECT_TRUE(p.hdr_crc_ok);
        EXPECT_TRUE(p.body_crc_ok);
        EXPECT_EQ(p.padding, Bytes(p.padding.size(), 0));
        EXPECT_EQ((p.hdr_length + p.body_length + p.padding.size()) % 4, 0u);
        expect_off += p.hdr_length + p.body_length + p.padding.size();
    }
    EXPECT_EQ(expect_off, img.size()) << "the last part's padding ends the image";

    const decode::Part &rel = d.parts[0];
    EXPECT_EQ(rel.type_id, 1u);
    EXPECT_EQ(rel.hdr_length, 76u);
    ASSERT_EQ(rel.type_header.size(), 44u);
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
    EXPECT_EQ(root.hdr_length, 64u);
    EXPECT_EQ(root.body, content(13, 1));
    EXPECT_EQ(root.padding.size(), 3u);
    ASSERT_EQ(root.type_header.size(), 32u);
    EXPECT_EQ(root.type_header[0], 1);
    EXPECT_EQ(root.type_header[1], 2);
    EXPECT_EQ(decode::u16(root.type_header, 2), 3u);
    EXPECT_EQ(decode::text(root.type_header, 4, 28), "build-root");

    const decode::Part &empty = d.parts[4];
    EXPECT_EQ(empty.body_length, 0u);
    EXPECT_EQ(empty.body_crc, 0u) << "a CRC over no bytes is 0";

    EXPECT_EQ(zunf_validate_header(image_header(img)), ZUNF_VALID);
    EXPECT_EQ(zunf_validate_body(image_header(img), img.data() + 24), ZUNF_VALID);
    EXPECT_EQ(product_part_results(img, d), std::vector<int>(5, ZUNF_VALID));
}

TEST(ZunfBuilder, CrcsAreComputedInnermostFirst) {
    Bytes img = release_image().build();
    decode::Image d = decode::read(img);
    ASSERT_TRUE(d.well_formed);
    for (const decode::Part &p : d.parts) {
        // The header CRC covers the stored body CRC: recomputing it over the header with the
        // body CRC field replaced must give a different value.
        Bytes hdr(img.begin() + static_cast<std::ptrdiff_t>(p.offset + 4),
                  img.begin() + static_cast<std::ptrdiff_t>(p.offset + p.hdr_length));
        EXPECT_EQ(decode::crc32(hdr), p.hdr_crc);
        hdr[24] ^= 0xFF; // body_crc sits at part offset 28
        EXPECT_NE(decode::crc32(hdr), p.hdr_crc) << p.name;
    }
    // The image body CRC covers the finished part headers, CRCs included.
    Bytes body(img.begin() + 24, img.end());
    EXPECT_EQ(decode::crc32(body), d.body_crc);
    // The image header CRC covers body_length and body_crc.
    EXPECT_EQ(decode::crc32(std::span<const std::uint8_t>(img).subspan(12, 12)), d.hdr_crc);
}

TEST(ZunfBuilder, LongTextFieldsAreCutToTheirWidth) {
    ImageBuilder b;
    b.add_release_header({1, 0, 0}, 0, std::string(50, 'r'), "")
        .add_software("ABCDEFGHIJKLMNOPQRSTUVWXYZ", {1, 0, 0}, std::string(40, 's'), content(4, 0))
        .add_data("0123456789abcdef", content(1, 0));
    Bytes img = b.build();
    decode::Image d = decode::read(img);
    ASSERT_TRUE(d.well_formed);
    ASSERT_EQ(d.parts.size(), 3u);
    EXPECT_EQ(decode::text(d.parts[0].type_header, 8, 36), std::string(35, 'r'));
    EXPECT_EQ(d.parts[0].type_header[8 + 35], 0);
    EXPECT_EQ(str(d.parts[0].body), std::string(1, '\0'))
        << "an empty text is still NUL-terminated";
    EXPECT_EQ(d.parts[1].name, "ABCDEFGHIJKLMNO");
    EXPECT_EQ(d.parts[1].name_field[15], 0);
    EXPECT_EQ(decode::text(d.parts[1].type_header, 4, 28), std::string(27, 's'));
    EXPECT_EQ(d.parts[2].name, "0123456789abcde");
    for (const decode::Part &p : d.parts)
        EXPECT_TRUE(p.hdr_crc_ok && p.body_crc_ok) << p.name;
}

TEST(ZunfBuilder, RawPartKeepsTheGivenHeaderLength) {
    Bytes th = {1, 2, 3, 4, 5, 6, 7, 8};
    ImageBuilder b;
    b.add_raw_part(9, "vendor", 48, th, content(5, 3));
    Bytes img = b.build();
    decode::Image d = decode::read(img);
    ASSERT_TRUE(d.well_formed);
    ASSERT_EQ(d.parts.size(), 1u);
    EXPECT_EQ(d.parts[0].type_id, 9u);
    EXPECT_EQ(d.parts[0].hdr_length, 48u);
    Bytes expect_th = th;
    expect_th.resize(16, 0); // zero fill up to hdr_length
    EXPECT_EQ(d.parts[0].type_header, expect_th);
    EXPECT_EQ(d.parts[0].body, content(5, 3));
    EXPECT_EQ(product_part_results(img, d), std::vector<int>{ZUNF_VALID});
}

// Byte ranges of a clean image that a fault may change: the fault's own field and the
// outer CRCs computed over it.
struct Range {
    std::size_t from;
    std::size_t to;
};

struct FaultCase {
    const char *name;
    std::function<void(ImageBuilder &)> apply;
    std::function<std::vector<Range>(const decode::Image &clean)> may_differ;
    int header;             // zunf_validate_header
    int body;               // zunf_validate_body
    std::vector<int> parts; // zunf_validate_content_part per part
};

constexpr std::size_t IMG_HDR_CRC = 8;
constexpr std::size_t IMG_BODY_CRC = 20;

std::vector<Range> outer_crcs(std::vector<Range> r) {
    r.push_back({IMG_HDR_CRC, IMG_HDR_CRC + 4});
    r.push_back({IMG_BODY_CRC, IMG_BODY_CRC + 4});
    return r;
}

std::vector<int> valid_except(std::size_t index, int code) {
    std::vector<int> r(5, ZUNF_VALID);
    r[index] = code;
    return r;
}

TEST(ZunfBuilder, EachFaultIsTheOnlyDefect) {
    const std::vector<int> all_valid(5, ZUNF_VALID);
    const std::vector<FaultCase> cases = {
        {"first magic half", [](ImageBuilder &b) { b.fault_bad_magic(1); },
         [](const decode::Image &) {
             return std::vector<Range>{{0, 4}};
         },
         1, 1, all_valid},
        {"second magic half", [](ImageBuilder &b) { b.fault_bad_magic(2); },
         [](const decode::Image &) {
             return std::vector<Range>{{4, 8}};
         },
         1, 1, all_valid},
        {"version 2", [](ImageBuilder &b) { b.fault_version(2); },
         [](const decode::Image &) {
             return std::vector<Range>{{12, 13}, {8, 12}};
         },
         ZUNF_ERR_VERSION, 1, all_valid},
        {"image hdr_length 15", [](ImageBuilder &b) { b.fault_image_hdr_length(15); },
         [](const decode::Image &) {
             return std::vector<Range>{{14, 16}, {8, 12}};
         },
         ZUNF_ERR_HDR_LENGTH, 1, all_valid},
        {"image hdr_crc", [](ImageBuilder &b) { b.fault_image_hdr_crc(); },
         [](const decode::Image &) {
             return std::vector<Range>{{8, 12}};
         },
         ZUNF_ERR_HDR_CRC, 1, all_valid},
        {"image body_crc", [](ImageBuilder &b) { b.fault_image_body_crc(); },
         [](const decode::Image &) {
             return std::vector<Range>{{20, 24}, {8, 12}};
         },
         1, ZUNF_ERR_BODY_CRC, all_valid},
        {"part 1 hdr_crc", [](ImageBuilder &b) { b.fault_part_hdr_crc(1); },
         [](const decode::Image &c) {
             return outer_crcs({{c.parts[1].offset, c.parts[1].offset + 4}});
         },
         1, 1, valid_except(1, ZUNF_ERR_HDR_CRC)},
        {"part 2 body_crc", [](ImageBuilder &b) { b.fault_part_body_crc(2); },
         [](const decode::Image &c) {
             std::size_t o = c.parts[2].offset;
             return outer_crcs({{o + 28, o + 32}, {o, o + 4}});
         },
         1, 1, valid_except(2, ZUNF_ERR_BODY_CRC)},
        {"part 4 empty body_crc", [](ImageBuilder &b) { b.fault_part_body_crc(4); },
         [](const decode::Image &c) {
             std::size_t o = c.parts[4].offset;
             return outer_crcs({{o + 28, o + 32}, {o, o + 4}});
         },
         1, 1, valid_except(4, ZUNF_ERR_BODY_CRC)},
        {"part 3 hdr_length 31", [](ImageBuilder &b) { b.fault_part_hdr_length(3, 31); },
         [](const decode::Image &c) {
             std::size_t o = c.parts[3].offset;
             return outer_crcs({{o + 6, o + 8}, {o, o + 4}});
         },
         1, 1, valid_except(3, ZUNF_ERR_HDR_LENGTH)},
    };

    const Bytes clean = release_image().build();
    const decode::Image cd = decode::read(clean);
    ASSERT_EQ(cd.parts.size(), 5u);
    for (const FaultCase &c : cases) {
        SCOPED_TRACE(c.name);
        ImageBuilder b = release_image();
        c.apply(b);
        Bytes img = b.build();
        ASSERT_EQ(img.size(), clean.size());

        std::vector<Range> allowed = c.may_differ(cd);
        bool differs = false;
        for (std::size_t i = 0; i < img.size(); ++i) {
            bool in_allowed = false;
            for (const Range &r : allowed)
                in_allowed = in_allowed || (i >= r.from && i < r.to);
            if (img[i] != clean[i]) {
                differs = true;
                EXPECT_TRUE(in_allowed) << "unexpected change at offset " << i;
            }
        }
        EXPECT_TRUE(differs);
        // The first listed range is the fault's own field: it must have changed.
        const Range &own = allowed.front();
        EXPECT_FALSE(std::equal(img.begin() + static_cast<std::ptrdiff_t>(own.from),
                                img.begin() + static_cast<std::ptrdiff_t>(own.to),
                                clean.begin() + static_cast<std::ptrdiff_t>(own.from)));

        EXPECT_EQ(zunf_validate_header(image_header(img)), c.header);
        EXPECT_EQ(zunf_validate_body(image_header(img), img.data() + 24), c.body);
        std::vector<int> parts;
        for (const decode::Part &p : cd.parts) {
            const zunf_content_header *h = part_at(img, p.offset);
            parts.push_back(zunf_validate_content_part(h, img.data() + p.offset + p.hdr_length));
        }
        EXPECT_EQ(parts, c.parts);
    }
}

TEST(ZunfBuilder, TruncateAndAppendWorkOnTheFinishedImage) {
    const Bytes clean = release_image().build();
    Bytes cut = release_image().fault_truncate(100).build();
    EXPECT_EQ(cut, Bytes(clean.begin(), clean.begin() + 100));

    Bytes longer = release_image().fault_truncate(clean.size() + 10).build();
    EXPECT_EQ(longer, clean) << "truncating beyond the end changes nothing";

    Bytes garbage = {0xDE, 0xAD, 0xBE, 0xEF, 0x01};
    Bytes tail = release_image().fault_append(garbage).build();
    Bytes expect = clean;
    expect.insert(expect.end(), garbage.begin(), garbage.end());
    EXPECT_EQ(tail, expect);
}

TEST(ZunfBuilder, HostconfigImageHoldsDataPartsOnly) {
    Bytes kiv(2964, 0x5A);
    Bytes img = build_hostconfig({{"KIV data", kiv}, {"vendor", content(5, 2)}});
    decode::Image d = decode::read(img);
    ASSERT_TRUE(d.well_formed);
    EXPECT_EQ(img.size(), 24u + 32 + 2964 + 32 + 8);
    ASSERT_EQ(d.parts.size(), 2u);
    EXPECT_EQ(d.parts[0].name, "KIV data");
    EXPECT_EQ(d.parts[1].offset, 24u + 32 + 2964);
    for (const decode::Part &p : d.parts) {
        EXPECT_EQ(p.type_id, 3u);
        EXPECT_EQ(p.hdr_length, 32u);
    }
    EXPECT_EQ(d.parts[1].padding, Bytes(3, 0));
    EXPECT_EQ(zunf_validate_header(image_header(img)), ZUNF_VALID);
    EXPECT_EQ(product_part_results(img, d), std::vector<int>(2, ZUNF_VALID));

    ImageFaults f;
    f.part_body_crc = 0;
    Bytes bad = build_hostconfig({{"KIV data", kiv}}, f);
    EXPECT_EQ(zunf_validate_content_part(part_at(bad, 24), bad.data() + 56), ZUNF_ERR_BODY_CRC);
}

TEST(ZunfBuilder, SoftwareBlockDescribesTheContent) {
    Bytes c = content(10, 4);
    zunf_pinfometa m = make_software_block("ROOT-SAFE", {3, 4, 500}, "bid", c);
    Bytes block(zunf_bytes(&m), zunf_bytes(&m) + sizeof m);
    EXPECT_EQ(decode::u32(block, 4) & 0xFFFF, 4u);
    EXPECT_EQ(decode::u16(block, 6), 64u);
    EXPECT_EQ(decode::u32(block, 8), 10u);
    EXPECT_EQ(decode::text(block, 12, 16), "ROOT-SAFE");
    EXPECT_EQ(decode::u32(block, 28), decode::crc32(c));
    EXPECT_EQ(decode::u32(block, 0), decode::crc32(std::span(block).subspan(4)));
    EXPECT_EQ(block[32], 3);
    EXPECT_EQ(block[33], 4);
    EXPECT_EQ(decode::u16(block, 34), 500u);
    EXPECT_EQ(decode::text(block, 36, 28), "bid");
    EXPECT_EQ(zunf_validate_content_header(&m.hdr), ZUNF_VALID);
    EXPECT_EQ(zunf_validate_content_body(&m.hdr, c.data()), ZUNF_VALID);

    m.hdr.body_crc = 1;
    EXPECT_EQ(zunf_validate_content_header(&m.hdr), ZUNF_ERR_HDR_CRC);
    reseal_software_block(m);
    EXPECT_EQ(zunf_validate_content_header(&m.hdr), ZUNF_VALID);
    EXPECT_EQ(zunf_validate_content_body(&m.hdr, c.data()), ZUNF_ERR_BODY_CRC);
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

TEST(ZunfBuilder, PadToFillsWithErasedBytesAndNeverShrinks) {
    Bytes b = {1, 2, 3};
    pad_to(b, 6);
    EXPECT_EQ(b, (Bytes{1, 2, 3, 0xFF, 0xFF, 0xFF}));
    pad_to(b, 2);
    EXPECT_EQ(b.size(), 6u);
    pad_to(b, 7, 0);
    EXPECT_EQ(b.back(), 0);
}

TEST(ZunfBuilder, ParseVersion) {
    const std::pair<const char *, bool> cases[] = {
        {"2.1.7", true},    {"255.255.65535", true}, {"0.0.0", true},
        {"256.0.0", false}, {"1.256.0", false},      {"1.0.65536", false},
        {"1.2", false},     {"1.2.3.4", false},      {"a.b.c", false},
        {"", false},        {"1..3", false},         {"-1.0.0", false},
    };
    for (auto [text, ok] : cases) {
        Version v;
        EXPECT_EQ(parse_version(text, v), ok) << text;
    }
    Version v;
    ASSERT_TRUE(parse_version("3.4.500", v));
    EXPECT_EQ(v.major, 3);
    EXPECT_EQ(v.minor, 4);
    EXPECT_EQ(v.build, 500);
}

} // namespace
