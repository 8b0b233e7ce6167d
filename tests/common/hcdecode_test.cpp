// The decoder is the yardstick for the product's bytes, so it is checked against
// published CRC values and hand-laid bytes rather than against the product.
#include "common/hcdecode.hpp"

#include <gtest/gtest.h>

#include <cstring>

using namespace hcdecode;

namespace {
std::vector<std::uint8_t> bytes_of(const char *s) {
    return std::vector<std::uint8_t>(s, s + std::strlen(s));
}
} // namespace

TEST(HcDecodeCrc, KnownVectors) {
    EXPECT_EQ(crc32({}), 0u);
    EXPECT_EQ(crc32(bytes_of("123456789")), 0xCBF43926u);
    EXPECT_EQ(crc32(bytes_of("The quick brown fox jumps over the lazy dog")), 0x414FA339u);
}

TEST(HcDecodeImage, EncodedImageDecodesWithLayoutAndPadding) {
    auto img = encode_image({{"first", bytes_of("abcde")}, {"KIV data", {}}});
    // 24 + (32 + 5 + 3 padding) + 32
    ASSERT_EQ(img.size(), 24u + 40u + 32u);
    EXPECT_EQ(std::memcmp(img.data(), "FNUZZUNF", 8), 0);
    EXPECT_EQ(img[12], 1);
    EXPECT_EQ(get16(img, 14), 16);
    EXPECT_EQ(get32(img, 16), 72u);
    EXPECT_EQ(get16(img, 24 + 4), 3);
    EXPECT_EQ(get16(img, 24 + 6), 32);
    EXPECT_EQ(get32(img, 24 + 8), 5u);
    EXPECT_EQ(get32(img, 24 + 28), crc32(bytes_of("abcde")));
    EXPECT_EQ(get32(img, 8), crc32(std::span(img).subspan(12, 12)));

    Image d = decode_image(img);
    ASSERT_TRUE(d.ok) << d.error;
    ASSERT_EQ(d.parts.size(), 2u);
    EXPECT_EQ(d.parts[0].offset, 24u);
    EXPECT_EQ(d.parts[0].padding, std::vector<std::uint8_t>(3, 0));
    EXPECT_EQ(d.parts[1].offset, 64u);
    EXPECT_EQ(d.names(), (std::vector<std::string>{"first", "KIV data"}));
    EXPECT_EQ(d.size, img.size());
}

TEST(HcDecodeImage, TrailingBytesAreIgnored) {
    auto img = encode_image({{"x", {1, 2, 3, 4}}});
    img.resize(5120, 0xFF);
    Image d = decode_image(img);
    EXPECT_TRUE(d.ok) << d.error;
    EXPECT_EQ(d.size, 24u + 36u);
}

TEST(HcDecodeImage, EveryFaultIsNamed) {
    struct Case {
        const char *what;
        std::size_t offset;
        std::uint8_t value;
        bool refresh;
        const char *error_prefix;
    };
    const Case cases[] = {
        {"magic", 0, 'X', false, "bad magic"},
        {"version", 12, 2, true, "version 2"},
        {"image header crc", 8, 0, false, "image hdr_crc"},
        {"padding byte", 24 + 32 + 5, 1, false, "image body_crc"},
        {"part body byte", 24 + 32, 'z', false, "image body_crc"},
        {"part name", 24 + 12, 'g', false, "image body_crc"},
    };
    for (const Case &c : cases) {
        auto img = encode_image({{"first", bytes_of("abcde")}});
        img[c.offset] = c.value;
        if (c.refresh) refresh_crcs(img);
        Image d = decode_image(img);
        EXPECT_FALSE(d.ok) << c.what;
        EXPECT_EQ(d.error.rfind(c.error_prefix, 0), 0u) << c.what << ": " << d.error;
    }
    // With the image CRCs refreshed after a body change, the part's own CRC still fails.
    auto img = encode_image({{"first", bytes_of("abcde")}});
    img[24 + 32] = 'z';
    {
        // refresh_crcs would fix the part too, so only the image CRCs are recomputed.
        std::vector<std::uint8_t> copy = img;
        std::uint32_t body = crc32(std::span(copy).subspan(24, copy.size() - 24));
        for (int i = 0; i < 4; ++i)
            copy[20 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(body >> (8 * i));
        std::uint32_t hdr = crc32(std::span(copy).subspan(12, 12));
        for (int i = 0; i < 4; ++i)
            copy[8 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(hdr >> (8 * i));
        Image d = decode_image(copy);
        EXPECT_FALSE(d.ok);
        EXPECT_EQ(d.error, "part 0 'first': body_crc");
    }
}

TEST(HcDecodeImage, LengthsPastTheBytesAreReportedNotRead) {
    auto img = encode_image({{"first", bytes_of("abcde")}});
    img[16] = 0xFF;    // body_length far beyond the buffer
    refresh_crcs(img); // cannot walk it; header CRC stays stale
    Image d = decode_image(img);
    EXPECT_FALSE(d.ok);
    EXPECT_FALSE(d.body_crc_ok);
    EXPECT_TRUE(d.parts.empty());
}

TEST(HcDecodeRecord, RoundTripsEveryField) {
    Record r;
    r.actset = 2;
    r.sets[0].name = "SAFESET";
    r.sets[0].bootable = 1;
    r.sets[0].raw_refs.fill(-1);
    r.sets[0].raw_refs[0] = 0;
    r.sets[0].raw_refs[1] = 5;
    r.partinfo[5] = {"rootfs", 7, 0x100000, 0x200000, "/mnt/root", "squashfs"};
    r.rhdr[2] = {3, 4, 500, 86400, "build-42"};
    r.pinfometa[5] = {1, 4, 64, 1234, "rootfs.img", 0xDEADBEEF, 1, 2, 3, "sw-id"};
    auto bytes = encode_record(r);
    ASSERT_EQ(bytes.size(), RECORD_SIZE);
    // Spot checks at literal offsets.
    EXPECT_EQ(bytes[0], 2);
    EXPECT_EQ(bytes[1], 1);
    EXPECT_EQ(std::memcmp(&bytes[2], "SAFESET", 8), 0);
    EXPECT_EQ(bytes[17], 0);
    EXPECT_EQ(bytes[18], 5);
    EXPECT_EQ(bytes[19], 0xFF);
    EXPECT_EQ(std::memcmp(&bytes[112 + 72 * 5], "rootfs", 7), 0);
    EXPECT_EQ(bytes[112 + 72 * 5 + 16], 7);
    EXPECT_EQ(get32(bytes, 112 + 72 * 5 + 20), 0x100000u);
    EXPECT_EQ(get16(bytes, 1552 + 88 + 2), 500);
    EXPECT_EQ(get32(bytes, 1684 + 64 * 5 + 28), 0xDEADBEEFu);

    auto back = decode_record(bytes);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->actset, 2);
    EXPECT_EQ(back->sets[0].name, "SAFESET");
    EXPECT_EQ(back->sets[0].refs, (std::vector<int>{0, 5}));
    EXPECT_EQ(back->partinfo[5].mountpnt, "/mnt/root");
    EXPECT_EQ(back->partinfo[5].fstype, "squashfs");
    EXPECT_EQ(back->rhdr[2].build_id, "build-42");
    EXPECT_EQ(back->pinfometa[5].name, "rootfs.img");
    EXPECT_EQ(back->pinfometa[5].sw_build, 3);
    EXPECT_EQ(encode_record(*back), bytes);

    EXPECT_FALSE(decode_record(std::span(bytes).first(RECORD_SIZE - 1)));
    auto img = encode_image({{"KIV data", bytes}});
    EXPECT_EQ(img.size(), 3020u);
    auto rec = decode_kiv_data(std::span<const std::uint8_t>(img));
    ASSERT_TRUE(rec);
    EXPECT_EQ(rec->pinfometa[5].body_crc, 0xDEADBEEFu);
}

TEST(HcDecodeState, ComplementedBytesAtTheEndOfTheFirst128K) {
    std::vector<std::uint8_t> dev(131072, 0xFF);
    dev[131070] = 0xFE;
    dev[131071] = 0xFC;
    EXPECT_EQ(state_byte(dev, 1), 1);
    EXPECT_EQ(state_byte(dev, 2), 3);
    EXPECT_EQ(decode_state(*state_byte(dev, 1)), 1);
    EXPECT_EQ(decode_state(*state_byte(dev, 2)), 2);
    EXPECT_EQ(decode_state(0), 0);
    EXPECT_EQ(decode_state(2), 0);
    EXPECT_FALSE(state_byte(dev, 0));
    EXPECT_FALSE(state_byte(std::span(dev).first(131071), 2));
}
