// The option grammar as the child reads it, over one table of command lines: what each
// accepted line leaves in the record and the edges of each refusal. The refusal messages as a
// user meets them are checked once more on the real command (kiv_front_e2e_test).
#include "front/kiv_cmdline.hpp"

#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/cat.hpp"

#include "front/fd_capture.hpp"

namespace {

struct Env {
    const char *product = nullptr; // null: the variable is not set
    const char *platform = nullptr;
};

struct Parsed {
    int result = 0;
    std::string err;
    std::string out;
    std::string fields; // every field of the record, see fields_of
};

// Every field of the record as "key=value" words, with a mark when the word list is not
// null-terminated or the action is not its first word.
std::string fields_of(const kiv_options &o) {
    std::ostringstream s;
    auto set = [](int flag, const std::string &v) { return std::to_string(flag) + ":" + v; };
    s << "r=" << o.r << " dryrun=" << o.dryrun << " test=" << o.test << " v=" << o.verbose
      << " f=" << o.force << " meta=" << o.meta_major << '.' << o.meta_minor << '.' << o.meta_build
      << " zunfsize=" << o.zunfsize << " rewrite=" << o.rewrite << " onlymeta=" << o.onlymeta
      << " noactivate=" << o.noactivate << " product=" << set(o.product_set, o.product)
      << " platform=" << set(o.platform_set, o.platform) << " minver="
      << set(o.minver_set, std::to_string(o.minver_major) + '.' + std::to_string(o.minver_minor) +
                               '.' + std::to_string(o.minver_build))
      << " iptos=" << set(o.iptos_set, std::to_string(o.iptos)) << " cfg=" << o.hostcfg
      << " cfgbak=" << o.hostcfg_backup << " dev=" << o.device << " lockfile=" << o.lockfile
      << " autosetfile=" << o.autosetfile << " activesetfile=" << o.activesetfile << " args=";
    for (std::int32_t i = 0; i < o.nargs; ++i)
        s << (i ? "|" : "") << o.args[i];
    if (o.args[o.nargs] != nullptr) s << "|<unterminated>";
    if (o.nargs == 0 || !o.action || std::strcmp(o.action, o.args[0]) != 0)
        s << " action=<not the first word>";
    return s.str();
}

const std::string DEFAULTS =
    "r=0 dryrun=0 test=0 v=0 f=0 meta=0.0.0 zunfsize=16777216 rewrite=0 onlymeta=0 "
    "noactivate=0 product=0: platform=0: minver=0:0.0.0 iptos=0:0 cfg=/dev/mtd5 "
    "cfgbak=/dev/mtd2 dev=/dev/mtd%i lockfile=/tmp/kiv.lock autosetfile=/tmp/kiv.autoset "
    "activesetfile=/tmp/kiv.activeset args=x";

// DEFAULTS with the "key=value" words of changes put in place of their keys' values.
std::string with(const std::string &changes) {
    std::map<std::string, std::string> changed;
    std::istringstream in(changes);
    for (std::string word; in >> word;)
        changed[word.substr(0, word.find('='))] = word;
    std::istringstream base(DEFAULTS);
    std::string out;
    for (std::string word; base >> word;) {
        auto it = changed.find(word.substr(0, word.find('=')));
        out += (out.empty() ? "" : " ") + (it == changed.end() ? word : it->second);
    }
    return out;
}

void set_env(const char *name, const char *value) {
    if (value)
        ::setenv(name, value, 1);
    else
        ::unsetenv(name);
}

Parsed parse(std::vector<std::string> words, Env env = {}, bool with_command = true) {
    set_env("KIV_PRODUCT", env.product);
    set_env("KIV_PLATFORM", env.platform);
    if (with_command) words.insert(words.begin(), "kiv");
    std::vector<char *> argv;
    for (std::string &w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);

    kiv_options o;
    std::memset(&o, 0xa5, sizeof o); // garbage: the parser must clear the record itself
    Parsed p;
    {
        FdCapture out(1);
        FdCapture err(2);
        p.result = kiv_parse_command_line(&o, static_cast<int>(words.size()), argv.data());
        p.err = err.text();
        p.out = out.text();
    }
    if (p.result == KIV_PARSE_CONTINUE) p.fields = fields_of(o);
    set_env("KIV_PRODUCT", nullptr);
    set_env("KIV_PLATFORM", nullptr);
    return p;
}

std::string chars(std::size_t n, char c = 'p') {
    return std::string(n, c);
}

struct Row {
    std::vector<std::string> words;
    std::string err;          // exact standard error of a refusal; empty: accepted
    std::string changes = {}; // accepted: the fields that differ from DEFAULTS
    Env env = {};
};

TEST(KivCmdline, OptionGrammar) {
    std::vector<std::string> nineteen = {"x", "1", "2", "3", "4", "-v", "-dryrun", "-f"};
    for (int i = 5; i < 19; ++i)
        nineteen.push_back(std::to_string(i));
    const Row rows[] = {
        {{"x"}, "", ""},
        // Flags are exact words, except the two that take any suffix.
        {{"-r", "-dryrun", "-test", "-v", "-f", "x"}, "", "r=1 dryrun=1 test=1 v=1 f=1"},
        {{"-rx", "-dryrun2", "-vv", "-ff", "-tests", "-noactivates"},
         "",
         "args=-rx|-dryrun2|-vv|-ff|-tests|-noactivates"},
        {{"-rewriteall", "-onlymetadata", "x"}, "", "rewrite=1 onlymeta=1"},
        {{"x", "-noactivate"}, "", "noactivate=1"},
        {{"-v", "x", "-x"}, "", "v=1 args=x|-x"},
        {{"partinfo", "4", "POOL", "-offset=1", "-mount=/", "-pn=3", "-fstype=ext4", "-refs=1,2",
          "-pif=p", "-all", "-1", "-meta", "-minver", "-product", "-product=", "-platform="},
         "",
         "args=partinfo|4|POOL|-offset=1|-mount=/|-pn=3|-fstype=ext4|-refs=1,2|-pif=p|-all|-1|"
         "-meta|-minver|-product|-product=|-platform="},
        {{"-meta=x", "-plugin=y", "-cfg"}, "-meta syntax failure.\n"}, // the first refusal
        // -meta: dotted (any base per number) or one packed number; otherwise the leading one.
        {{"-meta=1.2.3", "x"}, "", "meta=1.2.3"},
        {{"-meta=0x01020003", "x"}, "", "meta=1.2.3"},
        {{"-meta=FF10ABCD", "x"}, "", "meta=255.16.43981"},
        {{"-meta=0x10.010.-1", "x"}, "", "meta=16.8.-1"},
        {{"-meta=1,2,3", "x"}, "", "meta=0.0.1"},
        {{"-meta=1.2", "x"}, "", "meta=0.0.1"},
        {{"-meta=", "x"}, "-meta syntax failure.\n"},
        {{"-minver=1.2.300", "x"}, "", "minver=1:1.2.300"},
        {{"-minver=", "x"}, "-minver syntax failure.\n"},
        {{"-zunfsize=1000", "x"}, "", "zunfsize=1000"},
        {{"-zunfsize=0x10", "x"}, "", "zunfsize=0"}, // decimal only
        {{"-zunfsizes=5", "x"}, "-zunfsize syntax failure.\n"},
        {{"-zunfsize=big", "x"}, "-zunfsize syntax failure.\n"},
        {{"-iptos=0x10", "x"}, "", "iptos=1:16"},
        {{"-iptos=010", "x"}, "", "iptos=1:8"},
        {{"-iptos", "x"}, "-iptos syntax failure.\n"},
        {{"-iptosx=1", "x"}, "-iptos syntax failure.\n"},
        // -cfg alone runs without a backup; the value is a word as %s reads it.
        {{"-cfg=/tmp/h.img", "x"}, "", "cfg=/tmp/h.img cfgbak="},
        {{"-cfgbak=/tmp/b.img", "x"}, "", "cfgbak=/tmp/b.img"},
        {{"-cfgbak=/b", "-cfg=/a", "x"}, "", "cfg=/a cfgbak=/b"},
        {{"-cfg= /a b", "x"}, "", "cfg=/a cfgbak="},
        {{"-cfg=", "x"}, "-cfg syntax failure.\n"},
        {{"-cfg= ", "x"}, "-cfg syntax failure.\n"},
        {{"-cfgx=/a", "x"}, "-cfg syntax failure.\n"},
        {{"-cfgba=/a", "x"}, "-cfg syntax failure.\n"},
        {{"-lockfile=/l", "-autosetfile=/au", "-activesetfile=/ac", "x"},
         "",
         "lockfile=/l autosetfile=/au activesetfile=/ac"},
        {{"-loc=/l", "x"}, "-lock syntax failure.\n"},
        {{"-lockfile=", "x"}, "-lock syntax failure.\n"},
        {{"-activesetfile=", "x"}, "-activesetfile syntax failure.\n"},
        {{"-dev=/no/such/dev", "x"}, "-dev failure. /no/such/dev is not a block device\n"},
        {{"-dev=/" + chars(60), "x"}, "-dev failure. /" + chars(39) + " is not a block device\n"},
        {{"-device=/dev/sda", "x"}, "-dev syntax failure.\n"},
        // Product and platform are cut to their fields; -plugin is read, then refused.
        {{"-product=MODEL", "x"}, "", "product=1:MODEL"},
        {{"-product=ABCDEFGHIJKLMNOPQ", "x"}, "", "product=1:ABCDEFGHIJKLMNO"},
        {{"x", "-product="}, "", "args=x|-product="},
        {{"-platform=ABCDEFGHIJ", "x"}, "", "platform=1:ABCDEFG"},
        {{"-plugin=" + chars(199), "x"}, "plugin support not enabled.\n"},
        {{"-plugin=a"}, "plugin support not enabled.\n"},
        // The environment: the limits themselves are checked on the real command.
        {{"x"}, "", "product=1:ABCDEFGHIJKLMNO", {"ABCDEFGHIJKLMNO"}},
        {{"x"}, "", "product=1:", {""}},
        {{"-product=B", "x"}, "", "product=1:B", {"A"}},
        {{"x"}, "", "platform=1:ABCDEFG", {nullptr, "ABCDEFG"}},
        {{"x"}, "", "platform=1:", {nullptr, ""}},
        {{"-platform=B", "x"}, "", "platform=1:B", {nullptr, "A"}},
        {{"-meta=x"}, "KIV_PRODUCT too long: ABCDEFGHIJKLMNOP\n", "", {"ABCDEFGHIJKLMNOP"}},
        {{"x"}, "KIV_PRODUCT too long: ABCDEFGHIJKLMNOP\n", "", {"ABCDEFGHIJKLMNOP", "ABCDEFGH"}},
        // Nineteen words fit, the options among them not counted; far more are refused.
        {nineteen, "", "dryrun=1 v=1 f=1 args=x|1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|17|18"},
        {std::vector<std::string>(200, "w"), "Too many arguments.\n"},
    };
    for (const Row &row : rows) {
        std::string trace;
        for (const std::string &w : row.words)
            trace += w + " ";
        SCOPED_TRACE(trace.substr(0, 120));
        Parsed p = parse(row.words, row.env);
        EXPECT_EQ(p.result, row.err.empty() ? KIV_PARSE_CONTINUE : KIV_EXIT_SYNTAX);
        EXPECT_EQ(p.err, row.err);
        EXPECT_EQ(p.out, "");
        EXPECT_EQ(p.fields, row.err.empty() ? with(row.changes) : "");
    }
}

TEST(KivCmdline, PathValuesFitTheirFieldsOrAreRefused) {
    const std::string longest = cat("/", chars(98));
    for (const char *name : {"cfg", "cfgbak", "lockfile", "autosetfile", "activesetfile"}) {
        SCOPED_TRACE(name);
        const std::string option = std::string("-") + name + "=";
        Parsed fits = parse({option + longest, "x"});
        EXPECT_EQ(fits.err, "");
        EXPECT_NE(fits.fields.find(cat(" ", name, "=", longest, " ")), std::string::npos);
        Parsed over = parse({option + longest + "q", "x"});
        EXPECT_EQ(over.result, KIV_EXIT_SYNTAX);
        EXPECT_EQ(over.err, option.substr(0, option.size() - 1) + " value too long.\n");
    }
}

TEST(KivCmdline, NoWordsAtAll) {
    Parsed p = parse({}, {}, false);
    EXPECT_EQ(p.result, KIV_EXIT_SYNTAX);
    EXPECT_EQ(p.err, "Syntax error, argc(0) < 2\n");
}

// The device path becomes part of a printf pattern: a '%' in a node's name must stay a
// literal character, or every partition name would be formatted from garbage.
TEST(KivCmdline, BlockDeviceBecomesThePartitionPattern) {
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
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(p.fields, with("dev=" + std::string(dir) + "/b%%d%i"));
}

} // namespace
