// zunfinfo on the real binary in the device sandbox: what an operator sees for good,
// broken and hostile image files. zunfinfo never touches flash.
#include <gtest/gtest.h>

#include "common/cat.hpp"

#include <cstdint>
#include <string>
#include <vector>

#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;
using mkzunf::ImageBuilder;

const std::string SEP = "-------------------------------------------------------\n";

// One listing line: the dotted label, the value, a newline.
std::string line(const char *label, const std::string &value) {
    return std::string(label) + value + "\n";
}

std::string head(int i, int type, const std::string &name, int valid) {
    return SEP + "Content Part: " + std::to_string(i) + ", type " + std::to_string(type) +
           ", name " + name + "\n" + line("valid...................: ", std::to_string(valid)) +
           line("covered_by_signature....: ", "0") + line("validated_by_signature..: ", "0");
}

std::string release_lines(int major, int minor, int build, std::int32_t date,
                          const std::string &id) {
    return line("release_version_major..: ", std::to_string(major)) +
           line("release_version_minor..: ", std::to_string(minor)) +
           line("release_build_number...: ", std::to_string(build)) +
           line("release_date...........: ", std::to_string(date)) +
           line("release_build_id.......: ", id);
}

std::string sw_lines(int major, int minor, int build, const std::string &id) {
    return line("sw_version_major..: ", std::to_string(major)) +
           line("sw_version_minor..: ", std::to_string(minor)) +
           line("sw_build_number...: ", std::to_string(build)) + line("sw_build_id.......: ", id);
}

constexpr std::uint32_t RELEASE_DATE = 0xF0000001u; // shown as a signed number

ImageBuilder release_image() {
    ImageBuilder b;
    b.add_release_header({3, 14, 1592}, RELEASE_DATE, "rel-3.14.1592",
                         "products=alpha,beta\nnightly");
    b.add_kivm("rootfs,5,7\nkernel,6,8\n");
    b.add_software("rootfs", {3, 14, 7}, "rootfs-build", mkzunf::to_bytes("root contents"));
    b.add_software("kernel", {4, 1, 65535}, "kernel-build", mkzunf::to_bytes("kern"));
    return b;
}

const std::string RELEASE_LINES = release_lines(3, 14, 1592, -268435455, "rel-3.14.1592");
const std::string RELEASE_BLOCK = head(0, 1, "release", 1) + RELEASE_LINES;
const std::string ROOTFS_BLOCK = head(2, 4, "rootfs", 1) + sw_lines(3, 14, 7, "rootfs-build");
const std::string ALL_BLOCKS = RELEASE_BLOCK + head(1, 3, "kivm", 1) + ROOTFS_BLOCK +
                               head(3, 4, "kernel", 1) + sw_lines(4, 1, 65535, "kernel-build");

struct Row {
    const char *name;
    Bytes image; // written to the image file; a missing file when name starts with "missing"
    std::vector<std::string> extra; // words after the path (options included)
    int exit;
    std::string out;
    std::string err; // each line logged as an error as well
};

TEST(Zunfinfo, ListingsRefusalsAndExitCodes) {
    const Bytes image = release_image().build();
    Bytes swapped_magic = image;
    std::copy_n(ZUNF_MAGIC + 4, 4, swapped_magic.begin());
    // Without -all only the first 1024 bytes are read: a defect further on goes unseen.
    ImageBuilder late;
    late.add_release_header({3, 14, 1592}, RELEASE_DATE, "rel-3.14.1592", "products=alpha");
    late.add_data("filler", Bytes(1200, 0x11));
    late.add_software("rootfs", {1, 0, 0}, "r", mkzunf::to_bytes("abc"));
    const Bytes late_defect = late.fault_part_hdr_crc(2).build();
    ImageBuilder big_release;
    big_release.add_release_header({1, 0, 0}, 1, "big", std::string(1500, 'r'));
    // A part that claims the release type without carrying a release header must not make
    // the listing read beyond the file: the missing bytes show as zero.
    ImageBuilder short_release;
    short_release.add_raw_part(ZUNF_TYPE_RELEASE_HEADER, "short", ZUNF_CONTENT_HDR_LEN, {}, {});
    const std::string short_listing = head(0, 1, "short", 1) + release_lines(0, 0, 0, 0, "");
    ImageBuilder many;
    for (int i = 0; i < 21; ++i)
        many.add_data(cat("p", std::to_string(i)), mkzunf::to_bytes("x"));
    const std::string no_header = "zunfinfo: no header\n";
    const std::string failed = "zunfinfo: loading ZUNF failed.\n";
    const std::string no_data = "zunfinfo: File contains no data.\n";
    const std::string size = std::to_string(image.size());

    const std::vector<Row> rows = {
        {"release", image, {}, 0, RELEASE_BLOCK, ""},
        {"release", image, {"-all"}, 0, ALL_BLOCKS, ""},
        {"release", image, {"-allparts"}, 0, ALL_BLOCKS, ""},
        {"release", image, {"-all=no"}, 0, ALL_BLOCKS, ""},
        // Only the first four characters select the mode.
        {"release", image, {"-al"}, 0, RELEASE_BLOCK, ""},
        {"release", image, {"all"}, 0, RELEASE_BLOCK, ""},
        {"release", image, {"-ALL"}, 0, RELEASE_BLOCK, ""},
        {"release", image, {"x-all"}, 0, RELEASE_BLOCK, ""},
        {"at the size limit", image, {"-zunfsize=" + size}, 0, RELEASE_BLOCK, ""},
        {"late defect", late_defect, {}, 0, RELEASE_BLOCK, ""},
        {"late defect", late_defect, {"-all"}, 9, "", failed},
        {"first part beyond 1 KiB",
         big_release.build(),
         {},
         0,
         SEP + "WARNING: CONTENT PART IS NULL! Skipping.\n",
         ""},
        // -all lists as many slots as there are valid parts, from slot 0: the broken kivm
        // part is shown and the last part drops out.
        {"kivm body crc",
         release_image().fault_part_body_crc(1).build(),
         {"-all"},
         0,
         RELEASE_BLOCK + head(1, 3, "kivm", -1) + ROOTFS_BLOCK,
         ""},
        {"release body crc",
         release_image().fault_part_body_crc(0).build(),
         {},
         0,
         head(0, 1, "release", -1) + RELEASE_LINES,
         ""},
        {"release type, no header", short_release.build(), {}, 0, short_listing, ""},
        {"release type, no header", short_release.build(), {"-all"}, 0, short_listing, ""},
        {"bad magic, first half",
         release_image().fault_bad_magic(1).build(),
         {},
         9,
         "",
         no_header + failed},
        {"bad magic, second half",
         release_image().fault_bad_magic(2).build(),
         {"-all"},
         9,
         "",
         no_header + failed},
        {"magic halves swapped", swapped_magic, {}, 9, "", no_header + failed},
        {"version 2", release_image().fault_version(2).build(), {}, 9, "", no_header + failed},
        {"part header crc", release_image().fault_part_hdr_crc(2).build(), {"-all"}, 9, "", failed},
        {"21 parts", many.build(), {"-all"}, 9, "", failed},
        // Refused before anything is read: a bad magic would otherwise be reported.
        {"over the -zunfsize limit",
         release_image().fault_bad_magic(1).build(),
         {"-zunfsize=" + std::to_string(image.size() - 1)},
         9,
         "",
         "zunfinfo: ZUNF too big\n"},
        {"header only (24 bytes)",
         Bytes(image.begin(), image.begin() + 24),
         {},
         9,
         "",
         no_header + no_data},
        {"10 bytes",
         Bytes(image.begin(), image.begin() + 10),
         {"-all"},
         9,
         "",
         no_header + no_data},
        {"empty file", {}, {}, 9, "", "zunfinfo: empty ZUNF\n"},
        {"missing file", {}, {}, 8, "", "zunfinfo: could not open ZUNF\n"},
    };
    Device dev;
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << row.name << " " << testing::PrintToString(row.extra));
        const std::string path =
            std::string(row.name).starts_with("missing")
                ? dev.scratch_path("absent.zunf")
                : dev.write_file("image.zunf", std::string(row.image.begin(), row.image.end()));
        std::vector<std::string> args = {"zunfinfo", path};
        args.insert(args.end(), row.extra.begin(), row.extra.end());
        SandboxResult r = kiv_on(dev, args);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.err);
        std::vector<SyslogLine> log;
        for (std::size_t at = 0; at < row.err.size(); at = row.err.find('\n', at) + 1)
            log.push_back(logged(LOG_ERR, row.err.substr(at, row.err.find('\n', at) + 1 - at)));
        EXPECT_EQ(r.syslog, log);
        expect_flash_untouched(r);
    }

    SandboxResult r = kiv_on(dev, {"zunfinfo"});
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_EQ(r.err, "zunfinfo: ZUNF is missing.\n");
    EXPECT_EQ(r.syslog, std::vector{logged(LOG_ERR, "zunfinfo: ZUNF is missing.\n")});
    EXPECT_EQ(r.out, "");
}

} // namespace
