// The decoder is the yardstick for the product's bytes, so it is checked against
// published CRC values and hand-laid offsets rather than against the product.
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

TEST(HcDecodeImage, EncodedLayoutDecodesAndIgnoresTrailingBytes) {
    auto img = encode_image({{"first", bytes_of("abcde")}, {"KIV data", {}}});
    // 24 + (32 + 5 + 3 padding) + 32
    ASSERT_EQ(img.size(), 24u + 40u + 32u);
    EXPECT_EQ(std::memcmp(img.data(), "FNUZZUNF", 8), 0);
    EXPECT_EQ(get32(img, 12), 1u | 16u << 16); // version 1, reserved 0, hdr_length 16
    EXPECT_EQ(get32(img, 16), 72u);
    EXPECT_EQ(get32(img, 8), crc32(std::span(img).subspan(12, 12)));
    EXPECT_EQ(get32(img, 24 + 4), 3u | 32u << 16); // type_id 3, hdr_length 32
    EXPECT_EQ(get32(img, 24 + 8), 5u);
    EXPECT_EQ(get32(img, 24 + 28), crc32(bytes_of("abcde")));
    EXPECT_EQ(get32(img, 24 + 32 + 4), std::uint32_t{'e'}) << "'e', then zero padding";
    EXPECT_EQ(std::memcmp(&img[64 + 12], "KIV data", 9), 0);

    img.resize(5120, 0xFF);
    Image d = decode_image(img);
    ASSERT_TRUE(d.ok) << d.error;
    EXPECT_EQ(d.size, 24u + 40u + 32u);
    EXPECT_EQ(d.names(), (std::vector<std::string>{"first", "KIV data"}));
    EXPECT_EQ(d.find("first")->body, bytes_of("abcde"));
}

TEST(HcDecodeImage, EveryFaultIsNamed) {
    enum Refresh { NONE, IMAGE, ALL };
    struct Case {
        std::size_t offset;
        std::uint8_t value;
        Refresh refresh;
        const char *error_prefix;
    };
    const Case cases[] = {
        {0, 'X', NONE, "bad magic"},
        {12, 2, ALL, "version 2"},
        {8, 0, NONE, "image hdr_crc"},
        {24 + 32 + 5, 1, NONE, "image body_crc"}, // a padding byte
        {24 + 32, 'z', NONE, "image body_crc"},
        {24 + 32, 'z', IMAGE, "part 0 'first': body_crc"},
        {24 + 12, 'g', IMAGE, "part 0 'girst': hdr_crc"},
        {24 + 6, 28, ALL, "part 0 'first': hdr_length 28"},
        {16, 37, ALL, "part 0 'first': padding runs past"},
        {24 + 8, 9, ALL, "part 0 'first': runs past the image body"},
        {16, 0xFF, ALL, "image runs past the bytes given"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.error_prefix);
        auto img = encode_image({{"first", bytes_of("abcde")}});
        img[c.offset] = c.value;
        if (c.refresh != NONE) refresh_crcs(img, c.refresh == ALL);
        Image d = decode_image(img);
        EXPECT_FALSE(d.ok);
        EXPECT_EQ(d.error.rfind(c.error_prefix, 0), 0u) << d.error;
    }
}

TEST(HcDecodeRecord, RoundTripsEveryFieldAtItsOffset) {
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
    EXPECT_EQ(get32(bytes, 0), 2u | 1u << 8 | std::uint32_t{'S'} << 16 | std::uint32_t{'A'} << 24);
    EXPECT_EQ(get32(bytes, 16), 0xFF050000u); // the name's NUL, then refs 0, 5, -1
    EXPECT_EQ(std::memcmp(&bytes[112 + 72 * 5], "rootfs", 7), 0);
    EXPECT_EQ(bytes[112 + 72 * 5 + 16], 7);
    EXPECT_EQ(get32(bytes, 112 + 72 * 5 + 20), 0x100000u);
    EXPECT_EQ(get32(bytes, 1552 + 88), 3u | 4u << 8 | 500u << 16);
    EXPECT_EQ(get32(bytes, 1684 + 64 * 5 + 28), 0xDEADBEEFu);

    auto back = decode_record(bytes);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->sets[0].refs, (std::vector<int>{0, 5}));
    EXPECT_EQ(back->partinfo[5].fstype, "squashfs");
    EXPECT_EQ(back->pinfometa[5].sw_build_id, "sw-id");
    EXPECT_EQ(encode_record(*back), bytes);
    EXPECT_FALSE(decode_record(std::span(bytes).first(RECORD_SIZE - 1)));

    auto img = encode_image({{"KIV data", bytes}});
    EXPECT_EQ(img.size(), 3020u);
    auto rec = decode_kiv_data(std::span<const std::uint8_t>(img));
    ASSERT_TRUE(rec);
    EXPECT_EQ(rec->rhdr[2].build_id, "build-42");
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
