// One stored copy in a regular file: which files the raw loader accepts, and what the
// raw writer leaves behind. MTD devices themselves are exercised in the device sandbox.
#include "hostconfig/hostconfig.hpp"
#include "hostconfig/mtd.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "common/hcdecode.hpp"
#include "common/temp_dir.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

// A path with the MTD prefix that exists on no machine.
constexpr const char *ABSENT_MTD = "/dev/mtd-kiv-test-absent";

std::unique_ptr<hostconfig> new_handle() {
    auto hc = std::make_unique<hostconfig>();
    EXPECT_EQ(hostconfig_new(hc.get(), HOSTCONFIG_MAX_SIZE), 1);
    return hc;
}

void put16(Bytes &b, std::size_t off, std::uint16_t v) {
    b[off] = static_cast<std::uint8_t>(v);
    b[off + 1] = static_cast<std::uint8_t>(v >> 8);
}

void put32(Bytes &b, std::size_t off, std::uint32_t v) {
    for (int i = 0; i < 4; ++i)
        b[off + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v >> (8 * i));
}

// Re-signs the image header only (image bytes 12..23), whatever its lengths say.
Bytes resign_header(Bytes img) {
    put32(img, 8, hcdecode::crc32(std::span<const std::uint8_t>(img).subspan(12, 12)));
    return img;
}

Bytes valid_image() {
    Bytes body(100);
    for (std::size_t i = 0; i < body.size(); ++i)
        body[i] = static_cast<std::uint8_t>(i);
    return hcdecode::encode_image({{"KIV data", body}});
}

} // namespace

TEST(HostconfigRaw, WhichStoredFilesAreAccepted) {
    TempDir dir;
    const std::string path = dir.file("hostcfg");
    const Bytes good = valid_image(); // 24 + 32 + 100 = 156 bytes

    Bytes tail_5120 = good;
    tail_5120.resize(5120, 0xA5);
    Bytes tail_5121 = tail_5120;
    tail_5121.push_back(0);
    Bytes wrong_magic = good;
    wrong_magic[0] = 'X';
    Bytes version2 = good;
    version2[12] = 2;
    version2 = resign_header(version2);
    Bytes body_crc_wrong = good;
    body_crc_wrong[100] ^= 1;
    Bytes header_crc_wrong = good;
    header_crc_wrong[8] ^= 1;
    Bytes hdr_length_15 = good;
    put16(hdr_length_15, 14, 15);
    hdr_length_15 = resign_header(hdr_length_15);
    // Lengths that reach past the bytes read, with a header CRC that vouches for them.
    Bytes body_one_past = good;
    put32(body_one_past, 16, static_cast<std::uint32_t>(good.size() - 24 + 1));
    body_one_past = resign_header(body_one_past);
    Bytes body_huge = good;
    put32(body_huge, 16, 0xFFFFFF00u);
    body_huge = resign_header(body_huge);
    Bytes hdr_huge = good;
    put16(hdr_huge, 14, 0xFFF0);
    hdr_huge = resign_header(hdr_huge);
    Bytes tail_5120_body_past = tail_5120;
    put32(tail_5120_body_past, 16, 5120 - 24 + 1);
    tail_5120_body_past = resign_header(tail_5120_body_past);

    struct Case {
        const char *what;
        Bytes bytes;
        int result;
    };
    const Case cases[] = {
        {"valid", good, 0},
        {"23 bytes", Bytes(good.begin(), good.begin() + 23), -1},
        {"24-byte header of a longer image", Bytes(good.begin(), good.begin() + 24), -1},
        {"5120 bytes with a tail", tail_5120, 0},
        {"5121 bytes", tail_5121, -1},
        {"magic is not examined", wrong_magic, 0},
        {"version 2 with a right CRC", version2, -1},
        {"hdr_length 15", hdr_length_15, -1},
        {"header CRC wrong", header_crc_wrong, -1},
        {"body CRC wrong", body_crc_wrong, -1},
        {"body one byte past the file", body_one_past, -1},
        {"body far past the buffer", body_huge, -1},
        {"header far past the buffer", hdr_huge, -1},
        {"body past 5120 bytes", tail_5120_body_past, -1},
        {"empty file", Bytes{}, -1},
    };
    for (const Case &c : cases) {
        write_bytes(path, c.bytes);
        auto hc = new_handle();
        EXPECT_EQ(hostconfig_load_raw(hc.get(), path.c_str()), c.result) << c.what;
        EXPECT_EQ(reinterpret_cast<std::uint8_t *>(hc->hdr), hc->image + 8) << c.what;
    }

    auto hc = new_handle();
    EXPECT_EQ(hostconfig_load_raw(hc.get(), dir.file("absent").c_str()), -1);
    EXPECT_EQ(hostconfig_load_raw(hc.get(), ABSENT_MTD), -1);
}

TEST(HostconfigRaw, SaveWritesExactlyUsedBytes) {
    TempDir dir;
    const std::string path = dir.file("hostcfg");
    write_bytes(path, Bytes(5000, 0x55)); // an older, longer file is truncated

    auto hc = new_handle();
    ASSERT_EQ(hostconfig_add_body(hc.get(), "abcde", 5, "KIV data"), 1);
    ASSERT_EQ(hc->used, 64u);
    EXPECT_EQ(hostconfig_save_raw(hc.get(), path.c_str()), 0);
    Bytes stored = read_bytes(path);
    EXPECT_EQ(stored, Bytes(hc->image, hc->image + 64));

    EXPECT_EQ(hostconfig_save_raw(hc.get(), dir.file("no/dir/x").c_str()), -1);
    // An MTD path whose erase fails is not written at all.
    EXPECT_EQ(hostconfig_save_raw(hc.get(), ABSENT_MTD), -1);
    EXPECT_FALSE(std::filesystem::exists(ABSENT_MTD));
}

TEST(Mtd, PathsAndNonDevices) {
    struct Case {
        const char *path;
        bool mtd;
    };
    const Case cases[] = {
        {"/dev/mtd5", true}, {"/dev/mtd", true},  {"/dev/mtdblock2", true}, {"/dev/mtd-x", true},
        {"/dev/mt", false},  {"dev/mtd5", false}, {"/tmp/hostcfg", false},  {"", false},
    };
    for (const Case &c : cases)
        EXPECT_EQ(mtd_path_is_mtd(c.path), c.mtd) << c.path;

    // A regular file answers no MTD request: not lockable-tested, not erasable.
    TempDir dir;
    const std::string file = dir.file("plain");
    write_bytes(file, Bytes(4096, 0xFF));
    EXPECT_EQ(mtd_fn_is_locked(file.c_str()), -1);
    EXPECT_EQ(mtd_fn_erase(file.c_str(), 0, 0), -1);
    EXPECT_EQ(read_bytes(file), Bytes(4096, 0xFF));
    EXPECT_EQ(mtd_fn_is_locked(dir.file("absent").c_str()), -1);
    EXPECT_EQ(mtd_fn_erase(dir.file("absent").c_str(), 0, 0), -1);
}
