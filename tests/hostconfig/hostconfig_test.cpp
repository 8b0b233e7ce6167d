// Building, finding, saving and loading hostconfig images through the handle. Images
// on disk are checked and crafted with the independent decoder, never with the
// product's own layout code.
#include "hostconfig/hostconfig.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/cat.hpp"
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

Bytes n_parts(int n) {
    std::vector<hcdecode::NewPart> parts;
    for (int i = 0; i < n; ++i)
        parts.push_back({cat("p", std::to_string(i)), {static_cast<std::uint8_t>(i)}});
    return hcdecode::encode_image(parts);
}

} // namespace

TEST(HostconfigNew, CapacityLimits) {
    auto hc = std::make_unique<hostconfig>();
    for (std::uint32_t bad : {HOSTCONFIG_MAX_SIZE + 1, 23u}) {
        std::memset(static_cast<void *>(hc.get()), 0xAB, sizeof *hc);
        EXPECT_EQ(hostconfig_new(hc.get(), bad), 0) << bad;
        EXPECT_EQ(hc->hdr, nullptr) << bad;
        EXPECT_EQ(hc->capacity, 0u) << bad;
        EXPECT_EQ(hc->image[100], 0) << bad;
    }
    EXPECT_EQ(hostconfig_new(hc.get(), HOSTCONFIG_MAX_SIZE), 1);
    EXPECT_EQ(reinterpret_cast<std::uint8_t *>(hc->hdr), hc->image + 8);
    EXPECT_EQ(hc->count, 0);
    EXPECT_EQ(hc->used, 24u);
}

TEST(HostconfigAdd, BodiesArePaddedToFourBytesAndNamesCut) {
    // Body length, and where the next part starts.
    const std::pair<std::uint32_t, std::size_t> cases[] = {
        {0, 24 + 32}, {1, 24 + 36}, {4, 24 + 36}, {5, 24 + 40}, {8, 24 + 40}};
    for (auto [length, next_part_at] : cases) {
        SCOPED_TRACE(length);
        auto hc = new_handle();
        Bytes body = pattern(length);
        ASSERT_EQ(hostconfig_add_body(hc.get(), body.data(), length, "abcdefghijklmnopqrst"), 1);
        ASSERT_EQ(hostconfig_add_body(hc.get(), "x", 1, "second"), 1);
        EXPECT_EQ(offset_of(hc.get(), 1), next_part_at);
        for (std::size_t i = 24 + 32 + length; i < next_part_at; ++i)
            EXPECT_EQ(hc->image[i], 0) << "padding byte " << i;
        EXPECT_EQ(std::memcmp(hc->image + 24 + 12, "abcdefghijklmno", 16), 0) << "15 and a NUL";
    }
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
    // Exactly at capacity, one byte too many, and room for no part header at all.
    const Case cases[] = {{5120, 5120 - 24 - 32, 1},
                          {5120, 5120 - 24 - 31, -1},
                          {1000, 1000 - 24 - 32, 1},
                          {1000, 1000 - 24 - 31, -1},
                          {24, 0, -1}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.capacity) + "/" + std::to_string(c.length));
        auto hc = new_handle(c.capacity);
        Bytes body = pattern(c.length);
        EXPECT_EQ(hostconfig_add_body(hc.get(), body.data(), c.length, "big"), c.result);
        EXPECT_EQ(hc->used, c.result == 1 ? c.capacity : 24u);
        EXPECT_EQ(hc->count, c.result == 1 ? 1 : 0);
    }
}

TEST(HostconfigGetBody, NamePrefixInTableOrder) {
    auto hc = new_handle();
    EXPECT_EQ(hostconfig_get_body(hc.get(), "KIV data"), nullptr);
    ASSERT_EQ(hostconfig_add_body(hc.get(), "1", 1, "other"), 1);
    ASSERT_EQ(hostconfig_add_body(hc.get(), "2", 1, "KIV data old"), 1);
    ASSERT_EQ(hostconfig_add_body(hc.get(), "3", 1, "KIV data"), 1);
    // Name asked for, and the part found (-1: none).
    const std::pair<const char *, int> cases[] = {
        {"KIV data", 1},     {"KIV", 1},
        {"other", 0},        {"", 0},
        {"KIV data old", 1}, {"KIV data older", -1},
        {"missing", -1},     {"otherwise longer than a name", -1},
    };
    for (auto [name, part] : cases) {
        SCOPED_TRACE(name);
        std::uint8_t *body = hostconfig_get_body(hc.get(), name);
        if (part < 0) {
            EXPECT_EQ(body, nullptr);
        } else {
            EXPECT_EQ(body, reinterpret_cast<std::uint8_t *>(hc->parts[part]) + 32);
            EXPECT_EQ(hostconfig_find_part(hc.get(), name), hc->parts[part]);
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

TEST_F(HostconfigFiles, SaveLoadAndCopyBackKeepEveryByte) {
    auto hc = new_handle();
    Bytes record = pattern(2964, 3);
    ASSERT_EQ(hostconfig_add_body(hc.get(), "hello", 5, "A"), 1);
    ASSERT_EQ(hostconfig_add_body(hc.get(), "xy", 2, "B"), 1);
    ASSERT_EQ(hostconfig_add_body(hc.get(), record.data(), 2964, "KIV data"), 1);
    ASSERT_EQ(hostconfig_save(hc.get(), primary.c_str(), nullptr), 1);
    // Exactly the image, byte for byte as the independent writer lays it out.
    const Bytes stored = read_bytes(primary);
    EXPECT_EQ(stored,
              hcdecode::encode_image(
                  {{"A", {'h', 'e', 'l', 'l', 'o'}}, {"B", {'x', 'y'}}, {"KIV data", record}}));

    // Loaded, every part copied into a fresh handle and saved again: the same bytes.
    auto loaded = new_handle();
    ASSERT_EQ(hostconfig_load(loaded.get(), primary.c_str(), nullptr), 1);
    ASSERT_EQ(loaded->count, 3);
    std::uint8_t *body = hostconfig_get_body(loaded.get(), "KIV data");
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(Bytes(body, body + 2964), record);
    auto fresh = new_handle();
    for (int i = 0; i < loaded->count; ++i)
        ASSERT_EQ(hostconfig_add(fresh.get(), loaded->parts[i]), 1);
    ASSERT_EQ(hostconfig_save(fresh.get(), backup.c_str(), nullptr), 1);
    EXPECT_EQ(read_bytes(backup), stored);
    // A copy that does not fit leaves the handle as it was.
    auto small = new_handle(24 + 36);
    EXPECT_EQ(hostconfig_add(small.get(), loaded->parts[0]), -1);
    EXPECT_EQ(small->used, 24u);
    EXPECT_EQ(small->count, 0);
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

TEST_F(HostconfigFiles, ImagesTheLoaderRefuses) {
    const Bytes one = hcdecode::encode_image({{"KIV data", pattern(20)}}); // body 32 + 20
    // Only the image CRCs are re-signed after the edit, so a broken part stays broken.
    auto edited = [&one](auto edit) {
        Bytes b = one;
        edit(b);
        hcdecode::refresh_crcs(b, false);
        return b;
    };
    auto trailing = [&](std::uint32_t n) {
        return edited([n](Bytes &b) {
            b.insert(b.end(), n, 0xEE);
            hcdecode::put32(b, 16, 52 + n);
        });
    };
    struct Case {
        const char *what;
        Bytes image;
        int result;
    };
    const Case cases[] = {
        {"20 parts", n_parts(20), 1},
        {"21 parts", n_parts(21), -1},
        {"32 unparsed bytes after the last part", trailing(32), 1},
        {"36 unparsed bytes after the last part", trailing(36), -1},
        {"part body runs past the image body", edited([](Bytes &b) { b[24 + 8] = 21; }), -1},
        {"part body CRC wrong", edited([](Bytes &b) { b[24 + 28] ^= 0x80; }), -1},
        {"part header shorter than 32", edited([](Bytes &b) { b[24 + 6] = 28; }), -1},
        {"image header longer than 16", edited([](Bytes &b) {
             b.insert(b.begin() + 24, 4, 0);
             hcdecode::put16(b, 14, 20);
         }),
         -1},
        {"image body_length 0", edited([](Bytes &b) {
             b.resize(24);
             hcdecode::put32(b, 16, 0);
         }),
         -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        write_bytes(primary, c.image);
        auto hc = new_handle();
        EXPECT_EQ(hostconfig_load(hc.get(), primary.c_str(), nullptr), c.result);
        EXPECT_LE(hc->count, 20);
        EXPECT_EQ(hc->used, 24u);
    }
    // The 20-part image lists every part in order.
    write_bytes(primary, n_parts(20));
    auto hc = new_handle();
    ASSERT_EQ(hostconfig_load(hc.get(), primary.c_str(), nullptr), 1);
    ASSERT_EQ(hc->count, 20);
    EXPECT_STREQ(hc->parts[19]->name, "p19");
}
