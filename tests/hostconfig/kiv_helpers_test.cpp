// The helpers the actions share, on regular files: how load and save use the primary
// and backup copies, how an image file is fed to a consumer, and how a set is named.
// The MTD side of the backup rule runs in the device sandbox (hostconfig_device_test).
#include "front/kiv_helpers.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/hcdecode.hpp"
#include "common/temp_dir.hpp"
#include "front/kiv_log.hpp"
#include "hostconfig/hostconfig.hpp"
#include "kivl/kivl.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Fixture {
    TempDir dir;
    kiv_options options{};
    std::unique_ptr<kivl_data> data = std::make_unique<kivl_data>();
    std::unique_ptr<hostconfig> hc = std::make_unique<hostconfig>();

    Fixture() {
        std::strcpy(options.hostcfg, dir.file("hostcfg").c_str());
        std::strcpy(options.device, "/dev/mtd%i");
    }
    std::string primary() const { return options.hostcfg; }
};

Bytes record_with_actset(std::uint8_t actset) {
    hcdecode::Record r;
    r.actset = actset;
    r.sets[0].name = "SAFESET";
    return hcdecode::encode_record(r);
}

template <typename F> std::string stderr_of(F &&f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

} // namespace

TEST(KivLoad, PrimaryCopyAndDevicePattern) {
    Fixture fx;
    write_bytes(fx.primary(), hcdecode::encode_image({{"KIV data", record_with_actset(2)}}));
    fx.data->rec.actset = 9;
    fx.data->pools_valid = 1;
    std::string err =
        stderr_of([&] { EXPECT_EQ(load(&fx.options, fx.data.get(), fx.hc.get()), 1); });
    EXPECT_EQ(err, "");
    EXPECT_EQ(fx.data->rec.actset, 2);
    EXPECT_STREQ(fx.data->rec.sets[0].name, "SAFESET");
    EXPECT_EQ(fx.data->device, fx.options.device);
    EXPECT_EQ(fx.data->pools_valid, 0u);
    EXPECT_EQ(fx.hc->count, 1);
}

TEST(KivLoad, Failures) {
    struct Case {
        const char *what;
        std::vector<hcdecode::NewPart> primary; // empty: no file
        bool corrupt;
        const char *message;
    };
    const Case cases[] = {
        {"no hostconfig", {}, false, "hostconfig_load failed.\n"},
        {"corrupt hostconfig",
         {{"KIV data", record_with_actset(1)}},
         true,
         "hostconfig_load failed.\n"},
        {"no KIV data part", {{"other", {1, 2, 3}}}, false, "kivl_hostconfig_import failed.\n"},
        {"short KIV data part",
         {{"KIV data", Bytes(2000, 0)}},
         false,
         "kivl_hostconfig_import failed.\n"},
    };
    for (const Case &c : cases) {
        Fixture fx;
        if (!c.primary.empty()) {
            Bytes img = hcdecode::encode_image(c.primary);
            if (c.corrupt) img[100] ^= 0xFF;
            write_bytes(fx.primary(), img);
        }
        std::string err = stderr_of(
            [&] { EXPECT_EQ(load(&fx.options, fx.data.get(), fx.hc.get()), -1) << c.what; });
        EXPECT_EQ(err, c.message) << c.what;
        EXPECT_EQ(fx.data->device, fx.options.device) << c.what;
    }
}

TEST(KivLoad, BackupInARegularFileNeverTakesPart) {
    Fixture fx;
    std::string backup = fx.dir.file("hostcfg.bak");
    std::strcpy(fx.options.hostcfg_backup, backup.c_str());
    write_bytes(backup, hcdecode::encode_image({{"KIV data", record_with_actset(1)}}));
    Bytes corrupt = hcdecode::encode_image({{"KIV data", record_with_actset(2)}});
    corrupt[100] ^= 0xFF;
    write_bytes(fx.primary(), corrupt);
    std::string err =
        stderr_of([&] { EXPECT_EQ(load(&fx.options, fx.data.get(), fx.hc.get()), -1); });
    EXPECT_EQ(err, "hostconfig_load failed.\n");
}

TEST(KivSave, RebuildsWithKivDataLast) {
    Fixture fx;
    write_bytes(fx.primary(), hcdecode::encode_image({{"A", {1, 2, 3}},
                                                      {"KIV data", record_with_actset(1)},
                                                      {"KIV data2", {4}},
                                                      {"B", Bytes(10, 5)}}));
    ASSERT_EQ(load(&fx.options, fx.data.get(), fx.hc.get()), 1);
    Bytes loaded_before(fx.hc->image, fx.hc->image + HOSTCONFIG_MAX_SIZE);
    fx.data->rec.actset = 2;

    std::string err =
        stderr_of([&] { EXPECT_EQ(save(&fx.options, fx.data.get(), fx.hc.get(), "test"), 1); });
    EXPECT_EQ(err, "");
    EXPECT_EQ(kiv_critical_depth, 0);
    EXPECT_EQ(Bytes(fx.hc->image, fx.hc->image + HOSTCONFIG_MAX_SIZE), loaded_before);

    Bytes stored = read_bytes(fx.primary());
    hcdecode::Image img = hcdecode::decode_image(stored);
    ASSERT_TRUE(img.ok) << img.error;
    EXPECT_EQ(stored.size(), img.size);
    EXPECT_EQ(img.names(), (std::vector<std::string>{"A", "KIV data2", "B", "KIV data"}));
    EXPECT_EQ(img.parts[0].body, (Bytes{1, 2, 3}));
    EXPECT_EQ(img.parts[2].body, Bytes(10, 5));
    auto rec = hcdecode::decode_kiv_data(img);
    ASSERT_TRUE(rec);
    EXPECT_EQ(rec->actset, 2);
}

TEST(KivSave, WithoutALoadedHostconfig) {
    // What initialize does: a handle fresh from hostconfig_new, no parts to carry over.
    Fixture fx;
    ASSERT_EQ(kivl_init(fx.data.get()), 1);
    ASSERT_EQ(hostconfig_new(fx.hc.get(), HOSTCONFIG_MAX_SIZE), 1);
    EXPECT_EQ(save(&fx.options, fx.data.get(), fx.hc.get(), "initialize"), 1);
    Bytes stored = read_bytes(fx.primary());
    EXPECT_EQ(stored.size(), 3020u);
    auto rec = hcdecode::decode_kiv_data(std::span<const std::uint8_t>(stored));
    ASSERT_TRUE(rec);
    EXPECT_EQ(hcdecode::encode_record(*rec), Bytes(2964, 0));
}

TEST(KivSave, Failures) {
    {
        Fixture fx; // primary in a directory that does not exist
        std::strcpy(fx.options.hostcfg, fx.dir.file("no/such/hostcfg").c_str());
        ASSERT_EQ(hostconfig_new(fx.hc.get(), HOSTCONFIG_MAX_SIZE), 1);
        std::string err =
            stderr_of([&] { EXPECT_EQ(save(&fx.options, fx.data.get(), fx.hc.get(), "x"), -1); });
        EXPECT_EQ(err, "hostconfig_save failed.\n");
        EXPECT_EQ(kiv_critical_depth, 0); // the end marker ran too
    }
    {
        Fixture fx; // the carried-over parts leave no room for the record
        ASSERT_EQ(hostconfig_new(fx.hc.get(), HOSTCONFIG_MAX_SIZE), 1);
        Bytes big(2500, 7);
        ASSERT_EQ(hostconfig_add_body(fx.hc.get(), big.data(), 2500, "big"), 1);
        std::string err =
            stderr_of([&] { EXPECT_EQ(save(&fx.options, fx.data.get(), fx.hc.get(), "x"), -1); });
        EXPECT_EQ(err, "kivl_hostconfig_export failed.\n");
        EXPECT_FALSE(std::filesystem::exists(fx.primary()));
        EXPECT_EQ(kiv_critical_depth, 0);
    }
    {
        Fixture fx; // twenty parts to carry: no table entry left for the record
        ASSERT_EQ(hostconfig_new(fx.hc.get(), HOSTCONFIG_MAX_SIZE), 1);
        for (int i = 0; i < 20; ++i)
            ASSERT_EQ(hostconfig_add_body(fx.hc.get(), "x", 1, "p"), 1);
        std::string err =
            stderr_of([&] { EXPECT_EQ(save(&fx.options, fx.data.get(), fx.hc.get(), "x"), -1); });
        EXPECT_EQ(err, "kivl_hostconfig_export failed.\n");
    }
}

TEST(KivSave, BackupInARegularFileIsNotWritten) {
    Fixture fx;
    std::string backup = fx.dir.file("hostcfg.bak");
    std::strcpy(fx.options.hostcfg_backup, backup.c_str());
    ASSERT_EQ(hostconfig_new(fx.hc.get(), HOSTCONFIG_MAX_SIZE), 1);
    EXPECT_EQ(save(&fx.options, fx.data.get(), fx.hc.get(), "x"), 1);
    EXPECT_TRUE(std::filesystem::exists(fx.primary()));
    EXPECT_FALSE(std::filesystem::exists(backup));
}

namespace {

struct Feed {
    std::vector<std::size_t> calls; // count passed on each call
    std::vector<const void *> starts;
    std::size_t give_back_less_by = 0;
};

std::size_t consume(void *buffer, std::size_t size, std::size_t count, void *context) {
    auto *feed = static_cast<Feed *>(context);
    EXPECT_EQ(size, 1u);
    feed->calls.push_back(count);
    feed->starts.push_back(buffer);
    return count >= feed->give_back_less_by ? count - feed->give_back_less_by : 0;
}

} // namespace

TEST(KivFeedFile, ReadsAtMostTheBuffer) {
    struct Case {
        const char *what;
        std::size_t file_size;
        std::size_t shortfall; // what the consumer leaves untaken
        std::size_t result;
        std::vector<std::size_t> calls;
    };
    const Case cases[] = {
        {"small file", 10, 0, 10, {10}},
        {"file as big as the buffer", 1024, 0, 1024, {1024}},
        {"bigger file", 4096, 0, 1024, {1024}},
        {"empty file", 0, 0, 0, {0}},
        {"consumer takes less", 10, 1, 0, {10}},
        {"consumer takes less of a full buffer", 4096, 1, 0, {1024}},
    };
    for (const Case &c : cases) {
        TempDir dir;
        std::string path = dir.file("image");
        Bytes content(c.file_size);
        for (std::size_t i = 0; i < content.size(); ++i)
            content[i] = static_cast<std::uint8_t>(i * 31);
        write_bytes(path, content);
        std::vector<std::uint8_t> buffer(1024, 0);
        Feed feed;
        feed.give_back_less_by = c.shortfall;
        EXPECT_EQ(kiv_feed_file(path.c_str(), buffer.data(), buffer.size(), consume, &feed),
                  c.result)
            << c.what;
        EXPECT_EQ(feed.calls, c.calls) << c.what;
        for (const void *start : feed.starts)
            EXPECT_EQ(start, buffer.data()) << c.what;
        std::size_t n = std::min<std::size_t>(c.file_size, 1024);
        EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(n)),
                  Bytes(content.begin(), content.begin() + static_cast<std::ptrdiff_t>(n)))
            << c.what;
    }
}

TEST(KivFeedFile, UnopenableFileNeverCallsTheConsumer) {
    TempDir dir;
    std::vector<std::uint8_t> buffer(64);
    Feed feed;
    EXPECT_EQ(
        kiv_feed_file(dir.file("absent").c_str(), buffer.data(), buffer.size(), consume, &feed),
        0u);
    EXPECT_TRUE(feed.calls.empty());
}

TEST(KivParseSetid, NumbersAndNames) {
    auto data = std::make_unique<kivl_data>();
    kivl_init(data.get());
    std::strcpy(data->rec.sets[0].name, "SAFESET");
    std::strcpy(data->rec.sets[1].name, "SET1");
    std::strcpy(data->rec.sets[2].name, "7up");
    struct Case {
        const char *word;
        int result;
    };
    const Case cases[] = {
        {"0", 0},
        {"1", 1},
        {"2", 2},
        {"3", -1},
        {"08", 0},
        {"010", -1},
        {"0x2", 2},
        {"1x", 1},
        {"SAFESET", 0},
        {"SET1", 1},
        {"SET2", -1},
        {"", -1},
        {"-1", -1},
        {"+1", -1},
        {" 1", -1},
        {"7up", -1}, // a digit first means a number, never a name
        {"99999999999999999999", -1},
        {nullptr, -1},
    };
    for (const Case &c : cases)
        EXPECT_EQ(kiv_parse_setid(data.get(), c.word), c.result) << (c.word ? c.word : "(null)");
}

TEST(KivDump, FreshRecordListingThenStates) {
    auto data = std::make_unique<kivl_data>();
    kivl_init(data.get());
    std::strcpy(data->rec.partinfo[3].poolname, "P");
    kiv_options options{};
    testing::internal::CaptureStdout();
    kiv_dump(&options, data.get());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(data->pools_valid, 1u); // the pools are generated first...
    EXPECT_NE(out.find("Pools:\n     pool:            cnt:   type:\n"
                       "  0  P                1      singleton\n"
                       "KIV Data Upgrade set 1: "),
              std::string::npos)
        << out; // ...and listed, followed by the states
    EXPECT_NE(out.find("\nKIV Data Upgrade set 2: "), std::string::npos) << out;
}
