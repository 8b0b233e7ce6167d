// Whole-file helpers: one open, one operation, one close; a failed close fails the call.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "util/fnfile.hpp"

namespace fs = std::filesystem;

namespace {

class FnFile : public testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/kiv_fnfile_XXXXXX";
        dir_ = ::mkdtemp(tmpl);
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string path(const char *name) const { return (dir_ / name).string(); }
    void put(const char *name, const std::string &text) const {
        std::ofstream(dir_ / name, std::ios::binary) << text;
    }
    std::string get(const char *name) const {
        std::ifstream f(dir_ / name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    }

    fs::path dir_;
};

TEST_F(FnFile, ReadReturnsTheCountRead) {
    put("ten", "0123456789");
    put("empty", "");
    char buf[64];
    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(fnread(path("ten").c_str(), buf, sizeof buf), 10);
    EXPECT_EQ(std::string(buf, 11), "0123456789X");
    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(fnread(path("ten").c_str(), buf, 4), 4);
    EXPECT_EQ(std::string(buf, 5), "0123X") << "nothing past n is written";
    EXPECT_EQ(fnread(path("empty").c_str(), buf, sizeof buf), 0);
    EXPECT_EQ(fnread(path("missing").c_str(), buf, sizeof buf), -1);
}

TEST_F(FnFile, WriteCreatesOrTruncates) {
    EXPECT_EQ(fnwrite(path("out").c_str(), "0123456789", 10), 10);
    EXPECT_EQ(fnwrite(path("out").c_str(), "abc", 3), 3);
    EXPECT_EQ(get("out"), "abc");
    EXPECT_EQ(fnwrite(path("out").c_str(), "", 0), 0);
    EXPECT_TRUE(fs::exists(path("out")));
    EXPECT_EQ(get("out"), "");
    EXPECT_EQ(fnwrite(path("no/such/dir/out").c_str(), "x", 1), -1);
    // The data sits in the stream buffer until the close, where the device reports
    // ENOSPC: a failed close fails the whole call.
    EXPECT_EQ(fnwrite("/dev/full", "x", 1), -1);
}

TEST_F(FnFile, ScanfReturnsTheScanResult) {
    put("values", "42 kiv\n");
    put("text", "abc");
    put("empty", "");
    int n = 0;
    char word[16] = {};
    EXPECT_EQ(fnscanf(path("values").c_str(), "%d %15s", &n, word), 2);
    EXPECT_EQ(n, 42);
    EXPECT_STREQ(word, "kiv");
    EXPECT_EQ(fnscanf(path("text").c_str(), "%d", &n), 0) << "no conversion";
    EXPECT_EQ(fnscanf(path("empty").c_str(), "%d", &n), -1) << "end of input before the first";
    EXPECT_EQ(fnscanf(path("missing").c_str(), "%d", &n), -1);
}

TEST_F(FnFile, PrintfWritesFormattedText) {
    EXPECT_EQ(fnprintf(path("out").c_str(), "set=%d name=%s\n", 2, "SET2"), 16);
    EXPECT_EQ(get("out"), "set=2 name=SET2\n");
    EXPECT_EQ(fnprintf(path("out").c_str(), "%s", "x"), 1);
    EXPECT_EQ(get("out"), "x") << "mode w truncates";
    EXPECT_EQ(fnprintf(path("no/such/dir/out").c_str(), "%d", 1), -1);
    EXPECT_EQ(fnprintf("/dev/full", "%d", 1), -1);
}

TEST_F(FnFile, SizeFollowsLinksAndReportsDevicesAsEmpty) {
    put("ten", "0123456789");
    fs::create_symlink(path("ten"), path("link"));
    fs::create_symlink(path("missing"), path("dangling"));
    EXPECT_EQ(fnsize(path("link").c_str()), 10);
    EXPECT_EQ(fnsize(path("missing").c_str()), -1);
    EXPECT_EQ(fnsize(path("dangling").c_str()), -1);
    EXPECT_EQ(fnsize("/dev/null"), 0) << "a character device has no size";
}

} // namespace
