// The mkzunf command as an integrator runs it: manifests and -e directives give the same
// bytes as the library, each fault option gives its one defect, and bad input is refused
// with exit 1 and a message, writing nothing.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "mkzunf/image_decode.hpp"
#include "mkzunf/zunf_builder.hpp"
#include "zunf/zunf_validate.hpp"

using namespace mkzunf;
namespace fs = std::filesystem;

namespace {

constexpr unsigned CHILD_TIME_LIMIT_S = 30;

struct Result {
    int exit = -1;
    std::string out;
    std::string err;
};

// Runs mkzunf with args. The child arms an alarm before exec, so a hung tool is killed
// by SIGALRM instead of hanging the test.
Result run(const std::vector<std::string> &args) {
    int out_pipe[2];
    int err_pipe[2];
    if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) return {};
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        close(out_pipe[0]);
        close(err_pipe[0]);
        close(out_pipe[1]);
        close(err_pipe[1]);
        alarm(CHILD_TIME_LIMIT_S);
        std::vector<char *> argv;
        std::string prog = MKZUNF_PATH;
        argv.push_back(prog.data());
        std::vector<std::string> copy = args;
        for (std::string &a : copy)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(prog.c_str(), argv.data());
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    Result r;
    pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    std::string *sinks[2] = {&r.out, &r.err};
    int open_fds = 2;
    while (open_fds > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<std::size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_fds;
            }
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    r.exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return r;
}

class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/tmp/mkzunf_test_XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir() { fs::remove_all(path_); }
    std::string operator/(const std::string &name) const { return (path_ / name).string(); }

    void write(const std::string &name, const std::string &text) const {
        std::ofstream(path_ / name, std::ios::binary) << text;
    }
    Bytes read(const std::string &name) const {
        std::ifstream f(path_ / name, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    }
    bool exists(const std::string &name) const { return fs::exists(path_ / name); }

  private:
    fs::path path_;
};

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

TEST(MkzunfCli, ManifestGivesTheLibrarysImage) {
    TempDir dir;
    dir.write("release.manifest", MANIFEST);
    dir.write("rootfs.bin", ROOTFS);
    // Run from elsewhere: file= paths are taken from the manifest's directory.
    Result r = run({"image", "-o", dir / "out.zunf", dir / "release.manifest"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_EQ(r.out, "");
    Bytes img = dir.read("out.zunf");
    EXPECT_EQ(img, expected_release().build());

    decode::Image d = decode::read(img);
    ASSERT_TRUE(d.well_formed);
    EXPECT_TRUE(d.hdr_crc_ok && d.body_crc_ok);
    ASSERT_EQ(d.parts.size(), 4u);
    EXPECT_EQ(decode::u32(d.parts[0].type_header, 4), 1714564800u);
    EXPECT_EQ(std::string(d.parts[2].body.begin(), d.parts[2].body.end()), ROOTFS);
}

TEST(MkzunfCli, CommandLineDirectivesEqualTheManifest) {
    TempDir dir;
    dir.write("rootfs.bin", ROOTFS);
    std::string rootfs = dir / "rootfs.bin";
    Result r = run({"image", "-o", dir / "out.zunf", "-e",
                    "release version=2.1.7 date=1714564800 build_id=REL-2.1.7 products=m1,m2 "
                    "text=\"Release 2.1.7\nBuilt by CI\"",
                    "-e", "kivm line=2,ROOT,0,/,squashfs,-,1.2.3,1", "--directive",
                    "kivm text=\"3,APPL,0,/mnt/appl,jffs2,-,1.2.3,3\\n\"", "-e",
                    "software name=ROOT version=1.2.3 build_id=g1a2b3c file=" + rootfs, "-e",
                    "software name=APPL version=1.2.3 build_id=g1a2b3c text=AAAAAAAAAA"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_EQ(dir.read("out.zunf"), expected_release().build());
}

TEST(MkzunfCli, VerboseListsThePartsOnStandardError) {
    TempDir dir;
    Result r = run({"image", "-v", "-o", "-", "-e", "data name=a text=xyz"});
    ASSERT_EQ(r.exit, 0) << r.err;
    ImageBuilder b;
    b.add_data("a", to_bytes("xyz"));
    Bytes expect = b.build();
    EXPECT_EQ(r.out, std::string(expect.begin(), expect.end()));
    EXPECT_EQ(r.err, "image: 60 bytes\n"
                     "part 0: offset 24 type 3 hdr_length 32 body_length 3 name \"a\"\n");
}

TEST(MkzunfCli, EachFaultOptionMatchesTheLibraryFault) {
    struct Case {
        std::vector<std::string> option;
        std::function<void(ImageBuilder &)> fault;
        int header;
        int body;
    };
    const Case cases[] = {
        {{"--bad-part-hdr-crc=1"}, [](ImageBuilder &b) { b.fault_part_hdr_crc(1); }, 1, 1},
        {{"--bad-part-body-crc", "2"}, [](ImageBuilder &b) { b.fault_part_body_crc(2); }, 1, 1},
        {{"--part-hdr-length=3:31"}, [](ImageBuilder &b) { b.fault_part_hdr_length(3, 31); }, 1, 1},
        {{"--bad-hdr-crc"}, [](ImageBuilder &b) { b.fault_image_hdr_crc(); }, ZUNF_ERR_HDR_CRC, 1},
        {{"--bad-body-crc"},
         [](ImageBuilder &b) { b.fault_image_body_crc(); },
         1,
         ZUNF_ERR_BODY_CRC},
        {{"--bad-magic=1"}, [](ImageBuilder &b) { b.fault_bad_magic(1); }, 1, 1},
        {{"--bad-magic=2"}, [](ImageBuilder &b) { b.fault_bad_magic(2); }, 1, 1},
        {{"--set-version=2"}, [](ImageBuilder &b) { b.fault_version(2); }, ZUNF_ERR_VERSION, 1},
        {{"--image-hdr-length=15"},
         [](ImageBuilder &b) { b.fault_image_hdr_length(15); },
         ZUNF_ERR_HDR_LENGTH,
         1},
        {{"--truncate=100"}, [](ImageBuilder &b) { b.fault_truncate(100); }, 1, 0},
        {{"--append=deadbeef"},
         [](ImageBuilder &b) {
             b.fault_append(Bytes{0xDE, 0xAD, 0xBE, 0xEF});
         },
         1,
         1},
    };
    TempDir dir;
    dir.write("release.manifest", MANIFEST);
    dir.write("rootfs.bin", ROOTFS);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.option.front());
        std::vector<std::string> args = {"image", "-o", dir / "bad.zunf", dir / "release.manifest"};
        args.insert(args.end(), c.option.begin(), c.option.end());
        Result r = run(args);
        ASSERT_EQ(r.exit, 0) << r.err;
        Bytes img = dir.read("bad.zunf");
        ImageBuilder b = expected_release();
        c.fault(b);
        EXPECT_EQ(img, b.build());
        ASSERT_GE(img.size(), 24u);
        const auto *h = reinterpret_cast<const zunf_image_header *>(img.data() + 8);
        EXPECT_EQ(zunf_validate_header(h), c.header);
        if (c.body != 0) {
            EXPECT_EQ(zunf_validate_body(h, img.data() + 24), c.body);
        }
    }
}

TEST(MkzunfCli, HostconfigCommandWritesDataParts) {
    TempDir dir;
    dir.write("kiv.bin", std::string(2964, 'k'));
    dir.write("hc.manifest", "data name=vendor text=abcde\n");
    Result r = run({"hostconfig", "-o", dir / "hc.bin", "--data", "KIV data=" + (dir / "kiv.bin"),
                    dir / "hc.manifest", "--pad=5120"});
    ASSERT_EQ(r.exit, 0) << r.err;
    Bytes img = dir.read("hc.bin");
    ASSERT_EQ(img.size(), 5120u);
    // Manifest directives come first, then --data parts.
    Bytes expect =
        build_hostconfig({{"vendor", to_bytes("abcde")}, {"KIV data", Bytes(2964, 'k')}});
    EXPECT_TRUE(std::equal(expect.begin(), expect.end(), img.begin()));
    EXPECT_TRUE(std::all_of(img.begin() + static_cast<std::ptrdiff_t>(expect.size()), img.end(),
                            [](std::uint8_t b) { return b == 0xFF; }));

    Result refused = run({"hostconfig", "-o", dir / "x.bin", "-e", "release version=1.0.0"});
    EXPECT_EQ(refused.exit, 1);
    EXPECT_NE(refused.err.find("a hostconfig image holds only data and raw parts"),
              std::string::npos)
        << refused.err;
    EXPECT_FALSE(dir.exists("x.bin"));
}

TEST(MkzunfCli, PartitionCommandLaysOutTheSoftwareBlock) {
    struct Case {
        std::vector<std::string> extra;
        int hdr;
        int body;
    };
    const Case cases[] = {
        {{}, ZUNF_VALID, ZUNF_VALID},
        {{"--bad-block-body-crc"}, ZUNF_VALID, ZUNF_ERR_BODY_CRC},
        {{"--bad-block-hdr-crc"}, ZUNF_ERR_HDR_CRC, ZUNF_VALID},
    };
    TempDir dir;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.extra.empty() ? "clean" : c.extra.front());
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
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        Result r = run(args);
        ASSERT_EQ(r.exit, 0) << r.err;
        Bytes p = dir.read("p.bin");
        ASSERT_EQ(p.size(), 256u);
        EXPECT_EQ(std::string(p.begin(), p.begin() + 10), "0123456789");
        EXPECT_EQ(p[10], 0);
        EXPECT_EQ(p[11], 0);
        const auto *blk = reinterpret_cast<const zunf_content_header *>(p.data() + 12);
        EXPECT_EQ(decode::text(p, 24, 16), "ROOT-SAFE");
        EXPECT_EQ(zunf_validate_content_header(blk), c.hdr);
        EXPECT_EQ(zunf_validate_content_body(blk, p.data()), c.body);
        EXPECT_TRUE(std::all_of(p.begin() + 76, p.end(), [](std::uint8_t b) { return b == 0xFF; }));
    }

    Result r = run({"partition", "-o", dir / "p2.bin", "--wts", "2", "--name=KNL-SAFE",
                    "--version=1.0.0", "--size=5", "--fill=7"});
    ASSERT_EQ(r.exit, 0) << r.err;
    EXPECT_EQ(dir.read("p2.bin"), build_partition(2, "KNL-SAFE", {1, 0, 0}, "", Bytes(5, 7)));
}

TEST(MkzunfCli, BadInputIsRefusedWithExit1AndNoOutput) {
    struct Case {
        std::vector<std::string> args;
        const char *message;
    };
    TempDir dir;
    dir.write("ok.bin", "x");
    dir.write("bad.manifest", "data name=a text=x\nrelease version=1.0\n");
    const std::string out = dir / "out.bin";
    const Case cases[] = {
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
        {{"partition", "-o", out, "--name=A", "--version=1.0.0", "--text=x"}, "missing --wts"},
        {{"partition", "-o", out, "--wts=4", "--name=A", "--version=1.0.0", "--text=x"},
         "invalid wts '4'"},
        {{"partition", "-o", out, "--wts=1", "--name=A", "--version=1.0.0"},
         "give exactly one of --file, --text, --size"},
        {{"image", "-o", dir / "no/such/dir/out.bin", "-e", "data name=a text=x"}, "cannot open"},
    };
    for (const Case &c : cases) {
        std::string joined;
        for (const std::string &a : c.args)
            joined += a + " ";
        SCOPED_TRACE(joined);
        Result r = run(c.args);
        EXPECT_EQ(r.exit, 1);
        EXPECT_EQ(r.err.rfind("mkzunf: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_FALSE(dir.exists("out.bin"));
    }
}

TEST(MkzunfCli, HelpPrintsUsage) {
    Result r = run({"--help"});
    EXPECT_EQ(r.exit, 0);
    EXPECT_EQ(r.out.rfind("usage: mkzunf image", 0), 0u) << r.out;
}

} // namespace
