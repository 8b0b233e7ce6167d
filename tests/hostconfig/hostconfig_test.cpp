// Hostconfig store edges kiv's commands cannot reach; good hostconfigs are for tests/e2e.
#include "hostconfig/hostconfig.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "front/kiv_helpers.hpp"
#include "kivl/kivl.hpp"

#include "common/hcdecode.hpp"
#include "common/temp_dir.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::unique_ptr<hostconfig> handle(std::uint32_t capacity = HOSTCONFIG_MAX_SIZE) {
    auto hc = std::make_unique<hostconfig>();
    EXPECT_EQ(hostconfig_new(hc.get(), capacity), 1);
    return hc;
}

Bytes parts(int n, std::size_t body) {
    return hcdecode::encode_image(
        std::vector<hcdecode::NewPart>(static_cast<std::size_t>(n), {"p", Bytes(body, 7)}));
}

// One part of 20 bytes (image body 52), edited; the image CRCs then made right unless !sign.
Bytes edited(void (*edit)(Bytes &), bool sign = true) {
    Bytes b = parts(1, 20);
    edit(b);
    if (sign) hcdecode::refresh_crcs(b, false);
    return b;
}

void trailing(Bytes &b, std::uint32_t n) {
    b.insert(b.end(), n, 0xEE);
    hcdecode::put32(b, 16, 52 + n);
}

TEST(HostconfigLoad, WhichImagesAreTaken) {
    Bytes flipped = edited([](Bytes &b) { trailing(b, 32); });
    flipped.back() ^= 1; // a byte only the image body CRC covers
    // Fewer bytes than a part header are left unparsed after the last part.
    const std::pair<Bytes, int> rows[] = {
        {parts(20, 1), 1},
        {parts(21, 1), -1},
        {edited([](Bytes &b) { trailing(b, 32); }), 1},
        {edited([](Bytes &b) { trailing(b, 36); }), -1},
        {edited([](Bytes &b) { b[8] ^= 1; }, false), -1},
        {flipped, -1},
        {edited([](Bytes &b) { hcdecode::put32(b, 16, 0xFFFFFF00u); }), -1},
        {edited([](Bytes &b) { b.resize(5120, 0); }), 1},
        {edited([](Bytes &b) { b.resize(5121, 0); }), -1},
        {edited([](Bytes &b) { // the part still at 24, the image body from 28
             b.resize(80, 0);
             hcdecode::put16(b, 14, 20);
         }),
         -1},
        {edited([](Bytes &b) { // the part's body runs one byte past the image body
             b.push_back(0);
             b[24 + 8] = 21;
             hcdecode::put32(b, 24 + 28, hcdecode::crc32({b.data() + 56, 21}));
             hcdecode::put32(b, 24, hcdecode::crc32({b.data() + 28, 28}));
         }),
         -1},
    };
    TempDir dir;
    for (const auto &[image, result] : rows) {
        write_bytes(dir.file("hostcfg"), image);
        auto hc = handle();
        EXPECT_EQ(hostconfig_load(hc.get(), dir.file("hostcfg").c_str(), nullptr), result)
            << image.size() << " bytes, body " << hcdecode::get32(image, 16);
    }
}

// A part (a 32-byte header: added as a body) added behind `before` parts; saved, it loads again.
TEST(HostconfigAdd, RoomTableAndHeaderLength) {
    struct Row {
        std::uint32_t capacity, body_length;
        int before, result;
        std::uint16_t hdr_length;
    };
    const Row rows[] = {{1000, 936, 0, 1, 40}, {1000, 937, 0, -1, 40}, {1000, 4, 0, -1, 34},
                        {1000, 944, 0, 1, 32}, {1000, 945, 0, -1, 32}, {5120, 4, 20, -1, 40},
                        {5120, 4, 19, 1, 32}};
    TempDir dir;
    const std::string path = dir.file("hostcfg"), nowhere = dir.file("no/dir/x");
    for (const Row &r : rows) {
        Bytes part(r.hdr_length + r.body_length, 0);
        hcdecode::put16(part, 6, r.hdr_length);
        hcdecode::put32(part, 8, r.body_length);
        part.back() = 9;
        auto hc = handle(r.capacity);
        for (int i = 0; i < r.before; ++i)
            ASSERT_EQ(hostconfig_add_body(hc.get(), "abcd", 4, "p"), 1);
        EXPECT_EQ(r.hdr_length == 32
                      ? hostconfig_add_body(hc.get(), &part[32], r.body_length, "x")
                      : hostconfig_add(hc.get(), reinterpret_cast<zunf_content_header *>(&part[0])),
                  r.result)
            << r.before << " + " << r.hdr_length << "/" << r.body_length;
        if (r.result != 1) { // nothing taken: only a handle holding parts is saved
            EXPECT_EQ(hostconfig_save(hc.get(), path.c_str(), nullptr), r.before ? 1 : -1);
            continue;
        }
        // The backup is written first; only the primary decides.
        EXPECT_EQ(hostconfig_save(hc.get(), nowhere.c_str(), path.c_str()), -1);
        EXPECT_EQ(hostconfig_load(handle().get(), path.c_str(), nullptr), 1) << r.hdr_length;
        EXPECT_EQ(hostconfig_save(hc.get(), path.c_str(), nowhere.c_str()), 1);
    }
}

// kiv's load/save refusals (short record, near name, a part hiding the record): file kept.
TEST(KivLoadSave, RecordPartAndCarriedParts) {
    TempDir dir;
    kiv_options options{};
    std::strcpy(options.hostcfg, dir.file("hostcfg").c_str());
    const std::string IMPORT = "kivl_hostconfig_import failed.\n";
    const std::pair<std::vector<hcdecode::NewPart>, std::string> rows[] = {
        {{{"KIV data", Bytes(2963)}}, IMPORT},
        {{{"KIV dat", Bytes(2964)}}, IMPORT},
        {{{"KIV data", Bytes(2964)}, {"KIV data2", {1}}}, "hostconfig_add failed.\n"}};
    for (const auto &[image_parts, message] : rows) {
        const Bytes image = hcdecode::encode_image(image_parts);
        write_bytes(options.hostcfg, image);
        auto data = std::make_unique<kivl_data>();
        auto hc = handle();
        testing::internal::CaptureStderr();
        const int loaded = load(&options, data.get(), hc.get());
        EXPECT_EQ(loaded == 1 ? save(&options, data.get(), hc.get(), "t") : loaded, -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
        EXPECT_EQ(read_bytes(options.hostcfg), image);
    }
}

} // namespace
