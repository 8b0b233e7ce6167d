// The helpers the actions share, on regular files: load and save edges the actions do
// not reach, how an image file is fed to a consumer, and how a set is named. The backup
// rule and the messages the actions show are checked end to end (tests/e2e).
#include "front/kiv_helpers.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
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
    return hcdecode::encode_record(r);
}

template <typename F> std::string stderr_of(F &&f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

} // namespace

// A valid image without the upgrade data is refused after the load, by the import.
TEST(KivLoad, NoKivDataPart) {
    Fixture fx;
    write_bytes(fx.primary(), hcdecode::encode_image({{"other", {1, 2, 3}}}));
    fx.data->pools_valid = 1;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(load(&fx.options, fx.data.get(), fx.hc.get()), -1); }),
              "kivl_hostconfig_import failed.\n");
    EXPECT_EQ(fx.data->device, fx.options.device);
    EXPECT_EQ(fx.data->pools_valid, 0u);
}

TEST(KivSave, RebuildsWithKivDataLastAndLeavesTheLoadedHandle) {
    Fixture fx;
    write_bytes(fx.primary(), hcdecode::encode_image({{"A", {1, 2, 3}},
                                                      {"KIV data", record_with_actset(1)},
                                                      {"B", Bytes(10, 5)}}));
    ASSERT_EQ(load(&fx.options, fx.data.get(), fx.hc.get()), 1);
    Bytes loaded_before(fx.hc->image, fx.hc->image + HOSTCONFIG_MAX_SIZE);
    fx.data->rec.actset = 2;

    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(save(&fx.options, fx.data.get(), fx.hc.get(), "t"), 1); }),
              "");
    EXPECT_EQ(kiv_critical_depth, 0);
    EXPECT_EQ(Bytes(fx.hc->image, fx.hc->image + HOSTCONFIG_MAX_SIZE), loaded_before);
    hcdecode::Image img = hcdecode::decode_image(read_bytes(fx.primary()));
    EXPECT_EQ(img.names(), (std::vector<std::string>{"A", "B", "KIV data"}));
    auto rec = hcdecode::decode_kiv_data(img);
    ASSERT_TRUE(rec);
    EXPECT_EQ(rec->actset, 2);
}

TEST(KivSave, RefusedSaveWritesNothing) {
    struct Case {
        const char *what;
        int parts;
        std::uint32_t body;
        const char *name;
        const char *message;
    };
    const Case cases[] = {
        {"carried parts fill the bytes", 1, 2500, "p", "kivl_hostconfig_export failed.\n"},
        {"carried parts fill the table", 20, 1, "p", "kivl_hostconfig_export failed.\n"},
        // Kept ahead of the new record, it would be imported in its place next time.
        {"a part named like the record", 1, 1, "KIV data2", "hostconfig_add failed.\n"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Fixture fx;
        ASSERT_EQ(hostconfig_new(fx.hc.get(), HOSTCONFIG_MAX_SIZE), 1);
        Bytes body(c.body, 7);
        for (int i = 0; i < c.parts; ++i)
            ASSERT_EQ(hostconfig_add_body(fx.hc.get(), body.data(), c.body, c.name), 1);
        EXPECT_EQ(
            stderr_of([&] { EXPECT_EQ(save(&fx.options, fx.data.get(), fx.hc.get(), "x"), -1); }),
            c.message);
        EXPECT_FALSE(std::filesystem::exists(fx.primary()));
        EXPECT_EQ(kiv_critical_depth, 0);
    }
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
    constexpr int ABSENT = -1;
    struct Case {
        const char *what;
        int file_size;
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
        {"no such file", ABSENT, 0, 0, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        std::string path = dir.file("image");
        Bytes content(c.file_size == ABSENT ? 0 : static_cast<std::size_t>(c.file_size));
        for (std::size_t i = 0; i < content.size(); ++i)
            content[i] = static_cast<std::uint8_t>(i * 31);
        if (c.file_size != ABSENT) write_bytes(path, content);
        Bytes buffer(1024, 0);
        Feed feed;
        feed.give_back_less_by = c.shortfall;
        EXPECT_EQ(kiv_feed_file(path.c_str(), buffer.data(), buffer.size(), consume, &feed),
                  c.result);
        EXPECT_EQ(feed.calls, c.calls);
        for (const void *start : feed.starts)
            EXPECT_EQ(start, buffer.data());
        content.resize(std::min<std::size_t>(content.size(), 1024));
        EXPECT_EQ(
            Bytes(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(content.size())),
            content);
    }
}

TEST(KivParseSetid, NumbersAndNames) {
    auto data = std::make_unique<kivl_data>();
    kivl_init(data.get());
    std::strcpy(data->rec.sets[0].name, "SAFESET");
    std::strcpy(data->rec.sets[1].name, "SET1");
    std::strcpy(data->rec.sets[2].name, "7up");
    // A digit first means a number, never a name ("7up").
    const std::pair<const char *, int> cases[] = {
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
        {"7up", -1},
        {"99999999999999999999", -1},
        {nullptr, -1},
    };
    for (auto [word, result] : cases)
        EXPECT_EQ(kiv_parse_setid(data.get(), word), result) << (word ? word : "(null)");
}

TEST(KivDump, PoolsAreGeneratedThenListedBeforeTheStates) {
    auto data = std::make_unique<kivl_data>();
    kivl_init(data.get());
    std::strcpy(data->rec.partinfo[3].poolname, "P");
    kiv_options options{};
    testing::internal::CaptureStdout();
    kiv_dump(&options, data.get());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(data->pools_valid, 1u);
    EXPECT_NE(out.find("Pools:\n     pool:            cnt:   type:\n"
                       "  0  P                1      singleton\n"
                       "KIV Data Upgrade set 1: "),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("\nKIV Data Upgrade set 2: "), std::string::npos) << out;
}
