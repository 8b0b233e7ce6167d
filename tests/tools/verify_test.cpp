// The partition content check on partitions stood in for by files: every layout an install
// writes, every way a partition can fail to match, and the per-set check with its report.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "common/cat.hpp"
#include "common/temp_dir.hpp"
#include "front/fd_capture.hpp"
#include "kivl/kivl.hpp"
#include "mkzunf/zunf_builder.hpp"
#include "tools/verify.hpp"

// Counts the heap allocations of the code under test. glibc's allocator stays in charge;
// under AddressSanitizer, which owns malloc itself, the count is not taken.
#if !defined(__SANITIZE_ADDRESS__)
extern "C" void *__libc_malloc(std::size_t size);
namespace {
bool counting = false;
int allocations = 0;
} // namespace
extern "C" void *malloc(std::size_t size) {
    if (counting) ++allocations;
    return __libc_malloc(size);
}
#define KIV_COUNTS_ALLOCATIONS 1
#endif

namespace {

using mkzunf::Bytes;

Bytes pattern_bytes(std::size_t n, std::uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i)
        b[i] = static_cast<std::uint8_t>(seed + i * 7 + (i >> 8));
    return b;
}

// An upgrade data object whose partition devices are files part<pn> in a scratch directory.
class Partitions : public ::testing::Test {
  protected:
    void SetUp() override {
        kivl_init(&data);
        pattern = dir.file("part%i");
        data.device = pattern.c_str();
        for (auto &set : data.rec.sets)
            for (auto &ref : set.refs)
                ref = -1;
    }

    std::string device(int pn) const { return dir.file("part" + std::to_string(pn)); }

    // Records content for entry i (device part<pn>) and writes the partition in layout wts;
    // the partition is padded like erased flash.
    void install(int i, int wts, const Bytes &content, int pn = -1, const char *pool = "POOL") {
        pn = pn < 0 ? i : pn;
        zunf_pinfometa block =
            mkzunf::make_software_block("sw" + std::to_string(i), {1, 2, 3}, "b", content);
        data.rec.pinfometa[i] = block;
        data.rec.partinfo[i].pn = static_cast<std::uint8_t>(pn);
        std::snprintf(data.rec.partinfo[i].poolname, sizeof data.rec.partinfo[i].poolname, "%s",
                      pool);
        Bytes flash = mkzunf::build_partition(wts, block, content);
        mkzunf::pad_to(flash, flash.size() + 1000);
        write_bytes(device(pn), flash);
    }

    void refs(int set, std::vector<int> list) {
        for (std::size_t k = 0; k < list.size(); ++k)
            data.rec.sets[set].refs[k] = static_cast<std::int8_t>(list[k]);
    }

    TempDir dir;
    std::string pattern;
    kivl_data data;
};

TEST_F(Partitions, EachLayoutIsFoundWhereTheInstallPutsIt) {
    // Sizes around the 4096-byte chunk so that the chained CRC is exercised across reads.
    for (std::size_t size : {1u, 10u, 4095u, 4096u, 4097u, 8192u, 3u * 4096u + 123u}) {
        SCOPED_TRACE(size);
        const Bytes content = pattern_bytes(size, static_cast<std::uint8_t>(size));
        struct Row {
            int written;
            int checked;
            int expected;
        };
        const Row rows[] = {
            {1, 1, KIV_CRC_OK},         {1, 3, KIV_CRC_OK},       // body from offset 0 alike
            {1, 2, KIV_CRC_UNREADABLE},                           // no header in front
            {2, 2, KIV_CRC_OK},         {2, 1, KIV_CRC_MISMATCH}, // the header is read as content
            {3, 3, KIV_CRC_OK},         {3, 1, KIV_CRC_OK},       {3, 2, KIV_CRC_UNREADABLE},
        };
        for (const Row &row : rows) {
            SCOPED_TRACE(::testing::Message()
                         << "written " << row.written << " checked " << row.checked);
            install(4, row.written, content);
            EXPECT_EQ(crc32_check(&data, 4, row.checked), row.expected);
        }
        // The last byte of the last chunk differs.
        install(4, 1, content);
        Bytes flash = read_bytes(device(4));
        flash[size - 1] ^= 0x01;
        write_bytes(device(4), flash);
        EXPECT_EQ(crc32_check(&data, 4, 1), KIV_CRC_MISMATCH);
    }
}

// The check runs inside the install's critical region: a partition of many chunks is read
// without touching the heap.
TEST_F(Partitions, NoAllocationWhileChecking) {
#ifdef KIV_COUNTS_ALLOCATIONS
    install(9, 2, pattern_bytes(5 * 4096 + 1, 9));
    counting = true;
    allocations = 0;
    const int ok = crc32_check(&data, 9, 2);
    const int mismatch = crc32_check(&data, 9, 1);
    counting = false;
    EXPECT_EQ(ok, KIV_CRC_OK);
    EXPECT_EQ(mismatch, KIV_CRC_MISMATCH);
    EXPECT_EQ(allocations, 0);

    // The counter sees what a stdio stream costs.
    counting = true;
    std::FILE *f = std::fopen(device(9).c_str(), "r");
    counting = false;
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    EXPECT_GT(allocations, 0);
#else
    GTEST_SKIP() << "the sanitizer owns the allocator";
#endif
}

// Devices that end early, cannot be read or are not the recorded partition; and a
// partition without a recorded content is not even opened.
TEST_F(Partitions, PartitionsThatCannotBeChecked) {
    const Bytes content = pattern_bytes(3 * 4096 + 17, 9);
    auto rewrite = [&](int i, std::size_t keep, std::size_t flip) {
        Bytes flash = read_bytes(device(i));
        if (flip < flash.size()) flash[flip] ^= 0x80;
        flash.resize(std::min(keep, flash.size()));
        write_bytes(device(i), flash);
    };
    const std::size_t none = SIZE_MAX;
    install(1, 1, content);
    rewrite(1, 5000, none); // ends inside the content: what there is is compared
    EXPECT_EQ(crc32_check(&data, 1, 1), KIV_CRC_MISMATCH);
    install(2, 2, content);
    rewrite(2, none, 40); // the header in front differs from the recorded one (sw_build_id)
    EXPECT_EQ(crc32_check(&data, 2, 2), KIV_CRC_UNREADABLE);
    install(3, 2, content);
    rewrite(3, 63, none); // ends inside the header
    EXPECT_EQ(crc32_check(&data, 3, 2), KIV_CRC_UNREADABLE);
    install(4, 1, content, 17); // partition 17, found there
    EXPECT_EQ(crc32_check(&data, 4, 1), KIV_CRC_OK);
    data.rec.partinfo[4].pn = 4; // nothing there
    EXPECT_EQ(crc32_check(&data, 4, 1), KIV_CRC_UNREADABLE);

    install(6, 1, content);
    ::unlink(device(6).c_str());
    for (int wts : {1, 2, 3})
        EXPECT_EQ(crc32_check(&data, 6, wts), KIV_CRC_UNREADABLE);
    ASSERT_EQ(::mkdir(device(6).c_str(), 0700), 0); // opens, but every read fails
    for (int wts : {1, 2, 3})
        EXPECT_EQ(crc32_check(&data, 6, wts), KIV_CRC_UNREADABLE);
    ::rmdir(device(6).c_str());
    data.rec.pinfometa[6].hdr.body_length = 0;
    for (int wts : {1, 2, 3})
        EXPECT_EQ(crc32_check(&data, 6, wts), KIV_CRC_NOT_RECORDED);

    // A device path too long for its field: a file exists under the cut name, and the
    // check must not read it.
    const std::string long_pattern = dir.file(std::string(120, 'x') + "%i");
    install(0, 1, content);
    data.device = long_pattern.c_str();
    EXPECT_EQ(crc32_check(&data, 0, 1), KIV_CRC_UNREADABLE);
}

TEST_F(Partitions, RecordedHeaderLengthsThatCannotBeCompared) {
    const Bytes content = pattern_bytes(200, 3);
    install(7, 2, content);
    ASSERT_EQ(crc32_check(&data, 7, 2), KIV_CRC_OK);
    for (std::uint16_t length :
         {std::uint16_t{0}, std::uint16_t{65}, std::uint16_t{4097}, std::uint16_t{0xFFFF}}) {
        SCOPED_TRACE(length);
        data.rec.pinfometa[7].hdr.hdr_length = length;
        EXPECT_EQ(crc32_check(&data, 7, 2), KIV_CRC_UNREADABLE);
        // The other layouts do not look at the header.
        install(8, 1, content);
        data.rec.pinfometa[8].hdr.hdr_length = length;
        EXPECT_EQ(crc32_check(&data, 8, 1), KIV_CRC_OK);
    }
}

TEST(DevicePath, PatternsAndBounds) {
    struct Row {
        std::string pattern;
        int pn;
        std::string path; // "" when refused
    };
    const std::string long_dir = cat("/", std::string(94, 'd'), "/"); // 96 characters
    const std::vector<Row> rows = {
        {"/dev/mtd%i", 5, "/dev/mtd5"},
        {"/dev/mtd%d", 19, "/dev/mtd19"},
        {"/dev/p%03d", 7, "/dev/p007"},
        {"/dev/100%%/p%i", 1, "/dev/100%/p1"},
        {long_dir + "p%i", 1, long_dir + "p1"},   // 98
        {long_dir + "p%i", 12, long_dir + "p12"}, // 99
        {long_dir + "p%i", 123, ""},              // 100
        {"/dev/mtd", 1, ""},
        {"/dev/mtd%i%i", 1, ""},
        {"/dev/%s", 1, ""},
        {"/dev/mtd%", 1, ""},
        {"/dev/mtd%ld", 1, ""},
        {"/dev/mtd%200i", 1, ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.pattern);
        char out[KIV_DEVICE_PATH_MAX + 1];
        const int n = kiv_device_path(out, sizeof out, row.pattern.c_str(), row.pn);
        EXPECT_EQ(n, row.path.empty() ? -1 : static_cast<int>(row.path.size()));
        EXPECT_EQ(std::string(out), row.path);
    }
    char small[8];
    EXPECT_EQ(kiv_device_path(small, sizeof small, "/dev/mtd%i", 10), -1);
    EXPECT_EQ(std::string(small), "");
}

struct SetReport {
    int result;
    std::string out;
};

SetReport run_verify_set(const kivl_data &data, int set, int verbose) {
    kiv_options options{};
    FdCapture out(1);
    int r = verify_set(&options, &data, set, verbose);
    return {r, out.text()};
}

TEST_F(Partitions, ReferencesOutsideTheTableAndFullLists) {
    install(0, 1, pattern_bytes(64, 1), -1, "P");
    // 20 references and no terminator: all are checked, nothing behind them is read.
    for (auto &ref : data.rec.sets[0].refs)
        ref = 0;
    EXPECT_EQ(run_verify_set(data, 0, 0).result, 0);

    // A reference that names no partition info entry counts as bad.
    data.rec.sets[0].refs[19] = 100;
    SetReport r = run_verify_set(data, 0, 1);
    EXPECT_EQ(r.result, KIV_CRC_UNREADABLE);
    EXPECT_NE(r.out.find("verify_set:   ref 100: " + std::string(25, ' ') + ": bad\n"),
              std::string::npos)
        << r.out;
}

TEST_F(Partitions, FieldsWithoutTerminatorArePrintedWithinTheirWidth) {
    install(0, 1, pattern_bytes(64, 1), -1, "P");
    std::memset(data.rec.sets[0].name, 'N', sizeof data.rec.sets[0].name);
    std::memset(data.rec.partinfo[0].poolname, 'Q', sizeof data.rec.partinfo[0].poolname);
    refs(0, {0, -1});
    SetReport r = run_verify_set(data, 0, 1);
    EXPECT_EQ(r.out, "verify_set: Set 0: " + std::string(15, 'N') +
                         "\nverify_set:   ref  0: " + std::string(16, 'Q') + " sw0         : ok\n");
}

} // namespace
