// The upgrade data record on its way into and out of the hostconfig, checked against
// the independent encoder's literal offsets.
#include "kivl/kivl.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "common/hcdecode.hpp"
#include "common/temp_dir.hpp"
#include "hostconfig/hostconfig.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::unique_ptr<hostconfig> new_handle(std::uint32_t capacity = HOSTCONFIG_MAX_SIZE) {
    auto hc = std::make_unique<hostconfig>();
    EXPECT_EQ(hostconfig_new(hc.get(), capacity), 1);
    return hc;
}

std::unique_ptr<kivl_data> new_data() {
    auto data = std::make_unique<kivl_data>();
    EXPECT_EQ(kivl_init(data.get()), 1);
    return data;
}

Bytes record_bytes(const kivl_data &data) {
    const auto *p = reinterpret_cast<const std::uint8_t *>(&data.rec);
    return Bytes(p, p + sizeof data.rec);
}

} // namespace

TEST(KivlInit, ClearsEverything) {
    auto data = std::make_unique<kivl_data>();
    std::memset(static_cast<void *>(data.get()), 0x5A, sizeof *data);
    EXPECT_EQ(kivl_init(data.get()), 1);
    EXPECT_EQ(data->device, nullptr);
    EXPECT_EQ(record_bytes(*data), Bytes(2964, 0));
    EXPECT_EQ(data->pools_count, 0u);
    EXPECT_EQ(data->pools_valid, 0u);
    EXPECT_EQ(data->pools[19].cnt, 0);
}

TEST(KivlRecord, FieldsLandAtTheirPersistedOffsets) {
    auto data = new_data();
    kivl_record &rec = data->rec;
    rec.actset = 2;
    rec.sets[1].bootable = 1;
    std::strcpy(rec.sets[1].name, "ABCDEFGHIJKLMN"); // 14 characters, the most a name holds
    std::memset(rec.sets[1].refs, -1, sizeof rec.sets[1].refs);
    rec.sets[1].refs[0] = 4;
    rec.sets[1].refs[1] = 19;
    std::strcpy(rec.partinfo[4].poolname, "rootfs");
    rec.partinfo[4].pn = 9;
    rec.partinfo[4].offset = 0x12345678u;
    rec.partinfo[4].size = 0x00200000u;
    std::strcpy(rec.partinfo[4].mountpnt, "/mnt/root");
    std::strcpy(rec.partinfo[4].fstype, "squashfs");
    rec.rhdr[2].release_version_major = 3;
    rec.rhdr[2].release_version_minor = 14;
    rec.rhdr[2].release_build_number = 0xBEEF;
    rec.rhdr[2].release_date = 1700000000u;
    std::strcpy(rec.rhdr[2].release_build_id, "build id");
    zunf_pinfometa &m = rec.pinfometa[19];
    m.hdr.hdr_crc = 0x01020304u;
    m.hdr.type_id = 4;
    m.hdr.hdr_length = 64;
    m.hdr.body_length = 777;
    std::strcpy(m.hdr.name, "content");
    m.hdr.body_crc = 0xA0B0C0D0u;
    m.sw.sw_version_major = 7;
    m.sw.sw_version_minor = 8;
    m.sw.sw_build_number = 900;
    std::strcpy(m.sw.sw_build_id, "sw build");

    hcdecode::Record want;
    want.actset = 2;
    want.sets[1].bootable = 1;
    want.sets[1].name = "ABCDEFGHIJKLMN";
    want.sets[1].raw_refs.fill(-1);
    want.sets[1].raw_refs[0] = 4;
    want.sets[1].raw_refs[1] = 19;
    want.partinfo[4] = {"rootfs", 9, 0x12345678u, 0x00200000u, "/mnt/root", "squashfs"};
    want.rhdr[2] = {3, 14, 0xBEEF, 1700000000u, "build id"};
    want.pinfometa[19] = {0x01020304u, 4, 64, 777, "content", 0xA0B0C0D0u, 7, 8, 900, "sw build"};
    EXPECT_EQ(record_bytes(*data), hcdecode::encode_record(want));
}

TEST(KivlRecord, ExportNeedsRoomForTheWholeRecord) {
    auto data = new_data();
    auto hc = new_handle(24 + 32 + 2963);
    EXPECT_EQ(kivl_hostconfig_export(data.get(), hc.get()), -1);
    EXPECT_EQ(hc->count, 0);
    auto exact = new_handle(24 + 32 + 2964);
    EXPECT_EQ(kivl_hostconfig_export(data.get(), exact.get()), 1);
}

TEST(KivlRecord, ImportNeedsAWholeKivDataBody) {
    struct Case {
        const char *what;
        std::vector<hcdecode::NewPart> parts;
        int result;
        std::uint8_t first_byte; // of the record afterwards
    };
    Bytes body(2964, 0x11);
    body[0] = 0x22;
    Bytes longer = body;
    longer.resize(3000, 0x33);
    const Case cases[] = {
        {"exact body", {{"A", {1}}, {"KIV data", body}}, 1, 0x22},
        {"longer body, first 2964 bytes", {{"KIV data", longer}}, 1, 0x22},
        {"one byte short", {{"KIV data", Bytes(2963, 0x44)}}, -1, 0x99},
        {"no such part", {{"KIV", body}}, -1, 0x99},
        {"name with a suffix still matches", {{"KIV data old", body}}, 1, 0x22},
    };
    TempDir dir;
    const std::string path = dir.file("hostcfg");
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        write_bytes(path, hcdecode::encode_image(c.parts));
        auto hc = new_handle();
        ASSERT_EQ(hostconfig_load(hc.get(), path.c_str(), nullptr), 1);
        auto data = new_data();
        data->rec.actset = 0x99;
        EXPECT_EQ(kivl_hostconfig_import(data.get(), hc.get()), c.result);
        EXPECT_EQ(data->rec.actset, c.first_byte);
    }
}
