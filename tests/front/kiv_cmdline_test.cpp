// The command line as the child reads it: every option rule, the environment, the defaults
// and the refusals, over a table of command lines.
#include "front/kiv_cmdline.hpp"

#include <cstring>
#include <dirent.h>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <vector>

#include <gtest/gtest.h>

#include "front/fd_capture.hpp"

namespace {

struct Env {
    const char *product = nullptr; // null: the variable is not set
    const char *platform = nullptr;
};

// One parse, with what it left behind. It owns the argument vector the record points into.
struct Parsed {
    std::vector<std::unique_ptr<char[]>> storage;
    int result = 0;
    std::string err;
    std::string out;
    kiv_options o{};
    std::string action;
    std::vector<std::string> args;
    bool args_terminated = false;
};

void set_env(const char *name, const char *value) {
    if (value)
        ::setenv(name, value, 1);
    else
        ::unsetenv(name);
}

Parsed parse(const std::vector<std::string> &words, Env env = {}, bool with_command = true) {
    set_env("KIV_PRODUCT", env.product);
    set_env("KIV_PLATFORM", env.platform);
    Parsed p;
    std::vector<std::string> all;
    if (with_command) all.push_back("kiv");
    all.insert(all.end(), words.begin(), words.end());
    std::vector<char *> argv;
    for (const std::string &w : all) {
        p.storage.push_back(std::make_unique<char[]>(w.size() + 1));
        std::memcpy(p.storage.back().get(), w.c_str(), w.size() + 1);
        argv.push_back(p.storage.back().get());
    }
    argv.push_back(nullptr);

    // Garbage first: the parser must clear the record itself.
    std::memset(&p.o, 0xa5, sizeof p.o);
    {
        FdCapture out(1);
        FdCapture err(2);
        p.result = kiv_parse_command_line(&p.o, static_cast<int>(all.size()), argv.data());
        p.err = err.text();
        p.out = out.text();
    }
    if (p.result == KIV_PARSE_CONTINUE) {
        for (std::int32_t i = 0; i < p.o.nargs; ++i)
            p.args.push_back(p.o.args[i]);
        p.args_terminated = p.o.args[p.o.nargs] == nullptr;
        p.action = p.o.action ? p.o.action : "";
    }
    set_env("KIV_PRODUCT", nullptr);
    set_env("KIV_PLATFORM", nullptr);
    return p;
}

using Check = std::function<void(const Parsed &)>;

struct Case {
    const char *name;
    std::vector<std::string> words;
    int result;      // KIV_PARSE_CONTINUE when accepted
    std::string err; // exact standard error
    Check check = {};
    Env env = {};
};

constexpr int GO = KIV_PARSE_CONTINUE;
constexpr int FAIL = KIV_EXIT_SYNTAX;

Check words_are(std::vector<std::string> expected) {
    return [expected](const Parsed &p) { EXPECT_EQ(p.args, expected); };
}

Check meta_is(int major, int minor, int build) {
    return [=](const Parsed &p) {
        EXPECT_EQ(p.o.meta_major, major);
        EXPECT_EQ(p.o.meta_minor, minor);
        EXPECT_EQ(p.o.meta_build, build);
    };
}

std::string chars(std::size_t n, char c = 'p') {
    return std::string(n, c);
}

void run_table(const std::vector<Case> &cases) {
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Parsed p = parse(c.words, c.env);
        EXPECT_EQ(p.result, c.result);
        EXPECT_EQ(p.err, c.err);
        EXPECT_EQ(p.out, "");
        if (c.result == GO) {
            EXPECT_TRUE(p.args_terminated);
            ASSERT_FALSE(p.args.empty());
            EXPECT_EQ(p.action, p.args[0]);
        }
        if (c.check) c.check(p);
    }
}

TEST(KivCmdline, DefaultsOfAPlainAction) {
    Parsed p = parse({"info"});
    ASSERT_EQ(p.result, GO);
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(p.action, "info");
    EXPECT_EQ(p.o.nargs, 1);
    EXPECT_STREQ(p.o.hostcfg, "/dev/mtd5");
    EXPECT_STREQ(p.o.hostcfg_backup, "/dev/mtd2");
    EXPECT_STREQ(p.o.device, "/dev/mtd%i");
    EXPECT_STREQ(p.o.lockfile, "/tmp/kiv.lock");
    EXPECT_STREQ(p.o.autosetfile, "/tmp/kiv.autoset");
    EXPECT_STREQ(p.o.activesetfile, "/tmp/kiv.activeset");
    EXPECT_EQ(p.o.zunfsize, 16777216u);
    EXPECT_STREQ(p.o.product, "");
    EXPECT_STREQ(p.o.platform, "");
    EXPECT_STREQ(p.o.plugin, "");
    for (int flag : {p.o.r, p.o.dryrun, p.o.test, p.o.verbose, p.o.force, p.o.rewrite, p.o.onlymeta,
                     p.o.noactivate, p.o.product_set, p.o.platform_set, p.o.minver_set,
                     p.o.iptos_set, p.o.iptos, p.o.meta_major, p.o.meta_minor, p.o.meta_build})
        EXPECT_EQ(flag, 0);
    EXPECT_EQ(p.o.minver_major + p.o.minver_minor + p.o.minver_build, 0u);
}

TEST(KivCmdline, TooFewArgumentsPrintsTheUsage) {
    Parsed p = parse({});
    EXPECT_EQ(p.result, FAIL);
    EXPECT_EQ(p.err, "Syntax error, argc(1) < 2\n");
    EXPECT_EQ(p.out, kiv_usage_text);

    Parsed none = parse({}, {}, false);
    EXPECT_EQ(none.result, FAIL);
    EXPECT_EQ(none.err, "Syntax error, argc(0) < 2\n");
}

TEST(KivCmdline, FlagsAndWords) {
    run_table({
        {"every flag",
         {"-r", "-dryrun", "-test", "-v", "-f", "info"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_EQ(p.o.r + p.o.dryrun + p.o.test + p.o.verbose + p.o.force, 5);
             EXPECT_EQ(p.o.nargs, 1);
         }},
        {"exact flags take no suffix",
         {"-rx", "-dryrun2", "-vv", "-ff", "-tests", "-noactivates"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_EQ(p.args, (std::vector<std::string>{"-rx", "-dryrun2", "-vv", "-ff", "-tests",
                                                         "-noactivates"}));
             EXPECT_EQ(p.o.r + p.o.dryrun + p.o.verbose + p.o.force + p.o.test, 0);
             EXPECT_EQ(p.o.noactivate, 0);
         }},
        {"prefix flags take any suffix",
         {"-rewriteall", "-onlymetadata", "x"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_EQ(p.o.rewrite, 1);
             EXPECT_EQ(p.o.onlymeta, 1);
             EXPECT_EQ(p.o.nargs, 1);
         }},
        {"-noactivate",
         {"install", "-noactivate"},
         GO,
         "",
         [](const Parsed &p) { EXPECT_EQ(p.o.noactivate, 1); }},
        {"options after the action; -x is its first argument",
         {"-v", "info", "-x"},
         GO,
         "",
         words_are({"info", "-x"})},
        {"action arguments pass through",
         {"partinfo", "4", "POOL", "-offset=1", "-mount=/", "-pn=3", "-fstype=ext4", "-refs=1,2",
          "-pif=p", "-all", "-1", "-meta", "-minver", "-product",
          "-product=", "-platform=", "-plugin="},
         GO,
         "",
         words_are({"partinfo", "4", "POOL", "-offset=1", "-mount=/", "-pn=3", "-fstype=ext4",
                    "-refs=1,2", "-pif=p", "-all", "-1", "-meta", "-minver", "-product",
                    "-product=", "-platform=", "-plugin="})},
        {"options only", {"-v", "-dryrun"}, FAIL, "ACTION is missing.\n"},
        {"a syntax error after the action", {"info", "-cfg"}, FAIL, "-cfg syntax failure.\n"},
        {"the first refusal stops the scan",
         {"-meta=x", "-plugin=y", "-cfg"},
         FAIL,
         "-meta syntax failure.\n"},
    });
}

TEST(KivCmdline, OptionOrderDoesNotMatter) {
    Parsed a = parse({"info", "-dryrun", "-v"});
    Parsed b = parse({"-v", "-dryrun", "info"});
    ASSERT_EQ(a.result, GO);
    ASSERT_EQ(b.result, GO);
    EXPECT_EQ(a.args, b.args);
    // Beyond the words (which point into different vectors) the records are byte-equal.
    for (kiv_options *o : {&a.o, &b.o}) {
        o->action = nullptr;
        std::fill(std::begin(o->args), std::end(o->args), nullptr);
    }
    EXPECT_EQ(std::memcmp(&a.o, &b.o, sizeof a.o), 0);
}

TEST(KivCmdline, MetaAndMinver) {
    run_table({
        {"-meta dotted", {"-meta=1.2.3", "x"}, GO, "", meta_is(1, 2, 3)},
        {"-meta packed hexadecimal", {"-meta=0x01020003", "x"}, GO, "", meta_is(1, 2, 3)},
        {"-meta packed without 0x", {"-meta=FF10ABCD", "x"}, GO, "", meta_is(0xff, 0x10, 0xabcd)},
        {"-meta dotted accepts hex and octal parts",
         {"-meta=0x10.010.-1", "x"},
         GO,
         "",
         meta_is(16, 8, -1)},
        {"-meta with commas reads the leading number only",
         {"-meta=1,2,3", "x"},
         GO,
         "",
         meta_is(0, 0, 1)},
        {"-meta with two numbers falls back the same way",
         {"-meta=1.2", "x"},
         GO,
         "",
         meta_is(0, 0, 1)},
        {"-meta not a number", {"-meta=x", "x"}, FAIL, "-meta syntax failure.\n"},
        {"-meta empty", {"-meta=", "x"}, FAIL, "-meta syntax failure.\n"},
        {"-minver",
         {"-minver=1.2.300", "x"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_EQ(p.o.minver_set, 1);
             EXPECT_EQ(p.o.minver_major, 1u);
             EXPECT_EQ(p.o.minver_minor, 2u);
             EXPECT_EQ(p.o.minver_build, 300u);
         }},
        {"-minver needs three numbers", {"-minver=1.2", "x"}, FAIL, "-minver syntax failure.\n"},
        {"-minver empty", {"-minver=", "x"}, FAIL, "-minver syntax failure.\n"},
        {"-minver not a number", {"-minver=a.b.c", "x"}, FAIL, "-minver syntax failure.\n"},
    });
}

TEST(KivCmdline, NumbersZunfsizeAndIptos) {
    run_table({
        {"-zunfsize",
         {"-zunfsize=1000", "x"},
         GO,
         "",
         [](const Parsed &p) { EXPECT_EQ(p.o.zunfsize, 1000u); }},
        {"-zunfsize is decimal only",
         {"-zunfsize=0x10", "x"},
         GO,
         "",
         [](const Parsed &p) { EXPECT_EQ(p.o.zunfsize, 0u); }},
        {"-zunfsize without a value", {"-zunfsize", "x"}, FAIL, "-zunfsize syntax failure.\n"},
        {"-zunfsize with a suffix", {"-zunfsizes=5", "x"}, FAIL, "-zunfsize syntax failure.\n"},
        {"-zunfsize not a number", {"-zunfsize=big", "x"}, FAIL, "-zunfsize syntax failure.\n"},
        {"-iptos hexadecimal",
         {"-iptos=0x10", "x"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_EQ(p.o.iptos, 16);
             EXPECT_EQ(p.o.iptos_set, 1);
         }},
        {"-iptos octal",
         {"-iptos=010", "x"},
         GO,
         "",
         [](const Parsed &p) { EXPECT_EQ(p.o.iptos, 8); }},
        {"-iptos without a value", {"-iptos", "x"}, FAIL, "-iptos syntax failure.\n"},
        {"-iptos with a suffix", {"-iptosx=1", "x"}, FAIL, "-iptos syntax failure.\n"},
    });
}

TEST(KivCmdline, HostconfigPathsAndTheirDefaults) {
    run_table({
        {"-cfg alone runs without backup",
         {"-cfg=/tmp/h.img", "info"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_STREQ(p.o.hostcfg, "/tmp/h.img");
             EXPECT_STREQ(p.o.hostcfg_backup, "");
         }},
        {"-cfgbak alone keeps the default hostconfig",
         {"-cfgbak=/tmp/b.img", "info"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_STREQ(p.o.hostcfg, "/dev/mtd5");
             EXPECT_STREQ(p.o.hostcfg_backup, "/tmp/b.img");
         }},
        {"both",
         {"-cfgbak=/b", "-cfg=/a", "info"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_STREQ(p.o.hostcfg, "/a");
             EXPECT_STREQ(p.o.hostcfg_backup, "/b");
         }},
        {"the value is a word as %s reads it",
         {"-cfg= /a b", "info"},
         GO,
         "",
         [](const Parsed &p) { EXPECT_STREQ(p.o.hostcfg, "/a"); }},
        {"-cfg without a value", {"-cfg", "info"}, FAIL, "-cfg syntax failure.\n"},
        {"-cfg with an empty value", {"-cfg=", "info"}, FAIL, "-cfg syntax failure.\n"},
        {"-cfg with only white space", {"-cfg= ", "info"}, FAIL, "-cfg syntax failure.\n"},
        {"-cfgbak without a value", {"-cfgbak", "info"}, FAIL, "-cfgbak syntax failure.\n"},
        {"a -cfg prefix of another spelling", {"-cfgx=/a", "info"}, FAIL, "-cfg syntax failure.\n"},
        {"-cfgba is -cfg", {"-cfgba=/a", "info"}, FAIL, "-cfg syntax failure.\n"},
    });
}

TEST(KivCmdline, FilePathOptions) {
    run_table({
        {"the three file paths",
         {"-lockfile=/l", "-autosetfile=/au", "-activesetfile=/ac", "x"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_STREQ(p.o.lockfile, "/l");
             EXPECT_STREQ(p.o.autosetfile, "/au");
             EXPECT_STREQ(p.o.activesetfile, "/ac");
         }},
        {"-locked is the lock file option", {"-locked", "x"}, FAIL, "-lock syntax failure.\n"},
        {"-loc", {"-loc=/l", "x"}, FAIL, "-lock syntax failure.\n"},
        {"-lockfile empty", {"-lockfile=", "x"}, FAIL, "-lock syntax failure.\n"},
        {"-aut", {"-automatic", "x"}, FAIL, "-autosetfile syntax failure.\n"},
        {"-actx=1 is the activeset option",
         {"-actx=1", "x"},
         FAIL,
         "-activesetfile syntax failure.\n"},
        {"-activesetfile empty",
         {"-activesetfile=", "x"},
         FAIL,
         "-activesetfile syntax failure.\n"},
    });
}

TEST(KivCmdline, PathValuesFitTheirFieldsOrAreRefused) {
    struct Field {
        const char *prefix;
        const char *too_long;
        std::size_t offset;
    };
    const Field fields[] = {
        {"-cfg=", "-cfg value too long.\n", offsetof(kiv_options, hostcfg)},
        {"-cfgbak=", "-cfgbak value too long.\n", offsetof(kiv_options, hostcfg_backup)},
        {"-lockfile=", "-lockfile value too long.\n", offsetof(kiv_options, lockfile)},
        {"-autosetfile=", "-autosetfile value too long.\n", offsetof(kiv_options, autosetfile)},
        {"-activesetfile=", "-activesetfile value too long.\n",
         offsetof(kiv_options, activesetfile)},
    };
    for (const Field &f : fields) {
        SCOPED_TRACE(f.prefix);
        std::string longest = "/" + chars(98);
        Parsed fits = parse({f.prefix + longest, "x"});
        ASSERT_EQ(fits.result, GO);
        EXPECT_EQ(fits.err, "");
        EXPECT_EQ(reinterpret_cast<const char *>(&fits.o) + f.offset, longest);

        Parsed over = parse({f.prefix + longest + "q", "x"});
        EXPECT_EQ(over.result, FAIL);
        EXPECT_EQ(over.err, f.too_long);

        Parsed far_over = parse({f.prefix + chars(5000), "x"});
        EXPECT_EQ(far_over.result, FAIL);
        EXPECT_EQ(far_over.err, f.too_long);
    }
}

TEST(KivCmdline, ProductPlatformAndPlugin) {
    run_table({
        {"-product",
         {"-product=MODEL", "x"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_STREQ(p.o.product, "MODEL");
             EXPECT_EQ(p.o.product_set, 1);
         }},
        {"-product with 17 letters keeps 15",
         {"-product=ABCDEFGHIJKLMNOPQ", "x"},
         GO,
         "",
         [](const Parsed &p) { EXPECT_STREQ(p.o.product, "ABCDEFGHIJKLMNO"); }},
        {"-product= alone is a word",
         {"x", "-product="},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_EQ(p.o.product_set, 0);
             EXPECT_EQ(p.args, (std::vector<std::string>{"x", "-product="}));
         }},
        {"-platform with 10 letters keeps 7",
         {"-platform=ABCDEFGHIJ", "x"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_STREQ(p.o.platform, "ABCDEFG");
             EXPECT_EQ(p.o.platform_set, 1);
         }},
        {"-plugin is always refused",
         {"-plugin=libx.so", "x"},
         FAIL,
         "plugin support not enabled.\n",
         [](const Parsed &p) { EXPECT_STREQ(p.o.plugin, "libx.so"); }},
        {"-plugin with 199 characters",
         {"-plugin=" + chars(199), "x"},
         FAIL,
         "plugin support not enabled.\n",
         [](const Parsed &p) { EXPECT_EQ(std::string(p.o.plugin), chars(199)); }},
        {"-plugin with 200 characters",
         {"-plugin=" + chars(200), "x"},
         FAIL,
         "-plugin value too long.\n"},
        {"-plugin before the action still ends the run",
         {"-plugin=a"},
         FAIL,
         "plugin support not enabled.\n"},
    });
}

TEST(KivCmdline, Environment) {
    run_table({
        {"KIV_PRODUCT",
         {"x"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_STREQ(p.o.product, "MODEL");
             EXPECT_EQ(p.o.product_set, 1);
         },
         {"MODEL", nullptr}},
        {"KIV_PRODUCT with 15 characters",
         {"x"},
         GO,
         "",
         [](const Parsed &p) { EXPECT_STREQ(p.o.product, "ABCDEFGHIJKLMNO"); },
         {"ABCDEFGHIJKLMNO", nullptr}},
        {"KIV_PRODUCT with 16 characters",
         {"x"},
         FAIL,
         "KIV_PRODUCT too long: ABCDEFGHIJKLMNOP\n",
         {},
         {"ABCDEFGHIJKLMNOP", nullptr}},
        {"KIV_PRODUCT with 17 letters, as -product accepts them",
         {"x"},
         FAIL,
         "KIV_PRODUCT too long: ABCDEFGHIJKLMNOPQ\n",
         {},
         {"ABCDEFGHIJKLMNOPQ", nullptr}},
        {"KIV_PRODUCT set but empty",
         {"x"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_STREQ(p.o.product, "");
             EXPECT_EQ(p.o.product_set, 1);
         },
         {"", nullptr}},
        {"-product overrides KIV_PRODUCT",
         {"-product=B", "x"},
         GO,
         "",
         [](const Parsed &p) { EXPECT_STREQ(p.o.product, "B"); },
         {"A", nullptr}},
        {"KIV_PLATFORM with 7 characters",
         {"x"},
         GO,
         "",
         [](const Parsed &p) {
             EXPECT_STREQ(p.o.platform, "ABCDEFG");
             EXPECT_EQ(p.o.platform_set, 1);
         },
         {nullptr, "ABCDEFG"}},
        {"KIV_PLATFORM with 8 characters",
         {"x"},
         FAIL,
         "KIV_PLATFORM too long: ABCDEFGH\n",
         {},
         {nullptr, "ABCDEFGH"}},
        {"KIV_PLATFORM set but empty",
         {"x"},
         GO,
         "",
         [](const Parsed &p) { EXPECT_EQ(p.o.platform_set, 1); },
         {nullptr, ""}},
        {"-platform overrides KIV_PLATFORM",
         {"-platform=B", "x"},
         GO,
         "",
         [](const Parsed &p) { EXPECT_STREQ(p.o.platform, "B"); },
         {nullptr, "A"}},
        {"the environment is checked before any option",
         {"-meta=x"},
         FAIL,
         "KIV_PRODUCT too long: ABCDEFGHIJKLMNOP\n",
         {},
         {"ABCDEFGHIJKLMNOP", nullptr}},
        {"KIV_PRODUCT before KIV_PLATFORM",
         {"x"},
         FAIL,
         "KIV_PRODUCT too long: ABCDEFGHIJKLMNOP\n",
         {},
         {"ABCDEFGHIJKLMNOP", "ABCDEFGH"}},
    });
}

TEST(KivCmdline, NonOptionWordsAreBounded) {
    std::vector<std::string> nineteen = {"getrh"};
    for (int i = 1; i < 19; ++i)
        nineteen.push_back(std::to_string(i));
    Parsed full = parse(nineteen);
    ASSERT_EQ(full.result, GO);
    EXPECT_EQ(full.args, nineteen);
    EXPECT_TRUE(full.args_terminated);

    // Options among them are not counted.
    std::vector<std::string> with_options = nineteen;
    with_options.insert(with_options.begin() + 5, {"-v", "-dryrun", "-f"});
    EXPECT_EQ(parse(with_options).result, GO);

    std::vector<std::string> twenty = nineteen;
    twenty.push_back("19");
    Parsed over = parse(twenty);
    EXPECT_EQ(over.result, FAIL);
    EXPECT_EQ(over.err, "Too many arguments.\n");

    std::vector<std::string> many(200, "w");
    Parsed far_over = parse(many);
    EXPECT_EQ(far_over.result, FAIL);
    EXPECT_EQ(far_over.err, "Too many arguments.\n");
}

std::optional<std::string> some_block_device() {
    DIR *dir = ::opendir("/dev");
    if (!dir) return std::nullopt;
    std::optional<std::string> found;
    while (dirent *e = ::readdir(dir)) {
        std::string path = std::string("/dev/") + e->d_name;
        struct stat st;
        if (path.size() <= 40 && ::stat(path.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) {
            found = path;
            break;
        }
    }
    ::closedir(dir);
    return found;
}

TEST(KivCmdline, DeviceMustBeABlockDevice) {
    run_table({
        {"-dev on a directory",
         {"-dev=/tmp", "x"},
         FAIL,
         "-dev failure. /tmp is not a block device\n"},
        {"-dev on a missing path",
         {"-dev=/no/such/dev", "x"},
         FAIL,
         "-dev failure. /no/such/dev is not a block device\n"},
        {"-dev on a character device",
         {"-dev=/dev/null", "x"},
         FAIL,
         "-dev failure. /dev/null is not a block device\n"},
        {"-dev reads at most 40 characters",
         {"-dev=/" + chars(60), "x"},
         FAIL,
         "-dev failure. /" + chars(39) + " is not a block device\n"},
        {"-dev without a value", {"-dev", "x"}, FAIL, "-dev syntax failure.\n"},
        {"-device is -dev", {"-device=/dev/sda", "x"}, FAIL, "-dev syntax failure.\n"},
    });

    std::optional<std::string> block = some_block_device();
    if (!block) GTEST_SKIP() << "no block device in /dev";
    Parsed p = parse({"-dev=" + *block, "x"});
    ASSERT_EQ(p.result, GO);
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(std::string(p.o.device), *block + "%i");
}

// The device path becomes part of a printf pattern: a '%' in a node's name must stay a
// literal character, or every partition name would be formatted from garbage.
TEST(KivCmdline, DevicePercentStaysLiteral) {
    char dir[] = "/tmp/kivdevXXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    std::string node = std::string(dir) + "/b%d";
    if (::mknod(node.c_str(), S_IFBLK | 0600, makedev(7, 0)) != 0) {
        ::rmdir(dir);
        GTEST_SKIP() << "cannot create a block device node here";
    }
    Parsed p = parse({"-dev=" + node, "x"});
    ::unlink(node.c_str());
    ::rmdir(dir);
    ASSERT_EQ(p.result, GO);
    EXPECT_EQ(std::string(p.o.device), std::string(dir) + "/b%%d%i");
    char name[120];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // the pattern is the device option
    std::snprintf(name, sizeof name, p.o.device, 7);
#pragma GCC diagnostic pop
    EXPECT_EQ(std::string(name), std::string(dir) + "/b%d7");
}

TEST(KivCmdline, VerboseSummary) {
    Parsed p = parse({"-v", "-meta=1.2.3", "-minver=4.5.6", "-zunfsize=99", "-rewrite",
                      "-cfg=/tmp/h", "-lockfile=/tmp/l", "getrh", "1", "-pif=x"});
    ASSERT_EQ(p.result, GO);
    std::string out;
    {
        FdCapture capture(1);
        kiv_print_verbose_summary(&p.o);
        out = capture.text();
    }
    EXPECT_EQ(out, "action: getrh hostcfg: /tmp/h (backup: ) device: /dev/mtd%i -r: 0 "
                   "-dryrun: 0 -v: 1 -f: 0 -meta: 1.2.3 -zunfsize=99 -rewrite=1\n"
                   "-minver: 4.5.6 -lockfile: /tmp/l -autosetfile: /tmp/kiv.autoset "
                   "-activesetfile: /tmp/kiv.activeset\n"
                   "other: 1 -pif=x \n");
}

TEST(KivCmdline, DispatchOfHelpAndUnknownWords) {
    struct Row {
        const char *action;
        int result;
        const char *out;
        const char *err;
    };
    const Row rows[] = {
        {"help", 0, kiv_usage_text, ""},
        {"Help", 1, "", "Unknown action\n"},
        {"helpx", 1, "", "Unknown action\n"},
        {"", 1, "", "Unknown action\n"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.action);
        kiv_options o{};
        o.action = r.action;
        o.args[0] = r.action;
        o.nargs = 1;
        FdCapture out(1);
        FdCapture err(2);
        EXPECT_EQ(kiv_dispatch(&o), r.result);
        EXPECT_EQ(err.text(), r.err);
        EXPECT_EQ(out.text(), r.out);
    }
}

} // namespace
