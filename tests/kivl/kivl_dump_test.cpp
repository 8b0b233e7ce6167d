// The info listing, compared with the exact text an operator sees.
#include "kivl/kivl.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

std::unique_ptr<kivl_data> new_data() {
    auto data = std::make_unique<kivl_data>();
    EXPECT_EQ(kivl_init(data.get()), 1);
    return data;
}

template <typename F> std::string captured(F &&print) {
    testing::internal::CaptureStdout();
    print();
    return testing::internal::GetCapturedStdout();
}

const char *const HEADINGS =
    "Sets: (p1/2)\n"
    "     name:            bootable:  rhdr:      refs:\n"
    "Sets: (p2/2)\n"
    "     name:            release date:        release id:\n"
    "Partitions: (p1/2)\n"
    "     pn: poolname:        offset:     size:        ver:       fstype:   mountpnt:\n"
    "Partitions: (p2/2)\n"
    "     poolname:        content name:     length:     crc32:\n"
    "Pools:\n"
    "     pool:            cnt:   type:\n";

} // namespace

TEST(KivlDump, FreshRecordPrintsOnlyHeadings) {
    auto data = new_data();
    kivl_partpool_generate(data.get());
    EXPECT_EQ(captured([&] { kivl_dump_info(data.get()); }), HEADINGS);
}

TEST(KivlDump, FullListing) {
    auto data = new_data();
    kivl_record &rec = data->rec;
    rec.actset = 1;
    std::strcpy(rec.sets[0].name, "SAFESET");
    rec.sets[0].bootable = 1;
    std::memset(rec.sets[0].refs, -1, sizeof rec.sets[0].refs);
    rec.sets[0].refs[0] = 0;
    rec.sets[0].refs[1] = 1;
    rec.rhdr[0].release_version_major = 1;
    rec.rhdr[0].release_version_minor = 2;
    rec.rhdr[0].release_build_number = 3;
    std::strcpy(rec.rhdr[0].release_build_id, "safe");
    std::strcpy(rec.sets[1].name, "SET1");
    for (int k = 0; k < 20; ++k) // twenty refs, no terminator
        rec.sets[1].refs[k] = static_cast<std::int8_t>((k + 2) % 20);
    rec.rhdr[1].release_version_major = 10;
    rec.rhdr[1].release_version_minor = 5;
    rec.rhdr[1].release_build_number = 1234;
    rec.rhdr[1].release_date = 1700000000u;
    std::strcpy(rec.rhdr[1].release_build_id, "rel-10.5");

    std::strcpy(rec.partinfo[0].poolname, "boot");
    rec.partinfo[0].size = 0x40000u;
    std::strcpy(rec.pinfometa[0].hdr.name, "boot.bin");
    rec.pinfometa[0].hdr.body_length = 0x1234u;
    rec.pinfometa[0].hdr.body_crc = 0xCAFEBABEu;
    rec.pinfometa[0].sw.sw_version_major = 1;
    rec.pinfometa[0].sw.sw_version_minor = 2;
    rec.pinfometa[0].sw.sw_build_number = 7;
    std::strcpy(rec.partinfo[1].poolname, "rootfs");
    rec.partinfo[1].pn = 7;
    rec.partinfo[1].offset = 0x100000u;
    rec.partinfo[1].size = 0x200000u;
    std::strcpy(rec.partinfo[1].mountpnt, "/mnt/root");
    std::strcpy(rec.partinfo[1].fstype, "squashfs");
    std::strcpy(rec.partinfo[2].poolname, "rootfs");
    rec.partinfo[2].pn = 8;
    rec.partinfo[2].offset = 0x300000u;
    rec.partinfo[2].size = 0x200000u;
    kivl_partpool_generate(data.get());

    const char *expected =
        "Sets: (p1/2)\n"
        "     name:            bootable:  rhdr:      refs:\n"
        "  0  SAFESET          1          1.02 3     0 1 \n"
        "  1  SET1             0         10.05 1234  2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 "
        "18 19 0 1    ACTIVE SET\n"
        "Sets: (p2/2)\n"
        "     name:            release date:        release id:\n"
        "  0  SAFESET          1970.01.01 00:00:00  safe                \n"
        "  1  SET1             2023.11.14 22:13:20  rel-10.5            \n"
        "Partitions: (p1/2)\n"
        "     pn: poolname:        offset:     size:        ver:       fstype:   mountpnt:\n"
        "  0   0  boot             0x0         0x40000      1.02 7               \n"
        "  1   7  rootfs           0x100000    0x200000     0.00 0     squashfs  /mnt/root\n"
        "  2   8  rootfs           0x300000    0x200000     0.00 0               \n"
        "Partitions: (p2/2)\n"
        "     poolname:        content name:     length:     crc32:\n"
        "  0  boot             boot.bin          0x1234      0xCAFEBABE\n"
        "  1  rootfs                             0x0         0x0       \n"
        "  2  rootfs                             0x0         0x0       \n"
        "Pools:\n"
        "     pool:            cnt:   type:\n"
        "  0  boot             1      singleton\n"
        "  1  rootfs           2      multi\n";
    EXPECT_EQ(captured([&] { kivl_dump_info(data.get()); }), expected);
}

TEST(KivlDump, SetRowsWithoutRefsOrActiveMark) {
    auto data = new_data();
    std::strcpy(data->rec.sets[2].name, "SET2");
    data->rec.sets[2].refs[0] = -1;
    data->rec.sets[2].refs[1] = 4; // behind the terminator: not printed
    data->rec.actset = 1;          // an undefined set: nothing is marked
    std::string out = captured([&] { kivl_dump_info(data.get()); });
    EXPECT_NE(out.find("  2  SET2             0          0.00 0     \n"), std::string::npos) << out;
    EXPECT_EQ(out.find("ACTIVE SET"), std::string::npos);
}

TEST(KivlDump, UnterminatedFieldsStayInsideTheirWidth) {
    auto data = new_data();
    std::memset(data->rec.sets[0].name, 'S', sizeof data->rec.sets[0].name);
    std::memset(data->rec.partinfo[0].poolname, 'P', KIVL_POOLNAME_LEN);
    std::memset(data->rec.partinfo[0].mountpnt, 'M', KIVL_MOUNTPNT_LEN);
    std::memset(data->rec.partinfo[0].fstype, 'F', KIVL_FSTYPE_LEN);
    std::memset(data->rec.pinfometa[0].hdr.name, 'N', ZUNF_NAME_LEN);
    std::memset(data->rec.rhdr[0].release_build_id, 'B', sizeof data->rec.rhdr[0].release_build_id);
    kivl_partpool_generate(data.get());
    std::string out = captured([&] { kivl_dump_info(data.get()); });
    EXPECT_NE(out.find(" " + std::string(15, 'S') + "  1"), std::string::npos);
    EXPECT_NE(out.find(std::string(36, 'B') + "\n"), std::string::npos);
    EXPECT_NE(out.find(std::string(10, 'F') + "  " + std::string(32, 'M') + "\n"),
              std::string::npos);
    EXPECT_NE(out.find(std::string(16, 'P') + "  " + std::string(16, 'N') + "  "),
              std::string::npos);
    EXPECT_NE(out.find("  0  " + std::string(16, 'P') + "  1      singleton\n"), std::string::npos)
        << out;
}

TEST(KivlDump, Times) {
    struct Case {
        std::uint32_t t;
        const char *text;
    };
    const Case cases[] = {
        {0, "1970.01.01 00:00:00"},
        {1700000000u, "2023.11.14 22:13:20"},
        {951782400u, "2000.02.29 00:00:00"},
        {0xFFFFFFFFu, "2106.02.07 06:28:15"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(captured([&] { kivl_printf_time(c.t); }), c.text) << c.t;
}
