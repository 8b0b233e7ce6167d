#include "front/kiv_cmdline.hpp"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <sys/stat.h>

#include "front/kiv_actions.hpp"
#include "front/kiv_guard.hpp"
#include "front/kiv_log.hpp"
#include "hostconfig/hostconfig.hpp"
#include "kivl/kivl.hpp"
#include "util/qx.hpp"
#include "util/scan_text.hpp"

// Printed by `help` and after a command line without any word.
const char kiv_usage_text[] = R"usage(Usage: kiv [ ... ] ACTION [ ... ]
where ACTION usage must be one of the following:
  help
  initialize
  info
  partset SETIDX [SETNAME] [-refs=PARTREFS]
  activate [SETIDX|SETNAME]
  partinfo PARTIDX [ POOLNAME SIZE [-offset=OFFSET] [-mount=MOUNT]
                                   [-pn=PNUMBER] [-fstype=FSTYPE] ]
  install ZUNF SETIDX
  verify [SETIDX|SETNAME]
  upgrade [activate|validate|test]
  mount [SETIDX|SETNAME]
  getpartset [SETIDX|active] [name] [-pif=PIF]
  getrh [SETIDX|SETNAME|active] [-pif=PIF]
  zunfinfo ZUNF [-all]
COMMON OPTIONS can be located anywhere as long
as they do not break the syntax of an ACTION:
  -dryrun       do not alter hostconfig
  -test         when activating set, mark it for test
  -onlymeta     do only operate on hostconfig
  -v            show verbose information
  -f            force an action
  -meta=major,minor,buildnumber
  -zunfsize     max ZUNF size
  -rewrite      force rewrite even if installed
  -cfg=HOSTCFG  use another hostconfig than the default one
  -cfgbak=HOSTCFG  use another hostconfig backup than the default one
  -dev=DEVICE   use another storage device to operate on its partitions
                than the default one
  -noactivate   do not update active set after install
  -product=MODEL only install if release header contains this model
                 can also be set from the environment KIV_PRODUCT
  -platform=PLF match platform in kivm, defaults to product
                 can also be set from the environment KIV_PLATFORM
  -minver=major.minor.buildnumber mimimum release version to install
  -iptos=TOS    set type of service (TOS) for IP communication
HOSTCFG:
  For this system default hostconfig (HOSTCFG) is located at:
    /dev/mtd5 (backup located at /dev/mtd2)
SETIDX and install action:
  If -1 is given as SETIDX at install time KIV will try to
  autoselect a SETIDX suitable for installation.
PARTIDX and partinfo action:
  PARTIDX is the index to an element in the hostconfig partition info
  table. As default the PARTIDX number is the same as the partition
  number the entry covers. However the partition number can be set to
  something else with the -pn=NUMBER option. Example:
    $ kiv partinfo 4 TESTPOOL 0x100 -pn=22
  In this example PARTIDX 4 covers partition 22 and not partition 4
  as it would have if the -pn option was not given.
ZUNF is a valid ZUNF file. Can be fetched either from
  the file system, tftp or by CURL (if CURL is enabled).
FSTYPE:
  can be e.g. squashfs, ext2, ex3, ext4, jffs2, virtuals.
)usage";

namespace {
constexpr const char *DEFAULT_LOCKFILE = "/tmp/kiv.lock";
constexpr const char *DEFAULT_AUTOSETFILE = "/tmp/kiv.autoset";
constexpr const char *DEFAULT_ACTIVESETFILE = "/tmp/kiv.activeset";
constexpr const char *DEFAULT_HOSTCFG = "/dev/mtd5";
constexpr const char *DEFAULT_HOSTCFG_BACKUP = "/dev/mtd2";
constexpr const char *DEFAULT_DEVICE = "/dev/mtd%i";
constexpr int MIN_ARGC = 2;
// Width of the -dev= scan: the pattern gets "%i" appended and must stay a short name.
constexpr std::size_t DEV_SCAN_WIDTH = 40;
// Even with every character doubled the pattern fits its field.
static_assert(2 * DEV_SCAN_WIDTH + 3 <= KIV_PATH_LEN);
// Room in args for words: the last entry is the terminating null.
constexpr std::int32_t MAX_WORDS = static_cast<std::int32_t>(KIV_MAX_ARGS) - 1;

// How one command-line word was taken.
enum class Word { Option, Plain, Refused };

Word refuse(const char *message) {
    kiv_log(LOG_ERR, "%s", message);
    return Word::Refused;
}

// Copies value (shorter than size) into a text field of size bytes.
void store_text(char *field, std::size_t size, std::string_view value) {
    QX_ASSERT("kiv", value.size() < size);
    std::memcpy(field, value.data(), value.size());
    field[value.size()] = '\0';
}

template <std::size_t N>
Word scan_path(std::string_view word, std::string_view literal, char (&field)[N],
               const char *syntax_message, const char *too_long_message) {
    auto value = scan_text(word, literal);
    if (!value) return refuse(syntax_message);
    if (value->size() >= N) return refuse(too_long_message);
    store_text(field, N, *value);
    return Word::Option;
}

// Like a scanf "%<width>s": the value is cut, never refused for its length.
template <std::size_t N>
bool scan_cut(std::string_view word, std::string_view literal, char (&field)[N]) {
    auto value = scan_text(word, literal);
    if (!value) return false;
    store_text(field, N, sv_slice(*value, 0, N - 1));
    return true;
}

Word scan_meta(kiv_options *o, const char *word) {
    int major = 0, minor = 0, build = 0;
    if (std::sscanf(word, "-meta=%i.%i.%i", &major, &minor, &build) == 3) {
        o->meta_major = major;
        o->meta_minor = minor;
        o->meta_build = build;
        return Word::Option;
    }
    // The packed form: major in bits 31..24, minor in 23..16, build number in 15..0.
    unsigned packed = 0;
    if (std::sscanf(word, "-meta=%X", &packed) != 1) return refuse("-meta syntax failure.\n");
    o->meta_major = static_cast<std::int32_t>((packed >> 24) & 0xffu);
    o->meta_minor = static_cast<std::int32_t>((packed >> 16) & 0xffu);
    o->meta_build = static_cast<std::int32_t>(packed & 0xffffu);
    return Word::Option;
}

Word scan_device(kiv_options *o, std::string_view word) {
    auto value = scan_text(word, "-dev=");
    if (!value) return refuse("-dev syntax failure.\n");
    char path[DEV_SCAN_WIDTH + 1];
    store_text(path, sizeof path, sv_slice(*value, 0, DEV_SCAN_WIDTH));
    struct stat st;
    if (::stat(path, &st) != 0 || !S_ISBLK(st.st_mode)) {
        kiv_log(LOG_ERR, "-dev failure. %s is not a block device\n", path);
        return Word::Refused;
    }
    // The partitions are then path0, path1, ... The path becomes part of a printf pattern,
    // so a '%' in it is doubled to stay a literal character.
    std::size_t n = 0;
    for (const char *c = path; *c != '\0'; ++c) {
        if (*c == '%') o->device[n++] = '%';
        o->device[n++] = *c;
    }
    std::snprintf(o->device + n, sizeof o->device - n, "%%i");
    return Word::Option;
}

// Tests word against the option rules in their fixed order; the first match decides.
Word parse_word(kiv_options *o, const char *word) {
    std::string_view w(word);
    if (w == "-r") {
        o->r = 1;
        return Word::Option;
    }
    if (w == "-dryrun") {
        o->dryrun = 1;
        return Word::Option;
    }
    if (w == "-test") {
        o->test = 1;
        return Word::Option;
    }
    if (w == "-v") {
        o->verbose = 1;
        return Word::Option;
    }
    if (w == "-f") {
        o->force = 1;
        return Word::Option;
    }
    if (w.starts_with("-meta=")) return scan_meta(o, word);
    if (w.starts_with("-zunfsize")) {
        if (std::sscanf(word, "-zunfsize=%u", &o->zunfsize) != 1)
            return refuse("-zunfsize syntax failure.\n");
        return Word::Option;
    }
    if (w.starts_with("-rewrite")) {
        o->rewrite = 1;
        return Word::Option;
    }
    if (w.starts_with("-cfgbak"))
        return scan_path(w, "-cfgbak=", o->hostcfg_backup, "-cfgbak syntax failure.\n",
                         "-cfgbak value too long.\n");
    if (w.starts_with("-cfg"))
        return scan_path(w, "-cfg=", o->hostcfg, "-cfg syntax failure.\n",
                         "-cfg value too long.\n");
    if (w.starts_with("-dev")) return scan_device(o, w);
    if (w.starts_with("-onlymeta")) {
        o->onlymeta = 1;
        return Word::Option;
    }
    if (w == "-noactivate") {
        o->noactivate = 1;
        return Word::Option;
    }
    if (scan_cut(w, "-product=", o->product)) {
        o->product_set = 1;
        return Word::Option;
    }
    if (scan_cut(w, "-platform=", o->platform)) {
        o->platform_set = 1;
        return Word::Option;
    }
    if (w.starts_with("-minver=")) {
        unsigned major = 0, minor = 0, build = 0;
        if (std::sscanf(word, "-minver=%u.%u.%u", &major, &minor, &build) != 3)
            return refuse("-minver syntax failure.\n");
        o->minver_major = major;
        o->minver_minor = minor;
        o->minver_build = build;
        o->minver_set = 1;
        return Word::Option;
    }
    if (w.starts_with("-iptos")) {
        int tos = 0;
        if (std::sscanf(word, "-iptos=%i", &tos) != 1) return refuse("-iptos syntax failure.\n");
        o->iptos = tos;
        o->iptos_set = 1;
        return Word::Option;
    }
    if (auto value = scan_text(w, "-plugin=")) {
        if (value->size() >= sizeof o->plugin) return refuse("-plugin value too long.\n");
        store_text(o->plugin, sizeof o->plugin, *value);
        // This build loads no plug-ins through the command line.
        return refuse("plugin support not enabled.\n");
    }
    if (w.starts_with("-loc"))
        return scan_path(w, "-lockfile=", o->lockfile, "-lock syntax failure.\n",
                         "-lockfile value too long.\n");
    if (w.starts_with("-aut"))
        return scan_path(w, "-autosetfile=", o->autosetfile, "-autosetfile syntax failure.\n",
                         "-autosetfile value too long.\n");
    if (w.starts_with("-act"))
        return scan_path(w, "-activesetfile=", o->activesetfile, "-activesetfile syntax failure.\n",
                         "-activesetfile value too long.\n");
    return Word::Plain;
}

// Copies an environment value into its field. Returns 1, or 0 when it does not fit.
template <std::size_t N> int copy_environment(const char *value, char (&field)[N], int *is_set) {
    if (std::strlen(value) >= N) return 0;
    qx_strlcpy(field, value, N);
    // Set but empty still counts as set.
    *is_set = 1;
    return 1;
}

void apply_early_defaults(kiv_options *o) {
    qx_strlcpy(o->lockfile, DEFAULT_LOCKFILE, sizeof o->lockfile);
    qx_strlcpy(o->autosetfile, DEFAULT_AUTOSETFILE, sizeof o->autosetfile);
    qx_strlcpy(o->activesetfile, DEFAULT_ACTIVESETFILE, sizeof o->activesetfile);
    o->zunfsize = KIV_DEFAULT_ZUNFSIZE;
}

void apply_late_defaults(kiv_options *o) {
    // A hostconfig named on the command line has no backup unless one is named as well.
    if (o->hostcfg[0] == '\0') {
        qx_strlcpy(o->hostcfg, DEFAULT_HOSTCFG, sizeof o->hostcfg);
        if (o->hostcfg_backup[0] == '\0')
            qx_strlcpy(o->hostcfg_backup, DEFAULT_HOSTCFG_BACKUP, sizeof o->hostcfg_backup);
    }
    if (o->device[0] == '\0') qx_strlcpy(o->device, DEFAULT_DEVICE, sizeof o->device);
}

int run_help(kiv_options *) {
    qx_printf("%s", kiv_usage_text);
    return 0;
}

// The entry's own upgrade data and hostconfig for the actions that need no more. Static:
// together they are several kilobytes, more than a small device's stack should carry.
kivl_data entry_data;
hostconfig entry_hostconfig;

int run_initialize(kiv_options *o) {
    return kiv_initialize(o, &entry_data, &entry_hostconfig);
}
int run_info(kiv_options *o) {
    return kiv_info(o, &entry_data, &entry_hostconfig);
}
int run_mount(kiv_options *o) {
    return kiv_mount(o, &entry_data, &entry_hostconfig);
}
int run_partset(kiv_options *o) {
    return kiv_partset(o, &entry_data, &entry_hostconfig);
}

struct action_entry {
    const char *name;
    int (*run)(kiv_options *options);
};

// Compared in this order, exactly and case-sensitively; the first match is called.
constexpr action_entry ACTIONS[] = {
    {"initialize", run_initialize},
    {"install", kiv_install},
    {"info", run_info},
    {"getrh", kiv_getrh},
    {"mount", run_mount},
    {"partset", run_partset},
    {"partinfo", kiv_partinfo},
    {"activate", kiv_activate},
    {"upgrade", kiv_upgrade},
    {"verify", verify_sets},
    {"getpartset", kiv_getpartset},
    {"zunfinfo", kiv_zunfinfo},
    {"help", run_help},
};
} // namespace

int kiv_parse_command_line(kiv_options *options, int argc, char **argv) {
    QX_ASSERT("kiv", options != nullptr && argv != nullptr);
    if (argc < MIN_ARGC) {
        kiv_log(LOG_ERR, "Syntax error, argc(%i) < 2\n", argc);
        qx_printf("%s", kiv_usage_text);
        return KIV_EXIT_SYNTAX;
    }
    std::memset(options, 0, sizeof *options);
    apply_early_defaults(options);

    // Read before any option, so that the command line overrides the environment.
    if (const char *product = std::getenv("KIV_PRODUCT");
        product && !copy_environment(product, options->product, &options->product_set)) {
        kiv_log_both(LOG_CRIT, "KIV_PRODUCT too long: %s\n", product);
        return KIV_EXIT_SYNTAX;
    }
    if (const char *platform = std::getenv("KIV_PLATFORM");
        platform && !copy_environment(platform, options->platform, &options->platform_set)) {
        kiv_log_both(LOG_CRIT, "KIV_PLATFORM too long: %s\n", platform);
        return KIV_EXIT_SYNTAX;
    }

    for (int i = 1; i < argc; ++i) {
        Word taken = parse_word(options, argv[i]);
        if (taken == Word::Refused) return KIV_EXIT_SYNTAX;
        if (taken == Word::Plain) {
            if (options->nargs >= MAX_WORDS) {
                kiv_log(LOG_ERR, "Too many arguments.\n");
                return KIV_EXIT_SYNTAX;
            }
            options->args[options->nargs++] = argv[i];
        }
    }
    options->args[options->nargs] = nullptr;
    options->action = options->args[0];
    if (options->nargs == 0) {
        kiv_log(LOG_ERR, "ACTION is missing.\n");
        return KIV_EXIT_SYNTAX;
    }
    apply_late_defaults(options);
    return KIV_PARSE_CONTINUE;
}

void kiv_print_verbose_summary(const kiv_options *o) {
    std::printf("action: %s hostcfg: %s (backup: %s) device: %s -r: %i -dryrun: %i -v: %i "
                "-f: %i -meta: %i.%i.%i -zunfsize=%u -rewrite=%i\n",
                o->action, o->hostcfg, o->hostcfg_backup, o->device, o->r, o->dryrun, o->verbose,
                o->force, o->meta_major, o->meta_minor, o->meta_build, o->zunfsize, o->rewrite);
    std::printf("-minver: %u.%u.%u -lockfile: %s -autosetfile: %s -activesetfile: %s\n",
                o->minver_major, o->minver_minor, o->minver_build, o->lockfile, o->autosetfile,
                o->activesetfile);
    std::printf("other: ");
    for (std::int32_t i = 1; i < o->nargs; ++i)
        std::printf("%s ", o->args[i]);
    std::printf("\n");
    // Out before the action writes to the same stream or to standard error.
    std::fflush(stdout);
}

int kiv_dispatch(kiv_options *options) {
    QX_ASSERT("kiv", options != nullptr && options->action != nullptr);
    std::string_view action(options->action);
    for (const action_entry &entry : ACTIONS)
        if (action == entry.name) return entry.run(options);
    kiv_log(LOG_ERR, "Unknown action\n");
    return 1;
}

int kiv_run(int argc, char **argv) {
    kiv_options options;
    int result = kiv_parse_command_line(&options, argc, argv);
    if (result != KIV_PARSE_CONTINUE) return result;
    if (options.verbose) kiv_print_verbose_summary(&options);
    // Taken only once the whole command line is accepted.
    if (!kiv_lock(&options)) return KIV_EXIT_LOCK_FAILED;
    result = kiv_dispatch(&options);
    kiv_unlock(&options);
    return result;
}
