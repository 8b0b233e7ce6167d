// The mkzunf command as an integrator runs it: manifests and -e directives give the same
// bytes as the library (whose images zunf_builder_test reads back independently), each fault
// option gives the library's fault, and bad input is refused with exit 1, writing nothing.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "mkzunf/zunf_builder.hpp"
#include "support/sandbox.hpp"
#include "zunf/zunf_validate.hpp"

using namespace mkzunf;
namespace fs = std::filesystem;

namespace {

class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/tmp/mkzunf_test_XXXXXX";
        path_ = ::mkdtemp(tmpl);
    }
    ~TempDir() { fs::remove_all(path_); }
    std::string operator/(const std::string &name) const { return (path_ / name).string(); }
    void write(const std::string &name, const std::string &text) const {
        std::ofstream(path_ / name, std::ios::binary) << text;
    }
    std::string read(const std::string &name) const {
        std::ifstream f(path_ / name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    }
    Bytes bytes(const std::string &name) const { return to_bytes(read(name)); }
    bool exists(const std::string &name) const { return fs::exists(path_ / name); }

  private:
    fs::path path_;
};

// Runs mkzunf with args, bounded in time.
kiv::test::ProcessResult run(std::vector<std::string> args) {
    args.insert(args.begin(), kiv::test::mkzunf_bin());
    return kiv::test::run_process(args);
}

const std::string MANIFEST =
    "# release for the m1 and m2 boards\n"
    "\n"
    "release version=2.1.7 date=2024-05-01T12:00:00 build_id=REL-2.1.7 products=m1,m2 "
    "text=\"Release 2.1.7\\nBuilt by CI\"\n"
    "kivm line=2,ROOT,0,/,squashfs,-,1.2.3,1\n"
    "   kivm    line=\"3,APPL,0,/mnt/appl,jffs2,-,1.2.3,3\"\n"
    "software name=ROOT version=1.2.3 build_id=g1a2b3c file=rootfs.bin\n"
    "software name=APPL version=1.2.3 build_id=g1a2b3c size=10 fill=0x41\n";

const std::string ROOTFS = "rootfs-content-13";

ImageBuilder expected_release() {
    ImageBuilder b;
    b.add_release_header({2, 1, 7}, 1714564800, "REL-2.1.7",
                         "Release 2.1.7\nBuilt by CI\nproducts=m1,m2\n")
        .add_kivm("2,ROOT,0,/,squashfs,-,1.2.3,1\n3,APPL,0,/mnt/appl,jffs2,-,1.2.3,3\n")
        .add_software("ROOT", {1, 2, 3}, "g1a2b3c", to_bytes(ROOTFS))
        .add_software("APPL", {1, 2, 3}, "g1a2b3c", Bytes(10, 0x41));
    return b;
}

TEST(MkzunfCli, ManifestAndDirectivesGiveTheLibrarysImage) {
    TempDir dir;
    dir.write("release.manifest", MANIFEST);
    dir.write("rootfs.bin", ROOTFS);
    // Run from elsewhere: file= paths are taken from the manifest's directory.
    kiv::test::ProcessResult r =
        run({"image", "-o", dir / "manifest.zunf", dir / "release.manifest"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(dir.bytes("manifest.zunf"), expected_release().build());

    r = run({"image", "-o", dir / "directives.zunf", "-e",
             "release version=2.1.7 date=1714564800 build_id=REL-2.1.7 products=m1,m2 "
             "text=\"Release 2.1.7\nBuilt by CI\"",
             "-e", "kivm line=2,ROOT,0,/,squashfs,-,1.2.3,1", "--directive",
             "kivm text=\"3,APPL,0,/mnt/appl,jffs2,-,1.2.3,3\\n\"", "-e",
             "software name=ROOT version=1.2.3 build_id=g1a2b3c file=" + (dir / "rootfs.bin"), "-e",
             "software name=APPL version=1.2.3 build_id=g1a2b3c text=AAAAAAAAAA"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_EQ(dir.bytes("directives.zunf"), expected_release().build());
}

TEST(MkzunfCli, VerboseListsThePartsOnStandardError) {
    kiv::test::ProcessResult r = run({"image", "-v", "-o", "-", "-e", "data name=a text=xyz"});
    ASSERT_EQ(r.exit, 0) << r.err;
    ImageBuilder b;
    b.add_data("a", to_bytes("xyz"));
    EXPECT_EQ(to_bytes(r.out), b.build());
    EXPECT_EQ(r.err, "image: 60 bytes\n"
                     "part 0: offset 24 type 3 hdr_length 32 body_length 3 name \"a\"\n");
}

TEST(MkzunfCli, EachFaultOptionGivesTheLibrarysFault) {
    const std::pair<std::vector<std::string>, std::function<void(ImageBuilder &)>> cases[] = {
        {{"--bad-part-hdr-crc=1"}, [](ImageBuilder &b) { b.fault_part_hdr_crc(1); }},
        {{"--bad-part-body-crc", "2"}, [](ImageBuilder &b) { b.fault_part_body_crc(2); }},
        {{"--part-hdr-length=3:31"}, [](ImageBuilder &b) { b.fault_part_hdr_length(3, 31); }},
        {{"--bad-hdr-crc"}, [](ImageBuilder &b) { b.fault_image_hdr_crc(); }},
        {{"--bad-body-crc"}, [](ImageBuilder &b) { b.fault_image_body_crc(); }},
        {{"--bad-magic=1"}, [](ImageBuilder &b) { b.fault_bad_magic(1); }},
        {{"--bad-magic=2"}, [](ImageBuilder &b) { b.fault_bad_magic(2); }},
        {{"--set-version=2"}, [](ImageBuilder &b) { b.fault_version(2); }},
        {{"--image-hdr-length=15"}, [](ImageBuilder &b) { b.fault_image_hdr_length(15); }},
        {{"--truncate=100"}, [](ImageBuilder &b) { b.fault_truncate(100); }},
        {{"--append=deadbeef"},
         [](ImageBuilder &b) {
             b.fault_append(Bytes{0xDE, 0xAD, 0xBE, 0xEF});
         }},
    };
    TempDir dir;
    dir.write("release.manifest", MANIFEST);
    dir.write("rootfs.bin", ROOTFS);
    for (const auto &[option, fault] : cases) {
        SCOPED_TRACE(option.front());
        std::vector<std::string> args = {"image", "-o", dir / "bad.zunf", dir / "release.manifest"};
        args.insert(args.end(), option.begin(), option.end());
        kiv::test::ProcessResult r = run(args);
        ASSERT_EQ(r.exit, 0) << r.err;
        ImageBuilder b = expected_release();
        fault(b);
        EXPECT_EQ(dir.bytes("bad.zunf"), b.build());
    }
}

TEST(MkzunfCli, HostconfigCommandWritesDataParts) {
    TempDir dir;
    dir.write("kiv.bin", std::string(2964, 'k'));
    dir.write("hc.manifest", "data name=vendor text=abcde\n");
    kiv::test::ProcessResult r =
        run({"hostconfig", "-o", dir / "hc.bin", "--data", "KIV data=" + (dir / "kiv.bin"),
             dir / "hc.manifest", "--pad=5120"});
    ASSERT_EQ(r.exit, 0) << r.err;
    // Manifest directives come first, then --data parts; erased flash after them.
    Bytes expect =
        build_hostconfig({{"vendor", to_bytes("abcde")}, {"KIV data", Bytes(2964, 'k')}});
    expect.resize(5120, 0xFF);
    EXPECT_EQ(dir.bytes("hc.bin"), expect);
}

TEST(MkzunfCli, PartitionCommandLaysOutTheSoftwareBlock) {
    struct Case {
        const char *fault;
        int hdr;
        int body;
    };
    const Case cases[] = {
        {nullptr, ZUNF_VALID, ZUNF_VALID},
        {"--bad-block-body-crc", ZUNF_VALID, ZUNF_ERR_BODY_CRC},
        {"--bad-block-hdr-crc", ZUNF_ERR_HDR_CRC, ZUNF_VALID},
    };
    TempDir dir;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fault ? c.fault : "clean");
        std::vector<std::string> args = {"partition",
                                         "-o",
                                         dir / "p.bin",
                                         "--wts=3",
                                         "--name",
                                         "ROOT-SAFE",
                                         "--version=1.2.3",
                                         "--build-id=bid",
                                         "--text=0123456789",
                                         "--pad=256"};
        if (c.fault) args.push_back(c.fault);
        kiv::test::ProcessResult r = run(args);
        ASSERT_EQ(r.exit, 0) << r.err;
        Bytes p = dir.bytes("p.bin");
        Bytes clean = build_partition(3, "ROOT-SAFE", {1, 2, 3}, "bid", to_bytes("0123456789"));
        clean.resize(256, 0xFF); // erased flash after the block
        ASSERT_EQ(p.size(), clean.size());
        EXPECT_EQ(p == clean, c.fault == nullptr);
        const auto *blk = reinterpret_cast<const zunf_content_header *>(p.data() + 12);
        EXPECT_EQ(zunf_validate_content_header(blk), c.hdr);
        EXPECT_EQ(zunf_validate_content_body(blk, p.data()), c.body);
    }

    kiv::test::ProcessResult r =
        run({"partition", "-o", dir / "p2.bin", "--wts", "2", "--name=KNL-SAFE", "--version=1.0.0",
             "--size=5", "--fill=7"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_EQ(dir.bytes("p2.bin"), build_partition(2, "KNL-SAFE", {1, 0, 0}, "", Bytes(5, 7)));
}

TEST(MkzunfCli, BadInputIsRefusedWithExit1AndNoOutput) {
    TempDir dir;
    dir.write("bad.manifest", "data name=a text=x\nrelease version=1.0\n");
    const std::string out = dir / "out.bin";
    const std::pair<std::vector<std::string>, const char *> cases[] = {
        {{}, "missing command"},
        {{"image", "-e", "data name=a text=x"}, "missing -o OUT"},
        {{"frobnicate", "-o", out}, "unknown command 'frobnicate'"},
        {{"image", "-o", out}, "no parts given"},
        {{"image", "-o", out, dir / "bad.manifest"},
         "bad.manifest:2: invalid version '1.0' (expected MAJOR.MINOR.BUILD)"},
        {{"image", "-o", out, dir / "missing.manifest"}, "cannot open"},
        {{"image", "-o", out, "-e", "bogus name=a"}, "unknown directive 'bogus'"},
        {{"image", "-o", out, "-e", "data name=a text=x colour=red"}, "data: unknown key 'colour'"},
        {{"image", "-o", out, "-e", "data name=a text=x name=b"}, "key 'name' given twice"},
        {{"image", "-o", out, "-e", "data name=a"}, "give exactly one of file=, text=, size="},
        {{"image", "-o", out, "-e", "data name=a file=/nonexistent/f"},
         "cannot open /nonexistent/f"},
        {{"image", "-o", out, "-e", "data name=a text=\"open"}, "unterminated quoted value"},
        {{"image", "-o", out, "-e", "data name"}, "expected key=value, got 'name'"},
        {{"image", "-o", out, "-e", "kivm line=a text=b"}, "kivm: give exactly one of"},
        {{"image", "-o", out, "-e", "release version=1.0.0 date=yesterday"},
         "invalid date 'yesterday'"},
        {{"image", "-o", out, "-e", "software version=1.0.0 text=x"}, "software: missing name="},
        {{"image", "-o", out, "-e", "data name=a text=xyz", "--pad=10"},
         "output of 60 bytes does not fit --pad=10"},
        {{"image", "-o", out, "-e", "data name=a text=x", "--bad-magic=3"},
         "invalid magic half '3'"},
        {{"image", "-o", out, "-e", "data name=a text=x", "--append=abc"},
         "odd number of hex digits"},
        {{"image", "-o", out, "-e", "data name=a text=x", "--wts=1"},
         "unexpected argument '--wts=1'"},
        {{"hostconfig", "-o", out, "-e", "release version=1.0.0"},
         "a hostconfig image holds only data and raw parts"},
        {{"partition", "-o", out, "--name=A", "--version=1.0.0", "--text=x"}, "missing --wts"},
        {{"partition", "-o", out, "--wts=4", "--name=A", "--version=1.0.0", "--text=x"},
         "invalid wts '4'"},
        {{"partition", "-o", out, "--wts=1", "--name=A", "--version=1.0.0"},
         "give exactly one of --file, --text, --size"},
        {{"image", "-o", dir / "no/such/dir/out.bin", "-e", "data name=a text=x"}, "cannot open"},
    };
    for (const auto &[args, message] : cases) {
        SCOPED_TRACE(message);
        kiv::test::ProcessResult r = run(args);
        EXPECT_EQ(r.exit, 1);
        EXPECT_EQ(r.err.rfind("mkzunf: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
        EXPECT_FALSE(dir.exists("out.bin"));
    }
}

TEST(MkzunfCli, HelpPrintsUsage) {
    kiv::test::ProcessResult r = run({"--help"});
    EXPECT_EQ(r.exit, 0);
    EXPECT_EQ(r.out.rfind("usage: mkzunf image", 0), 0u) << r.out;
}

} // namespace
