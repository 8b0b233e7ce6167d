// Building, finding, saving and loading hostconfig images through the handle. Images
// on disk are checked and crafted with the independent decoder, never with the
// product's own layout code.
#include "hostconfig/hostconfig.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/hcdecode.hpp"
#include "common/temp_dir.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

// The handle is 5 KiB; tests keep it on the heap like an action keeps it on its stack.
std::unique_ptr<hostconfig> new_handle(std::uint32_t capacity = HOSTCONFIG_MAX_SIZE) {
    auto hc = std::make_unique<hostconfig>();
    EXPECT_EQ(hostconfig_new(hc.get(), capacity), 1);
    return hc;
}

Bytes pattern(std::size_t n, std::uint8_t seed = 1) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i)
        b[i] = static_cast<std::uint8_t>(seed + i * 7);
    return b;
}

std::size_t offset_of(const hostconfig *hc, int part) {
    return static_cast<std::size_t>(reinterpret_cast<const std::uint8_t *>(hc->parts[part]) -
                                    hc->image);
}

} // namespace

TEST(HostconfigNew, CapacityLimits) {
    auto hc = std::make_unique<hostconfig>();
    std::memset(static_cast<void *>(hc.get()), 0xAB, sizeof *hc);
    EXPECT_EQ(hostconfig_new(hc.get(), HOSTCONFIG_MAX_SIZE + 1), 0);
    EXPECT_EQ(hc->hdr, nullptr);
    EXPECT_EQ(hc->capacity, 0u);
    EXPECT_EQ(hc->used, 0u);
    EXPECT_EQ(hc->image[100], 0);

    EXPECT_EQ(hostconfig_new(hc.get(), HOSTCONFIG_MAX_SIZE), 1);
    EXPECT_EQ(reinterpret_cast<std::uint8_t *>(hc->hdr), hc->image + 8);
    EXPECT_EQ(hc->capacity, HOSTCONFIG_MAX_SIZE);
    EXPECT_EQ(hc->count, 0);
    EXPECT_EQ(hc->used, 24u);
}

TEST(HostconfigAdd, BodiesArePaddedToFourBytes) {
    struct Case {
        std::uint32_t body;
        std::uint32_t next_part_at;
    };
    const Case cases[] = {{0, 24 + 32}, {1, 24 + 36}, {4, 24 + 36}, {5, 24 + 40}, {8, 24 + 40}};
    for (const Case &c : cases) {
        auto hc = new_handle();
        Bytes body = pattern(c.body);
        ASSERT_EQ(hostconfig_add_body(hc.get(), body.data(), c.body, "first"), 1);
        ASSERT_EQ(hostconfig_add_body(hc.get(), "x", 1, "second"), 1);
        EXPECT_EQ(offset_of(hc.get(), 0), 24u);
        EXPECT_EQ(offset_of(hc.get(), 1), c.next_part_at) << "body " << c.body;
        for (std::size_t i = 24 + 32 + c.body; i < c.next_part_at; ++i)
            EXPECT_EQ(hc->image[i], 0) << "padding byte " << i;
    }
}

TEST(HostconfigAdd, NewPartHeader) {
    auto hc = new_handle();
    Bytes body = pattern(5);
    ASSERT_EQ(hostconfig_add_body(hc.get(), body.data(), 5, "abcdefghijklmnopqrst"), 1);
    std::span<const std::uint8_t> img(hc->image, HOSTCONFIG_MAX_SIZE);
    EXPECT_EQ(hcdecode::get16(img, 24 + 4), 3);
    EXPECT_EQ(hcdecode::get16(img, 24 + 6), 32);
    EXPECT_EQ(hcdecode::get32(img, 24 + 8), 5u);
    // 20 characters are stored as 15 and a NUL.
    EXPECT_EQ(hcdecode::get_text(img, 24 + 12, 16), "abcdefghijklmno");
    EXPECT_EQ(img[24 + 12 + 15], 0);
    EXPECT_EQ(hcdecode::get32(img, 24), 0u); // CRCs are left for the save
    EXPECT_EQ(hcdecode::get32(img, 24 + 28), 0u);
    EXPECT_EQ(Bytes(img.begin() + 56, img.begin() + 61), body);
    EXPECT_EQ(hc->used, 64u);
    EXPECT_EQ(hc->count, 1);
}

TEST(HostconfigAdd, TableHoldsTwentyParts) {
    auto hc = new_handle();
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(hostconfig_add_body(hc.get(), "abcd", 4, "p"), 1) << i;
    std::uint32_t used = hc->used;
    EXPECT_LT(used + 36, hc->capacity); // bytes remain, only the table is full
    EXPECT_EQ(hostconfig_add_body(hc.get(), "abcd", 4, "p"), -1);
    EXPECT_EQ(hostconfig_add(hc.get(), hc->parts[0]), -1);
    EXPECT_EQ(hc->count, 20);
    EXPECT_EQ(hc->used, used);
}

TEST(HostconfigAdd, CapacityIsAHardLimit) {
    struct Case {
        std::uint32_t capacity;
        std::uint32_t length;
        int result;
    };
    const Case cases[] = {
        {5120, 5120 - 24 - 32, 1},  // ends exactly at capacity
        {5120, 5120 - 24 - 31, -1}, // one byte too many
        {1000, 1000 - 24 - 32, 1},
        {1000, 1000 - 24 - 31, -1},
        {24, 0, -1}, // room for no header at all
    };
    for (const Case &c : cases) {
        auto hc = new_handle(c.capacity);
        Bytes body = pattern(c.length);
        EXPECT_EQ(hostconfig_add_body(hc.get(), body.data(), c.length, "big"), c.result)
            << c.capacity << "/" << c.length;
        EXPECT_EQ(hc->used, c.result == 1 ? c.capacity : 24u);
        EXPECT_EQ(hc->count, c.result == 1 ? 1 : 0);
    }
}

TEST(HostconfigAdd, CopyOfAnExistingPart) {
    auto src = new_handle();
    Bytes body = pattern(7);
    ASSERT_EQ(hostconfig_add_body(src.get(), body.data(), 7, "seven"), 1);
    hostconfig_finalize_content(src->parts[0]);

    auto dst = new_handle();
    ASSERT_EQ(hostconfig_add_body(dst.get(), "ab", 2, "lead"), 1);
    ASSERT_EQ(hostconfig_add(dst.get(), src->parts[0]), 1);
    EXPECT_EQ(offset_of(dst.get(), 1), 24u + 36u);
    EXPECT_EQ(dst->used, 24u + 36u + 40u);
    EXPECT_EQ(std::memcmp(dst->parts[1], src->parts[0], 39), 0);

    // A copy that does not fit leaves the handle as it was.
    auto small = new_handle(24 + 38);
    EXPECT_EQ(hostconfig_add(small.get(), src->parts[0]), -1);
    EXPECT_EQ(small->used, 24u);
    EXPECT_EQ(small->count, 0);
}

TEST(HostconfigGetBody, NamePrefixInTableOrder) {
    auto hc = new_handle();
    EXPECT_EQ(hostconfig_get_body(hc.get(), "KIV data"), nullptr);
    ASSERT_EQ(hostconfig_add_body(hc.get(), "1", 1, "other"), 1);
    ASSERT_EQ(hostconfig_add_body(hc.get(), "2", 1, "KIV data old"), 1);
    ASSERT_EQ(hostconfig_add_body(hc.get(), "3", 1, "KIV data"), 1);
    struct Case {
        const char *name;
        int part; // -1: not found
    };
    const Case cases[] = {
        {"KIV data", 1},     {"KIV", 1},
        {"other", 0},        {"", 0},
        {"KIV data old", 1}, {"KIV data older", -1},
        {"missing", -1},     {"otherwise longer than a name", -1},
    };
    for (const Case &c : cases) {
        std::uint8_t *body = hostconfig_get_body(hc.get(), c.name);
        if (c.part < 0) {
            EXPECT_EQ(body, nullptr) << c.name;
        } else {
            EXPECT_EQ(body, reinterpret_cast<std::uint8_t *>(hc->parts[c.part]) + 32) << c.name;
            EXPECT_EQ(hostconfig_find_part(hc.get(), c.name), hc->parts[c.part]) << c.name;
        }
    }
}

TEST(HostconfigFinalize, EmptyBodiesAreLeftAlone) {
    auto hc = new_handle();
    ASSERT_EQ(hostconfig_add_body(hc.get(), nullptr, 0, "empty"), 1);
    EXPECT_EQ(hostconfig_finalize_content(hc->parts[0]), -1);
    EXPECT_EQ(hcdecode::get32(std::span<const std::uint8_t>(hc->image, 64), 24), 0u);
    EXPECT_EQ(hostconfig_finalize_zunf(hc.get()), -1); // body_length still 0
    EXPECT_EQ(hc->image[0], 0);                        // no magic written
}

class HostconfigFiles : public ::testing::Test {
  protected:
    TempDir dir;
    std::string primary = dir.file("hostcfg");
    std::string backup = dir.file("hostcfg.bak");
};

TEST_F(HostconfigFiles, SavedImageHasExactlyUsedBytes) {
    auto hc = new_handle();
    Bytes record = pattern(2964, 3);
    ASSERT_EQ(hostconfig_add_body(hc.get(), record.data(), 2964, "KIV data"), 1);
    ASSERT_EQ(hostconfig_save(hc.get(), primary.c_str(), nullptr), 1);

    Bytes stored = read_bytes(primary);
    ASSERT_EQ(stored.size(), 3020u);
    hcdecode::Image img = hcdecode::decode_image(stored);
    ASSERT_TRUE(img.ok) << img.error;
    EXPECT_EQ(img.body_length, 2996u);
    ASSERT_EQ(img.parts.size(), 1u);
    EXPECT_EQ(img.parts[0].name, "KIV data");
    EXPECT_EQ(img.parts[0].type_id, 3);
    EXPECT_EQ(img.parts[0].body, record);

    auto loaded = new_handle();
    EXPECT_EQ(hostconfig_load(loaded.get(), primary.c_str(), nullptr), 1);
    EXPECT_EQ(loaded->count, 1);
    EXPECT_EQ(loaded->used, 24u);
    std::uint8_t *body = hostconfig_get_body(loaded.get(), "KIV data");
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(Bytes(body, body + 2964), record);
}

TEST_F(HostconfigFiles, SeveralPartsKeepOrderAndPadding) {
    auto hc = new_handle();
    ASSERT_EQ(hostconfig_add_body(hc.get(), "hello", 5, "A"), 1);
    ASSERT_EQ(hostconfig_add_body(hc.get(), "xy", 2, "B"), 1);
    ASSERT_EQ(hostconfig_add_body(hc.get(), "0123456789abcdef", 16, "KIV data"), 1);
    ASSERT_EQ(hostconfig_save(hc.get(), primary.c_str(), nullptr), 1);
    Bytes stored = read_bytes(primary);
    hcdecode::Image img = hcdecode::decode_image(stored);
    ASSERT_TRUE(img.ok) << img.error;
    EXPECT_EQ(img.names(), (std::vector<std::string>{"A", "B", "KIV data"}));
    EXPECT_EQ(stored.size(), 24u + 40u + 36u + 48u);
}

TEST_F(HostconfigFiles, BackupWrittenFirstAndOnlyPrimaryCounts) {
    auto hc = new_handle();
    ASSERT_EQ(hostconfig_add_body(hc.get(), "data", 4, "KIV data"), 1);
    ASSERT_EQ(hostconfig_save(hc.get(), primary.c_str(), backup.c_str()), 1);
    EXPECT_EQ(read_bytes(primary), read_bytes(backup));

    // A backup that cannot be written does not fail the save.
    std::string nowhere = dir.file("no/such/dir/backup");
    EXPECT_EQ(hostconfig_save(hc.get(), primary.c_str(), nowhere.c_str()), 1);
    // A primary that cannot be written does, even when the backup was written.
    std::filesystem::remove(backup);
    EXPECT_EQ(hostconfig_save(hc.get(), nowhere.c_str(), backup.c_str()), -1);
    EXPECT_TRUE(hcdecode::decode_image(read_bytes(backup)).ok);
}

TEST_F(HostconfigFiles, HandlesWithoutContentAreNotSaved) {
    auto empty = new_handle();
    EXPECT_EQ(hostconfig_save(empty.get(), primary.c_str(), nullptr), -1);
    EXPECT_FALSE(std::filesystem::exists(primary));

    write_bytes(primary, hcdecode::encode_image({{"KIV data", pattern(40)}}));
    Bytes before = read_bytes(primary);
    auto loaded = new_handle();
    ASSERT_EQ(hostconfig_load(loaded.get(), primary.c_str(), nullptr), 1);
    EXPECT_EQ(hostconfig_save(loaded.get(), primary.c_str(), nullptr), -1);
    EXPECT_EQ(read_bytes(primary), before);
}

TEST_F(HostconfigFiles, BackupFallback) {
    Bytes good = hcdecode::encode_image({{"KIV data", pattern(12, 9)}});
    Bytes bad = good;
    bad[24 + 32] ^= 1; // body byte: image CRC fails
    std::string missing = dir.file("missing");

    struct Case {
        const char *what;
        const Bytes *primary; // null: file absent
        const Bytes *backup;  // null: file absent
        bool pass_backup;
        int result;
    };
    const Case cases[] = {
        {"primary good", &good, &bad, true, 1},
        {"primary missing, backup good", nullptr, &good, true, 2},
        {"primary corrupt, backup good", &bad, &good, true, 2},
        {"primary missing, no backup path", nullptr, &good, false, -1},
        {"both corrupt", &bad, &bad, true, -1},
        {"primary missing, backup missing", nullptr, nullptr, true, -1},
    };
    for (const Case &c : cases) {
        std::filesystem::remove(primary);
        std::filesystem::remove(backup);
        if (c.primary) write_bytes(primary, *c.primary);
        if (c.backup) write_bytes(backup, *c.backup);
        auto hc = new_handle();
        EXPECT_EQ(
            hostconfig_load(hc.get(), primary.c_str(), c.pass_backup ? backup.c_str() : nullptr),
            c.result)
            << c.what;
        if (c.result > 0) {
            ASSERT_EQ(hc->count, 1) << c.what;
            std::uint8_t *body = hostconfig_get_body(hc.get(), "KIV data");
            ASSERT_NE(body, nullptr);
            EXPECT_EQ(Bytes(body, body + 12), pattern(12, 9)) << c.what;
        }
    }
}

namespace {

Bytes with_header(Bytes img, std::uint16_t hdr_length, std::uint32_t body_length) {
    img[14] = static_cast<std::uint8_t>(hdr_length);
    img[15] = static_cast<std::uint8_t>(hdr_length >> 8);
    for (int i = 0; i < 4; ++i)
        img[16 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(body_length >> (8 * i));
    return img;
}

// Recomputes only the image CRCs, so a deliberately broken part stays broken.
Bytes reseal(Bytes img) {
    std::span<const std::uint8_t> all(img);
    std::size_t hl = hcdecode::get16(all, 14);
    std::size_t bl = hcdecode::get32(all, 16);
    auto put = [&img](std::size_t off, std::uint32_t v) {
        for (int i = 0; i < 4; ++i)
            img[off + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v >> (8 * i));
    };
    if (8 + hl + bl <= img.size()) put(20, hcdecode::crc32(all.subspan(8 + hl, bl)));
    put(8, hcdecode::crc32(all.subspan(12, hl - 4)));
    return img;
}

Bytes n_parts(int n) {
    std::vector<hcdecode::NewPart> parts;
    for (int i = 0; i < n; ++i)
        parts.push_back({"p" + std::to_string(i), {static_cast<std::uint8_t>(i)}});
    return hcdecode::encode_image(parts);
}

} // namespace

TEST_F(HostconfigFiles, ImagesTheLoaderRefuses) {
    Bytes one = hcdecode::encode_image({{"KIV data", pattern(20)}});
    Bytes trailing_junk_32 = one;
    trailing_junk_32.insert(trailing_junk_32.end(), 32, 0xEE);
    trailing_junk_32 = reseal(with_header(trailing_junk_32, 16, 52 + 32));
    Bytes trailing_junk_36 = one;
    trailing_junk_36.insert(trailing_junk_36.end(), 36, 0xEE);
    trailing_junk_36 = reseal(with_header(trailing_junk_36, 16, 52 + 36));
    Bytes part_overruns = one;
    part_overruns[24 + 8] = 21; // body_length 21 in a body that holds 20 + 0 padding
    part_overruns = reseal(part_overruns);
    Bytes bad_part_crc = one;
    bad_part_crc[24 + 28] ^= 0x80;
    bad_part_crc = reseal(bad_part_crc);
    Bytes short_part_hdr = one;
    short_part_hdr[24 + 6] = 28;
    short_part_hdr = reseal(short_part_hdr);
    Bytes longer_image_header = one;
    longer_image_header.insert(longer_image_header.begin() + 24, 4, 0);
    longer_image_header = with_header(longer_image_header, 20, 52);
    hcdecode::refresh_crcs(longer_image_header);
    Bytes empty_body = reseal(with_header(Bytes(one.begin(), one.begin() + 24), 16, 0));

    struct Case {
        const char *what;
        Bytes image;
        int result;
    };
    const Case cases[] = {
        {"one part", one, 1},
        {"20 parts", n_parts(20), 1},
        {"21 parts", n_parts(21), -1},
        {"32 unparsed bytes after the last part", trailing_junk_32, 1},
        {"36 unparsed bytes after the last part", trailing_junk_36, -1},
        {"part body runs past the image body", part_overruns, -1},
        {"part body CRC wrong", bad_part_crc, -1},
        {"part header shorter than 32", short_part_hdr, -1},
        {"image header longer than 16", longer_image_header, -1},
        {"image body_length 0", empty_body, -1},
    };
    for (const Case &c : cases) {
        write_bytes(primary, c.image);
        auto hc = new_handle();
        EXPECT_EQ(hostconfig_load(hc.get(), primary.c_str(), nullptr), c.result) << c.what;
        EXPECT_LE(hc->count, 20) << c.what;
        EXPECT_EQ(hc->used, 24u) << c.what;
    }
    // The 20-part image lists every part in order.
    write_bytes(primary, n_parts(20));
    auto hc = new_handle();
    ASSERT_EQ(hostconfig_load(hc.get(), primary.c_str(), nullptr), 1);
    ASSERT_EQ(hc->count, 20);
    EXPECT_STREQ(hc->parts[19]->name, "p19");
}

TEST_F(HostconfigFiles, ExportedPartsSurviveAReloadAndResave) {
    // Load, copy every part into a fresh handle, save: the bytes come out the same.
    Bytes original = hcdecode::encode_image(
        {{"A", pattern(3)}, {"B", pattern(100, 5)}, {"KIV data", pattern(2964, 7)}});
    write_bytes(primary, original);
    auto loaded = new_handle();
    ASSERT_EQ(hostconfig_load(loaded.get(), primary.c_str(), nullptr), 1);
    auto fresh = new_handle();
    for (int i = 0; i < loaded->count; ++i)
        ASSERT_EQ(hostconfig_add(fresh.get(), loaded->parts[i]), 1);
    ASSERT_EQ(hostconfig_save(fresh.get(), backup.c_str(), nullptr), 1);
    EXPECT_EQ(read_bytes(backup), original);
}
