// One stored copy in a regular file: which files the raw loader accepts, and what the
// raw writer leaves behind. MTD devices themselves are exercised in the device sandbox.
#include "hostconfig/hostconfig.hpp"
#include "hostconfig/mtd.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <utility>

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

} // namespace

TEST(HostconfigRaw, WhichStoredFilesAreAccepted) {
    TempDir dir;
    const std::string path = dir.file("hostcfg");
    const Bytes good = hcdecode::encode_image({{"KIV data", Bytes(100, 0x42)}}); // 156 bytes
    // The edit is followed by right CRCs for whatever lengths the header now claims.
    auto edited = [&good](auto edit, bool resign = true) {
        Bytes b = good;
        edit(b);
        if (resign) hcdecode::refresh_crcs(b, false);
        return b;
    };
    auto body_length = [](std::uint32_t n) { return [n](Bytes &b) { hcdecode::put32(b, 16, n); }; };
    struct Case {
        const char *what;
        Bytes bytes;
        int result;
    };
    const Case cases[] = {
        {"valid", good, 0},
        {"23 bytes", Bytes(good.begin(), good.begin() + 23), -1},
        {"24-byte header of a longer image", Bytes(good.begin(), good.begin() + 24), -1},
        {"5120 bytes with a tail", edited([](Bytes &b) { b.resize(5120, 0xA5); }), 0},
        {"5121 bytes", edited([](Bytes &b) { b.resize(5121, 0xA5); }), -1},
        {"magic is not examined", edited([](Bytes &b) { b[0] = 'X'; }), 0},
        {"version 2 with a right CRC", edited([](Bytes &b) { b[12] = 2; }), -1},
        {"hdr_length 15", edited([](Bytes &b) { hcdecode::put16(b, 14, 15); }), -1},
        {"header CRC wrong", edited([](Bytes &b) { b[8] ^= 1; }, false), -1},
        {"body CRC wrong", edited([](Bytes &b) { b[100] ^= 1; }, false), -1},
        {"body one byte past the file", edited(body_length(156 - 24 + 1)), -1},
        {"body far past the buffer", edited(body_length(0xFFFFFF00u)), -1},
        {"header far past the buffer", edited([](Bytes &b) { hcdecode::put16(b, 14, 0xFFF0); }),
         -1},
        {"body past 5120 bytes", edited([](Bytes &b) {
             b.resize(5120, 0xA5);
             hcdecode::put32(b, 16, 5120 - 24 + 1);
         }),
         -1},
        {"empty file", Bytes{}, -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        write_bytes(path, c.bytes);
        auto hc = new_handle();
        EXPECT_EQ(hostconfig_load_raw(hc.get(), path.c_str()), c.result);
        EXPECT_EQ(reinterpret_cast<std::uint8_t *>(hc->hdr), hc->image + 8);
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
    EXPECT_EQ(read_bytes(path), Bytes(hc->image, hc->image + 64));

    EXPECT_EQ(hostconfig_save_raw(hc.get(), dir.file("no/dir/x").c_str()), -1);
    // An MTD path whose erase fails is not written at all.
    EXPECT_EQ(hostconfig_save_raw(hc.get(), ABSENT_MTD), -1);
    EXPECT_FALSE(std::filesystem::exists(ABSENT_MTD));
}

TEST(Mtd, PathsAndNonDevices) {
    const std::pair<const char *, bool> cases[] = {
        {"/dev/mtd5", true}, {"/dev/mtd", true},  {"/dev/mtdblock2", true}, {"/dev/mtd-x", true},
        {"/dev/mt", false},  {"dev/mtd5", false}, {"/tmp/hostcfg", false},  {"", false},
    };
    for (auto [path, mtd] : cases)
        EXPECT_EQ(mtd_path_is_mtd(path), mtd) << path;

    // A regular file answers no MTD request: not lock-tested, not erased.
    TempDir dir;
    const std::string file = dir.file("plain");
    write_bytes(file, Bytes(4096, 0xFF));
    EXPECT_EQ(mtd_fn_is_locked(file.c_str()), -1);
    EXPECT_EQ(mtd_fn_erase(file.c_str(), 0, 0), -1);
    EXPECT_EQ(read_bytes(file), Bytes(4096, 0xFF));
    EXPECT_EQ(mtd_fn_is_locked(dir.file("absent").c_str()), -1);
    EXPECT_EQ(mtd_fn_erase(dir.file("absent").c_str(), 0, 0), -1);
}
