// Which set the device runs and in which upgrade state: activate and upgrade on the
// simulated device, booted from each set. The state bytes are read back from flash, and
// every state write must come after the hostconfig save that erased them.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "common/cat.hpp"
#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;

const std::string STATE_WRITE = "write mtd5 131070 2";
const std::vector<std::string> ACTIVATE2 = {"activate", "2"};

enum Damage { INTACT, P4_DIFFERS, P3_DIFFERS, SET2_NO_REFS, P4_UNRECORDED };

// Safe set on entry 0, set 1 on entry 3, set 2 on entry 4.
InstalledDevice state_device(int actset, const std::string &states, Damage damage = INTACT) {
    InstalledDevice d;
    d.install(0, "KERNEL-SAFE", 1, content_bytes(2000, 1), "kernel-safe");
    d.install(3, "APPL", 1, content_bytes(3000, 3), "appl", {2, 0, 1});
    d.install(4, "APPL", 1, content_bytes(3000, 4), "appl", {2, 1, 0});
    d.set(0, "SAFESET", {0});
    d.set(1, "SET1", {3});
    d.set(2, "SET2", damage == SET2_NO_REFS ? std::vector<int>{} : std::vector<int>{4});
    d.rec.actset = static_cast<std::uint8_t>(actset);
    d.states = states;
    if (damage == P4_DIFFERS || damage == P3_DIFFERS)
        d.partitions[damage == P4_DIFFERS ? 4 : 3][100] ^= 0x01;
    if (damage == P4_UNRECORDED) d.rec.pinfometa[4].body_length = 0;
    return d;
}

enum Effect { UNTOUCHED, SAVED, SAVED_STATE };

// The save happened (backup first, then the primary from an erase at 0), and a state
// write, if any, came after everything else done to mtd5.
void expect_effect(const SandboxResult &r, Effect effect) {
    if (effect == UNTOUCHED) return expect_flash_untouched(r);
    const std::vector<std::string> primary = changes_on(r, HOSTCFG_MTD);
    const std::vector<std::string> backup = changes_on(r, BACKUP_MTD);
    ASSERT_FALSE(primary.empty() || backup.empty()) << r.describe();
    EXPECT_LT(event_index(r, backup.back()), event_index(r, primary.front())) << r.describe();
    EXPECT_TRUE(primary.front().starts_with("erase mtd5 0 ")) << r.describe();
    const long state_writes = std::count(primary.begin(), primary.end(), STATE_WRITE);
    EXPECT_EQ(state_writes, effect == SAVED_STATE ? 1 : 0) << r.describe();
    EXPECT_EQ(primary.back() == STATE_WRITE, effect == SAVED_STATE) << r.describe();
}

// A message on standard error and in the system log with its severity, or only on
// standard output.
constexpr int ON_STDOUT = -1;
struct Message {
    std::string text;
    int severity = 0;
};

struct Row {
    std::string cmdline;
    std::string before; // states of set 1 and 2
    int actset;
    std::optional<std::string> activeset; // the activeset file; none: no file
    std::vector<std::string> args;
    int exit;
    Message message;
    Effect effect;
    std::string after;
    int actset_after;
    Damage damage = INTACT;
};

TEST(UpgradeE2e, StateMachine) {
    const std::string BOOT1 = "console=ttyS0 KIVSET=SET1", SAFE = "KIVSET=SAFESET console=ttyS0",
                      BOOT2 = "console=ttyS0 KIVSET=SET2 quiet", NO_SET = "console=ttyS0 quiet",
                      BOOT7 = "KIVSET=SET7";
    const Message QUIET{};
    const Message ALREADY{"Already validated\n", ON_STDOUT};
    const Message INVALID{"Upgrade state is invalid\n", ON_STDOUT};
    const Message FAILED{"failed to set upgrade state\n", LOG_CRIT};
    const Message MISSING{"upgrade: Missing argument\n", LOG_ERR};
    const Message UNKNOWN{"upgrade: unknown command.\n", LOG_CRIT};
    auto bad_file = [](const std::string &n) {
        return Message{cat("upgrade: invalid set ", n, " in activeset file\n"), LOG_ERR};
    };
    auto check_err = [](int err) {
        return Message{cat("activate: set 2 validation err=", std::to_string(err), "\n"), LOG_ERR};
    };
    auto bad_id = [](const std::string &word) {
        return Message{cat("activate: invalid set id: ", word, "\n"), LOG_ERR};
    };
    using Args = std::vector<std::string>;
    const Args TEST = {"upgrade", "test"}, VALIDATE = {"upgrade", "validate"},
               ACTIVATE = {"upgrade", "activate"}, ACTIVATE_TEST = {"upgrade", "activate", "-test"},
               ACTIVATE_TEST_DRY = {"upgrade", "activate", "-test", "-dryrun"};
    const std::vector<Row> rows = {
        // upgrade test: BOOT of the boot set becomes TEST; anything else stays.
        {BOOT1, "BV", 1, {}, TEST, 0, QUIET, SAVED_STATE, "TV", 1},
        {BOOT2, "VB", 2, {}, TEST, 0, QUIET, SAVED_STATE, "VT", 2},
        {BOOT1, "TB", 1, {}, TEST, 0, QUIET, UNTOUCHED, "TB", 1},
        {BOOT1, "VB", 1, {}, TEST, 0, QUIET, UNTOUCHED, "VB", 1},
        {SAFE, "BB", 0, {}, TEST, 0, QUIET, UNTOUCHED, "BB", 0},
        {BOOT1, "BV", 1, {}, {"upgrade", "test", "-dryrun"}, 0, QUIET, UNTOUCHED, "BV", 1},
        {BOOT7, "BB", 1, {}, TEST, 1, INVALID, UNTOUCHED, "BB", 1},
        // upgrade validate: TEST or BOOT of the boot set becomes VALID; the save has made
        // every other set VALID as well.
        {BOOT2, "BT", 2, {}, VALIDATE, 0, QUIET, SAVED, "VV", 2},
        {BOOT1, "BT", 1, {}, VALIDATE, 0, QUIET, SAVED, "VV", 1},
        {BOOT1, "VB", 1, {}, VALIDATE, 0, ALREADY, UNTOUCHED, "VB", 1},
        {SAFE, "BB", 0, {}, VALIDATE, 0, ALREADY, UNTOUCHED, "BB", 0},
        {NO_SET, "BB", 1, {}, VALIDATE, 0, ALREADY, UNTOUCHED, "BB", 1},
        {BOOT2, "VT", 2, {}, {"-dryrun", "upgrade", "validate"}, 0, QUIET, UNTOUCHED, "VT", 2},
        {BOOT7, "BB", 1, {}, VALIDATE, 1, INVALID, UNTOUCHED, "BB", 1},
        // upgrade activate: the set named by the activeset file.
        {BOOT1, "VV", 1, "2\n", ACTIVATE_TEST, 0, QUIET, SAVED_STATE, "VT", 2},
        {SAFE, "VV", 1, "2", ACTIVATE_TEST, 0, QUIET, SAVED, "VV", 2},
        {BOOT1, "TB", 1, "2", ACTIVATE, 0, QUIET, SAVED, "VV", 2},
        {BOOT1, "TB", 2, "2", ACTIVATE_TEST, 0, QUIET, UNTOUCHED, "TB", 2},
        {BOOT1, "BV", 1, "0", ACTIVATE_TEST, 1, FAILED, SAVED, "VV", 0},
        {BOOT1, "VV", 1, "2", ACTIVATE_TEST_DRY, 0, QUIET, UNTOUCHED, "VV", 1},
        {BOOT1, "BV", 1, {}, ACTIVATE, 1, QUIET, UNTOUCHED, "BV", 1},
        {BOOT1, "BV", 1, "", ACTIVATE, 1, QUIET, UNTOUCHED, "BV", 1},
        {BOOT1, "BV", 1, "SET2\n", ACTIVATE, 1, QUIET, UNTOUCHED, "BV", 1},
        {BOOT1, "BV", 1, "7", ACTIVATE, 1, bad_file("7"), UNTOUCHED, "BV", 1},
        {BOOT1, "BV", 1, "-1", ACTIVATE, 1, bad_file("-1"), UNTOUCHED, "BV", 1},
        {BOOT1, "BV", 1, "258", ACTIVATE, 1, bad_file("258"), UNTOUCHED, "BV", 1}, // 2 + 256
        {BOOT1, "BV", 1, {}, {"upgrade"}, 1, MISSING, UNTOUCHED, "BV", 1},
        {BOOT1, "BV", 1, {}, {"upgrade", "foo"}, 1, UNKNOWN, UNTOUCHED, "BV", 1},
        // activate SET: the set's partitions are checked unless -f; the states are left as
        // the save's erase leaves them.
        {BOOT1, "TB", 1, {}, ACTIVATE2, 0, QUIET, SAVED, "VV", 2},
        {BOOT1, "TB", 1, {}, {"activate", "SET2"}, 0, QUIET, SAVED, "VV", 2},
        {BOOT1, "TB", 1, {}, {"activate", "0x2"}, 0, QUIET, SAVED, "VV", 2},
        {BOOT1, "TB", 1, {}, {"activate", "SAFESET"}, 0, QUIET, SAVED, "VV", 0},
        {BOOT1, "TB", 1, {}, {"activate", "1"}, 0, QUIET, SAVED, "VV", 1},
        {BOOT1, "TB", 1, {}, {"activate", "2", "-dryrun"}, 0, QUIET, UNTOUCHED, "TB", 1},
        {BOOT1, "TB", 1, {}, ACTIVATE2, 1, check_err(4), UNTOUCHED, "TB", 1, P4_DIFFERS},
        {BOOT1, "TB", 1, {}, {"activate", "2", "-f"}, 0, QUIET, SAVED, "VV", 2, P4_DIFFERS},
        {BOOT1, "TB", 1, {}, ACTIVATE2, 0, QUIET, SAVED, "VV", 2, P3_DIFFERS},
        {BOOT1, "VV", 1, {}, ACTIVATE2, 1, check_err(1), UNTOUCHED, "VV", 1, SET2_NO_REFS},
        {BOOT1, "VV", 1, {}, ACTIVATE2, 1, check_err(2), UNTOUCHED, "VV", 1, P4_UNRECORDED},
        {BOOT1, "TB", 1, {}, {"activate", "3"}, 1, bad_id("3"), UNTOUCHED, "TB", 1},
        {BOOT1, "TB", 1, {}, {"activate", "NOSUCH"}, 1, bad_id("NOSUCH"), UNTOUCHED, "TB", 1},
        {BOOT1, "TB", 1, {}, {"activate"}, 1, bad_id("(none)"), UNTOUCHED, "TB", 1},
    };
    for (const Row &row : rows) {
        std::string trace = row.cmdline + " | " + row.before + " | actset " +
                            std::to_string(row.actset) + " | " + row.activeset.value_or("-") + " |";
        for (const std::string &word : row.args)
            trace += " " + word;
        SCOPED_TRACE(trace);
        Device dev;
        state_device(row.actset, row.before, row.damage).write_to(dev);
        const std::string activeset = row.activeset ? dev.write_file("activeset", *row.activeset)
                                                    : dev.scratch_path("no-activeset");
        std::vector<std::string> args = {"-activesetfile=" + activeset};
        args.insert(args.end(), row.args.begin(), row.args.end());
        RunOptions options;
        options.cmdline = row.cmdline;

        SandboxResult r = kiv_on(dev, args, options);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        const bool on_stdout = row.message.severity == ON_STDOUT;
        EXPECT_EQ(r.out, on_stdout ? row.message.text : "");
        EXPECT_EQ(r.err, on_stdout ? "" : row.message.text);
        const std::string caller = row.args[0] == "-dryrun" ? row.args[1] : row.args[0];
        std::vector<SyslogLine> log;
        if (row.effect != UNTOUCHED) log = save_markers(caller);
        if (!on_stdout && !row.message.text.empty())
            log.push_back(logged(row.message.severity, row.message.text));
        EXPECT_EQ(r.syslog, log);
        expect_effect(r, row.effect);
        EXPECT_EQ(states_on(dev), row.after);
        EXPECT_EQ(actset_on(dev, HOSTCFG_MTD), row.actset_after);
        EXPECT_EQ(actset_on(dev, BACKUP_MTD), row.actset_after);
    }
}

// Each run reads what the one before left: the boot script's test, then the
// application's validate.
TEST(UpgradeE2e, BootTestValidateAcrossRuns) {
    Device dev;
    state_device(2, "VB").write_to(dev);
    RunOptions booted;
    booted.cmdline = "KIVSET=SET2";
    EXPECT_EQ(kiv_on(dev, {"upgrade", "test"}, booted).exit, 0);
    EXPECT_EQ(states_on(dev), "VT");
    EXPECT_EQ(kiv_on(dev, {"upgrade", "validate"}, booted).exit, 0);
    EXPECT_EQ(states_on(dev), "VV");
}

// Under -v the set check comes first, then the dump of the hostconfig with the new
// active set.
TEST(UpgradeE2e, VerboseShowsTheCheckAndTheDump) {
    Device dev;
    state_device(1, "VV").write_to(dev);
    const std::string activeset = dev.write_file("activeset", "2");
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"-activesetfile=" + activeset, "-v", "-dryrun", "upgrade",
                                   "activate"},
          std::vector<std::string>{"activate", "2", "-v", "-dryrun"}}) {
        SCOPED_TRACE(args[1]);
        SandboxResult r = kiv_on(dev, args);
        EXPECT_EQ(r.exit, 0) << r.describe();
        const std::size_t dump = r.out.find(SETS_P1_HEAD);
        ASSERT_NE(dump, std::string::npos) << r.out;
        EXPECT_NE(r.out.find("  2  SET2             0          0.00 0     4    ACTIVE SET\n", dump),
                  std::string::npos)
            << r.out;
        EXPECT_NE(r.out.find(STATES_VALID, dump), std::string::npos) << r.out;
        if (args[0] == "activate") {
            EXPECT_LT(r.out.find("verify_set: Set 2: SET2\n"
                                 "verify_set:   ref  4: APPL         appl        : ok\n"),
                      dump)
                << r.out;
        }
    }
}

// The activate hook of a plug-in written in C and preloaded: called after the save and
// the state write with the new active set (also under -dryrun), its result ignored, never
// called when the action fails earlier. Signals it sends during the run are only logged;
// SIGKILL of the working child gives 72.
TEST(UpgradeE2e, ActivateHookOfAPreloadedPlugin) {
    struct HookRow {
        std::vector<std::string> args;
        Damage damage;
        const char *signals;
        int exit;
        bool saved;
        std::vector<SyslogLine> notes; // on standard error and in the system log
    };
    const std::vector<HookRow> rows = {
        {ACTIVATE2, INTACT, "", 0, true, {}},
        {{"activate", "SET2", "-dryrun"}, INTACT, "", 0, false, {}},
        {ACTIVATE2, P4_DIFFERS, "", 1, false, {}},
        {{"activate", "2", "-f"}, P4_DIFFERS, "", 0, true, {}},
        {{"activate", "2"},
         INTACT,
         "term",
         0,
         true,
         {logged(LOG_INFO, "child: Got signal #15\n"), logged(LOG_INFO, "child: Got signal #2\n"),
          logged(LOG_INFO, "parent: Got signal #15\n")}},
        {{"activate", "2"},
         INTACT,
         "kill",
         72,
         true,
         {logged(LOG_CRIT, "child terminated by signal #9\n")}},
    };
    for (const HookRow &row : rows) {
        SCOPED_TRACE(testing::Message() << row.args[1] << " " << row.damage << " " << row.signals);
        Device dev;
        state_device(1, "TV", row.damage).write_to(dev);
        const std::string record = dev.write_file("hook.log", "");
        SandboxResult r = kiv_with_plugin(
            dev,
            {"KIV_TEST_HOOK_RECORD=" + record, "KIV_TEST_HOOK_SIGNALS=" + std::string(row.signals)},
            row.args);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        const bool called = row.exit != 1;
        EXPECT_EQ(kiv::test::read_text_file(record),
                  called ? "kiv_activate_hook_post actset=2 device=/dev/mtd%i magic=FNUZZUNF\n"
                         : "");
        std::size_t noted = 0;
        for (const SyslogLine &note : row.notes) {
            EXPECT_NE(std::find(r.syslog.begin(), r.syslog.end(), note), r.syslog.end())
                << note << r.describe();
            EXPECT_NE(r.err.find(note.text), std::string::npos) << note;
            noted += note.text.size();
        }
        if (!row.notes.empty()) {
            EXPECT_EQ(r.err.size(), noted) << r.err;
        }
        EXPECT_EQ(changes_on(r, HOSTCFG_MTD).empty(), !row.saved) << r.describe();
        EXPECT_EQ(actset_on(dev, HOSTCFG_MTD), row.saved ? 2 : 1);
        EXPECT_EQ(states_on(dev), row.saved ? "VV" : "TV");
    }
}

} // namespace
