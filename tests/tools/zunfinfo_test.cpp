// zunfinfo on the real binary in the device sandbox: what an operator sees for good,
// broken and hostile image files. zunfinfo never touches flash, so every run must leave
// the flash event log without a single erase or write.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "mkzunf/zunf_builder.hpp"
#include "support/sandbox.hpp"

namespace {

using kiv::test::Device;
using kiv::test::SandboxResult;
using mkzunf::Bytes;
using mkzunf::ImageBuilder;

const std::string SEP = "-------------------------------------------------------\n";
const std::string NULL_PART = "WARNING: CONTENT PART IS NULL! Skipping.\n";

std::string as_text(const Bytes &b) {
    return std::string(b.begin(), b.end());
}

// One listing line: the dotted label, the value, a newline.
std::string line(const char *label, const std::string &value) {
    return std::string(label) + value + "\n";
}

std::string info_lines(int valid) {
    return line("valid...................: ", std::to_string(valid)) +
           line("covered_by_signature....: ", "0") + line("validated_by_signature..: ", "0");
}

std::string head(int i, int type, const std::string &name, int valid) {
    return SEP + "Content Part: " + std::to_string(i) + ", type " + std::to_string(type) +
           ", name " + name + "\n" + info_lines(valid);
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
const std::int32_t RELEASE_DATE_SHOWN = -268435455;

ImageBuilder release_image() {
    ImageBuilder b;
    b.add_release_header({3, 14, 1592}, RELEASE_DATE, "rel-3.14.1592",
                         "products=alpha,beta\nnightly");
    b.add_kivm("rootfs,5,7\nkernel,6,8\n");
    b.add_software("rootfs", {3, 14, 7}, "rootfs-build", mkzunf::to_bytes("root contents"));
    b.add_software("kernel", {4, 1, 65535}, "kernel-build", mkzunf::to_bytes("kern"));
    return b;
}

const std::string RELEASE_BLOCK =
    head(0, 1, "release", 1) + release_lines(3, 14, 1592, RELEASE_DATE_SHOWN, "rel-3.14.1592");
const std::string KIVM_BLOCK = head(1, 3, "kivm", 1);
const std::string ROOTFS_BLOCK = head(2, 4, "rootfs", 1) + sw_lines(3, 14, 7, "rootfs-build");
const std::string KERNEL_BLOCK = head(3, 4, "kernel", 1) + sw_lines(4, 1, 65535, "kernel-build");

class Zunfinfo : public ::testing::Test {
  protected:
    SandboxResult run(std::vector<std::string> args) {
        args.insert(args.begin(), "zunfinfo");
        SandboxResult r = dev.run_kiv(args);
        EXPECT_FALSE(r.timed_out) << r.describe();
        for (const std::string &e : r.events)
            EXPECT_TRUE(e.rfind("open", 0) == 0) << "zunfinfo changed flash: " << e;
        return r;
    }
    std::string file(const std::string &name, const Bytes &image) {
        return dev.write_file(name, as_text(image));
    }

    Device dev;
};

TEST_F(Zunfinfo, ReleaseImageShowsOnlyItsReleaseHeader) {
    SandboxResult r = run({file("rel.zunf", release_image().build())});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, RELEASE_BLOCK);
    EXPECT_EQ(r.err, "");
}

TEST_F(Zunfinfo, AllListsEveryValidPart) {
    std::string path = file("rel.zunf", release_image().build());
    for (const char *word : {"-all", "-allparts", "-all=no"}) {
        SCOPED_TRACE(word);
        SandboxResult r = run({path, word});
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.out, RELEASE_BLOCK + KIVM_BLOCK + ROOTFS_BLOCK + KERNEL_BLOCK);
        EXPECT_EQ(r.err, "");
    }
    // Only the first four characters select the mode.
    for (const char *word : {"-al", "all", "-ALL", "x-all"}) {
        SCOPED_TRACE(word);
        SandboxResult r = run({path, word});
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.out, RELEASE_BLOCK);
    }
}

// Without -all only the first 1024 bytes are read: a defect further on goes unseen, while
// -all reads the whole file and refuses it.
TEST_F(Zunfinfo, FirstOnlyReadsNoFurtherThanTheFirstKilobyte) {
    ImageBuilder b;
    b.add_release_header({3, 14, 1592}, RELEASE_DATE, "rel-3.14.1592",
                         "products=alpha,beta\nnightly");
    b.add_data("filler", Bytes(1200, 0x11));
    b.add_software("rootfs", {1, 0, 0}, "r", mkzunf::to_bytes("abc"));
    b.fault_part_hdr_crc(2);
    std::string path = file("late-defect.zunf", b.build());

    SandboxResult first = run({path});
    EXPECT_EQ(first.exit, 0) << first.describe();
    EXPECT_EQ(first.out, RELEASE_BLOCK);

    SandboxResult all = run({path, "-all"});
    EXPECT_EQ(all.exit, 9) << all.describe();
    EXPECT_EQ(all.out, "");
    EXPECT_EQ(all.err, "zunfinfo: loading ZUNF failed.\n");
}

TEST_F(Zunfinfo, FirstPartBeyondTheFirstKilobyteIsShownAsNull) {
    ImageBuilder b;
    b.add_release_header({1, 0, 0}, 1, "big", std::string(1500, 'r'));
    SandboxResult r = run({file("big-rh.zunf", b.build())});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, SEP + NULL_PART);
}

TEST_F(Zunfinfo, BodyCrcFailureIsListedWithValidMinusOne) {
    // -all lists as many slots as there are valid parts, from slot 0: the broken kivm part
    // is shown and the last part drops out.
    SandboxResult all =
        run({file("kivm-crc.zunf", release_image().fault_part_body_crc(1).build()), "-all"});
    EXPECT_EQ(all.exit, 0) << all.describe();
    EXPECT_EQ(all.out, RELEASE_BLOCK + head(1, 3, "kivm", -1) + ROOTFS_BLOCK);

    SandboxResult first =
        run({file("rh-crc.zunf", release_image().fault_part_body_crc(0).build())});
    EXPECT_EQ(first.exit, 0) << first.describe();
    EXPECT_EQ(first.out, head(0, 1, "release", -1) +
                             release_lines(3, 14, 1592, RELEASE_DATE_SHOWN, "rel-3.14.1592"));
}

// A part that claims the release type without carrying a release header must not make
// the listing read beyond the file: the missing bytes show as zero.
TEST_F(Zunfinfo, ReleaseTypeWithoutItsHeaderShowsZeros) {
    ImageBuilder b;
    b.add_raw_part(ZUNF_TYPE_RELEASE_HEADER, "short", ZUNF_CONTENT_HDR_LEN, {}, {});
    std::string path = file("short-rh.zunf", b.build());
    std::string want = head(0, 1, "short", 1) + release_lines(0, 0, 0, 0, "");
    for (std::vector<std::string> args :
         {std::vector<std::string>{path}, std::vector<std::string>{path, "-all"}}) {
        SandboxResult r = run(args);
        EXPECT_EQ(r.exit, 0) << r.describe();
        EXPECT_EQ(r.out, want);
    }
}

struct Refusal {
    const char *name;
    Bytes content;                  // written to the image file unless missing
    bool missing;                   // no file at all
    std::vector<std::string> extra; // words after the path (options included)
    int exit;
    const char *err;
};

TEST_F(Zunfinfo, RefusedFilesEndWithTheirMessageAndCode) {
    Bytes image = release_image().build();
    Bytes swapped_magic = image;
    std::copy_n(ZUNF_MAGIC + 4, 4, swapped_magic.begin());
    const std::vector<Refusal> cases = {
        {"bad magic, first half",
         release_image().fault_bad_magic(1).build(),
         false,
         {},
         9,
         "zunfinfo: no header\nzunfinfo: loading ZUNF failed.\n"},
        {"bad magic, second half",
         release_image().fault_bad_magic(2).build(),
         false,
         {"-all"},
         9,
         "zunfinfo: no header\nzunfinfo: loading ZUNF failed.\n"},
        {"magic halves swapped",
         swapped_magic,
         false,
         {},
         9,
         "zunfinfo: no header\nzunfinfo: loading ZUNF failed.\n"},
        {"version 2",
         release_image().fault_version(2).build(),
         false,
         {},
         9,
         "zunfinfo: no header\nzunfinfo: loading ZUNF failed.\n"},
        {"part header crc",
         release_image().fault_part_hdr_crc(2).build(),
         false,
         {"-all"},
         9,
         "zunfinfo: loading ZUNF failed.\n"},
        {"21 parts",
         [] {
             ImageBuilder b;
             for (int i = 0; i < 21; ++i)
                 b.add_data("p" + std::to_string(i), mkzunf::to_bytes("x"));
             return b.build();
         }(),
         false,
         {"-all"},
         9,
         "zunfinfo: loading ZUNF failed.\n"},
        // Refused before anything is read: a bad magic would otherwise be reported.
        {"over the -zunfsize limit",
         release_image().fault_bad_magic(1).build(),
         false,
         {"-zunfsize=" + std::to_string(image.size() - 1)},
         9,
         "zunfinfo: ZUNF too big\n"},
        {"header only (24 bytes)",
         Bytes(image.begin(), image.begin() + 24),
         false,
         {},
         9,
         "zunfinfo: no header\nzunfinfo: File contains no data.\n"},
        {"10 bytes",
         Bytes(image.begin(), image.begin() + 10),
         false,
         {"-all"},
         9,
         "zunfinfo: no header\nzunfinfo: File contains no data.\n"},
        {"empty file", {}, false, {}, 9, "zunfinfo: empty ZUNF\n"},
        {"missing file", {}, true, {}, 8, "zunfinfo: could not open ZUNF\n"},
    };
    for (const Refusal &c : cases) {
        SCOPED_TRACE(c.name);
        std::string path =
            c.missing ? dev.scratch_path("absent.zunf") : file("refused.zunf", c.content);
        std::vector<std::string> args{path};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        SandboxResult r = run(args);
        EXPECT_EQ(r.exit, c.exit) << r.describe();
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, "");
    }
}

TEST_F(Zunfinfo, ExactlyAtTheSizeLimitIsAccepted) {
    Bytes image = release_image().build();
    SandboxResult r = run({file("rel.zunf", image), "-zunfsize=" + std::to_string(image.size())});
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(r.out, RELEASE_BLOCK);
}

TEST_F(Zunfinfo, MissingPathIsASyntaxError) {
    SandboxResult r = run({});
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_EQ(r.err, "zunfinfo: ZUNF is missing.\n");
    EXPECT_EQ(r.out, "");
}

TEST_F(Zunfinfo, MessagesReachTheSystemLogAsErrors) {
    SandboxResult r = run({file("bad.zunf", release_image().fault_bad_magic(1).build())});
    ASSERT_EQ(r.exit, 9) << r.describe();
    std::vector<std::string> texts;
    for (const auto &line : r.syslog)
        if (line.severity == 3 && line.ident == "KIV") texts.push_back(line.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"zunfinfo: no header\n",
                                               "zunfinfo: loading ZUNF failed.\n"}));
}

} // namespace
