// Which set the device runs and in which upgrade state: activate and upgrade on the
// simulated device, booted from each set. The state bytes are read back from flash
// (131070 and 131071 of mtd5, stored complemented), and every state write must come after
// the hostconfig save that erased them.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include "e2e/installed_device.hpp"

namespace {

using namespace kiv::e2e;

constexpr std::uint8_t V = STORED_VALID;
constexpr std::uint8_t T = STORED_TEST;
constexpr std::uint8_t B = STORED_BOOT;
const std::string STATE_WRITE = "write mtd5 131070 2";

// Safe set on entry 0, set 1 on entry 3, set 2 on entry 4; every partition intact.
InstalledDevice state_device(int actset, std::uint8_t set1, std::uint8_t set2) {
    InstalledDevice d;
    d.install(0, "KERNEL-SAFE", 1, content_bytes(2000, 1), "kernel-safe");
    d.install(3, "APPL", 1, content_bytes(3000, 3), "appl", {2, 0, 1});
    d.install(4, "APPL", 1, content_bytes(3000, 4), "appl", {2, 1, 0});
    d.set(0, "SAFESET", {0});
    d.set(1, "SET1", {3});
    d.set(2, "SET2", {4});
    d.rec.actset = static_cast<std::uint8_t>(actset);
    d.stored_state[0] = set1;
    d.stored_state[1] = set2;
    return d;
}

std::vector<SyslogLine> concat(std::vector<SyslogLine> a, const std::vector<SyslogLine> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The save happened (backup first, then the primary), and a state write, if any, came after
// everything else done to mtd5.
void expect_saved_then_state(const SandboxResult &r, bool state_written) {
    const std::vector<std::string> primary = changes_on(r, HOSTCFG_MTD);
    const std::vector<std::string> backup = changes_on(r, BACKUP_MTD);
    ASSERT_FALSE(primary.empty()) << r.describe();
    ASSERT_FALSE(backup.empty()) << r.describe();
    EXPECT_LT(event_index(r, backup.back()), event_index(r, primary.front())) << r.describe();
    EXPECT_EQ(primary.front().rfind("erase mtd5 0 ", 0), 0u) << r.describe();
    const long state = event_index(r, STATE_WRITE);
    if (!state_written) {
        EXPECT_EQ(state, -1) << r.describe();
        return;
    }
    EXPECT_EQ(primary.back(), STATE_WRITE) << r.describe();
    for (std::size_t i = 0; i + 1 < primary.size(); ++i)
        EXPECT_LT(event_index(r, primary[i]), state) << r.describe();
}

TEST(UpgradeE2e, StateMachine) {
    struct Row {
        const char *scenario;
        std::string cmdline;
        std::uint8_t before[2];
        int actset;
        std::optional<std::string> activeset; // content of the activeset file; none: no file
        std::vector<std::string> args;
        int exit;
        std::string out;
        std::string err;
        std::vector<SyslogLine> messages; // besides the save markers
        bool saved;
        bool state_written;
        std::uint8_t after[2];
        int actset_after;
    };
    const std::string set1 = "console=ttyS0 KIVSET=SET1";
    const std::string set2 = "console=ttyS0 KIVSET=SET2 quiet";
    const std::string safe = "KIVSET=SAFESET console=ttyS0";
    const std::string none = "console=ttyS0 quiet";
    const std::string failed_state = "failed to set upgrade state\n";
    const std::vector<Row> rows = {
        // upgrade test: BOOT becomes TEST; anything else stays.
        {"test in BOOT, booted from 1",
         set1,
         {B, V},
         1,
         {},
         {"test"},
         0,
         "",
         "",
         {},
         true,
         true,
         {T, V},
         1},
        {"test in BOOT, booted from 2",
         set2,
         {V, B},
         2,
         {},
         {"test"},
         0,
         "",
         "",
         {},
         true,
         true,
         {V, T},
         2},
        {"test in TEST", set1, {T, B}, 1, {}, {"test"}, 0, "", "", {}, false, false, {T, B}, 1},
        {"test in VALID", set1, {V, B}, 1, {}, {"test"}, 0, "", "", {}, false, false, {V, B}, 1},
        {"test booted from the safe set",
         safe,
         {B, B},
         0,
         {},
         {"test"},
         0,
         "",
         "",
         {},
         false,
         false,
         {B, B},
         0},
        {"test under -dryrun",
         set1,
         {B, V},
         1,
         {},
         {"test", "-dryrun"},
         0,
         "",
         "",
         {},
         false,
         false,
         {B, V},
         1},
        // upgrade validate: TEST or BOOT of the boot set becomes VALID; the save has made
        // every other set VALID as well.
        {"validate in TEST, booted from 2",
         set2,
         {B, T},
         2,
         {},
         {"validate"},
         0,
         "",
         "",
         {},
         true,
         false,
         {V, V},
         2},
        {"validate in BOOT, booted from 1",
         set1,
         {B, T},
         1,
         {},
         {"validate"},
         0,
         "",
         "",
         {},
         true,
         false,
         {V, V},
         1},
        {"validate in VALID",
         set1,
         {V, B},
         1,
         {},
         {"validate"},
         0,
         "Already validated\n",
         "",
         {},
         false,
         false,
         {V, B},
         1},
        {"validate booted from the safe set",
         safe,
         {B, B},
         0,
         {},
         {"validate"},
         0,
         "Already validated\n",
         "",
         {},
         false,
         false,
         {B, B},
         0},
        {"validate without a KIVSET word",
         none,
         {B, B},
         1,
         {},
         {"validate"},
         0,
         "Already validated\n",
         "",
         {},
         false,
         false,
         {B, B},
         1},
        {"validate under -dryrun",
         set2,
         {V, T},
         2,
         {},
         {"-dryrun", "validate"},
         0,
         "",
         "",
         {},
         false,
         false,
         {V, T},
         2},
        {"validate booted from a set without state",
         "KIVSET=SET7",
         {B, B},
         1,
         {},
         {"validate"},
         1,
         "Upgrade state is invalid\n",
         "",
         {},
         false,
         false,
         {B, B},
         1},
        {"test booted from a set without state",
         "KIVSET=SET7",
         {B, B},
         1,
         {},
         {"test"},
         1,
         "Upgrade state is invalid\n",
         "",
         {},
         false,
         false,
         {B, B},
         1},
        // upgrade activate: the set named by the activeset file.
        {"activate -test booted from 1",
         set1,
         {V, V},
         1,
         "2\n",
         {"activate", "-test"},
         0,
         "",
         "",
         {},
         true,
         true,
         {V, T},
         2},
        {"activate -test booted from the safe set",
         safe,
         {V, V},
         1,
         "2",
         {"activate", "-test"},
         0,
         "",
         "",
         {},
         true,
         false,
         {V, V},
         2},
        {"activate without -test",
         set1,
         {T, B},
         1,
         "2",
         {"activate"},
         0,
         "",
         "",
         {},
         true,
         false,
         {V, V},
         2},
        {"activate the active set",
         set1,
         {T, B},
         2,
         "2",
         {"activate", "-test"},
         0,
         "",
         "",
         {},
         false,
         false,
         {T, B},
         2},
        {"activate -test of the safe set",
         set1,
         {B, V},
         1,
         "0",
         {"activate", "-test"},
         1,
         "",
         failed_state,
         {logged(LOG_CRIT, failed_state)},
         true,
         false,
         {V, V},
         0},
        {"activate under -dryrun",
         set1,
         {V, V},
         1,
         "2",
         {"activate", "-test", "-dryrun"},
         0,
         "",
         "",
         {},
         false,
         false,
         {V, V},
         1},
        {"activate without activeset file",
         set1,
         {B, V},
         1,
         {},
         {"activate"},
         1,
         "",
         "",
         {},
         false,
         false,
         {B, V},
         1},
        {"activate with an empty activeset file",
         set1,
         {B, V},
         1,
         "",
         {"activate"},
         1,
         "",
         "",
         {},
         false,
         false,
         {B, V},
         1},
        {"activate with no number in the activeset file",
         set1,
         {B, V},
         1,
         "SET2\n",
         {"activate"},
         1,
         "",
         "",
         {},
         false,
         false,
         {B, V},
         1},
        {"activate set 7",
         set1,
         {B, V},
         1,
         "7",
         {"activate"},
         1,
         "",
         "upgrade: invalid set 7 in activeset file\n",
         {logged(LOG_ERR, "upgrade: invalid set 7 in activeset file\n")},
         false,
         false,
         {B, V},
         1},
        {"activate set -1",
         set1,
         {B, V},
         1,
         "-1",
         {"activate"},
         1,
         "",
         "upgrade: invalid set -1 in activeset file\n",
         {logged(LOG_ERR, "upgrade: invalid set -1 in activeset file\n")},
         false,
         false,
         {B, V},
         1},
        {"activate set 258 (2 in the low byte)",
         set1,
         {B, V},
         1,
         "258",
         {"activate"},
         1,
         "",
         "upgrade: invalid set 258 in activeset file\n",
         {logged(LOG_ERR, "upgrade: invalid set 258 in activeset file\n")},
         false,
         false,
         {B, V},
         1},
        // Refused commands.
        {"no command",
         set1,
         {B, V},
         1,
         {},
         {},
         1,
         "",
         "upgrade: Missing argument\n",
         {logged(LOG_ERR, "upgrade: Missing argument\n")},
         false,
         false,
         {B, V},
         1},
        {"unknown command",
         set1,
         {B, V},
         1,
         {},
         {"foo"},
         1,
         "",
         "upgrade: unknown command.\n",
         {logged(LOG_CRIT, "upgrade: unknown command.\n")},
         false,
         false,
         {B, V},
         1},
    };

    for (const Row &row : rows) {
        SCOPED_TRACE(row.scenario);
        Device dev;
        state_device(row.actset, row.before[0], row.before[1]).write_to(dev);
        const std::string activeset = row.activeset ? dev.write_file("activeset", *row.activeset)
                                                    : dev.scratch_path("no-activeset");
        std::vector<std::string> args = {"-activesetfile=" + activeset, "upgrade"};
        args.insert(args.end(), row.args.begin(), row.args.end());
        RunOptions options;
        options.cmdline = row.cmdline;

        SandboxResult r = kiv_on(dev, args, options);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.err);
        EXPECT_EQ(r.syslog,
                  row.saved ? concat(save_markers("upgrade"), row.messages) : row.messages);
        if (row.saved)
            expect_saved_then_state(r, row.state_written);
        else
            expect_flash_untouched(r);
        EXPECT_EQ(stored_states(dev), (std::vector<std::uint8_t>{row.after[0], row.after[1]}));
        for (int mtd : {HOSTCFG_MTD, BACKUP_MTD}) {
            std::optional<hcdecode::Record> rec = record_on(dev, mtd);
            ASSERT_TRUE(rec.has_value()) << "mtd" << mtd;
            EXPECT_EQ(rec->actset, row.actset_after) << "mtd" << mtd;
        }
    }
}

// A second run after the first reads what the first left: test, then validate.
TEST(UpgradeE2e, BootTestValidateAcrossRuns) {
    Device dev;
    state_device(2, V, B).write_to(dev);
    RunOptions booted;
    booted.cmdline = "KIVSET=SET2";
    EXPECT_EQ(kiv_on(dev, {"upgrade", "test"}, booted).exit, 0);
    EXPECT_EQ(stored_states(dev), (std::vector<std::uint8_t>{V, T}));
    EXPECT_EQ(kiv_on(dev, {"upgrade", "validate"}, booted).exit, 0);
    EXPECT_EQ(stored_states(dev), (std::vector<std::uint8_t>{V, V}));
    SandboxResult again = kiv_on(dev, {"upgrade", "validate"}, booted);
    EXPECT_EQ(again.exit, 0) << again.describe();
    EXPECT_EQ(again.out, "Already validated\n");
    expect_flash_untouched(again);
}

TEST(UpgradeE2e, VerboseDumpShowsTheNewActiveSet) {
    Device dev;
    state_device(1, V, V).write_to(dev);
    const std::string activeset = dev.write_file("activeset", "2");
    SandboxResult r =
        kiv_on(dev, {"-activesetfile=" + activeset, "-v", "-dryrun", "upgrade", "activate"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    const std::size_t dump = r.out.find(SETS_P1_HEAD);
    ASSERT_NE(dump, std::string::npos) << r.out;
    EXPECT_NE(r.out.find(" 2  SET2", dump), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("ACTIVE SET", r.out.find(" 2  SET2", dump)), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(STATES_VALID), std::string::npos) << r.out;
    expect_flash_untouched(r);
}

TEST(UpgradeE2e, NoHostconfig) {
    Device dev;
    SandboxResult r = kiv_on(dev, {"upgrade", "validate"});
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_NE(r.err.find("upgrade action: hostcfg loading failed.\n"), std::string::npos) << r.err;
    expect_flash_untouched(r);
}

TEST(ActivateE2e, Table) {
    struct Row {
        const char *scenario;
        std::vector<std::string> args; // after "activate"
        std::vector<int> corrupted;    // partitions whose content no longer matches
        int exit;
        std::string err;
        bool saved;
        int actset_after;
        std::uint8_t after[2];
    };
    const std::vector<Row> rows = {
        {"by index", {"2"}, {}, 0, "", true, 2, {V, V}},
        {"by name", {"SET2"}, {}, 0, "", true, 2, {V, V}},
        {"by hexadecimal index", {"0x2"}, {}, 0, "", true, 2, {V, V}},
        {"the safe set", {"SAFESET"}, {}, 0, "", true, 0, {V, V}},
        {"the active set again", {"1"}, {}, 0, "", true, 1, {V, V}},
        {"a partition differs",
         {"2"},
         {4},
         1,
         "activate: set 2 validation err=4\n",
         false,
         1,
         {T, B}},
        {"a partition differs, -f", {"2", "-f"}, {4}, 0, "", true, 2, {V, V}},
        {"only another set's partition differs", {"2"}, {3}, 0, "", true, 2, {V, V}},
        {"under -dryrun", {"2", "-dryrun"}, {}, 0, "", false, 1, {T, B}},
        {"index 3", {"3"}, {}, 1, "activate: invalid set id: 3\n", false, 1, {T, B}},
        {"unknown name",
         {"NOSUCHSET"},
         {},
         1,
         "activate: invalid set id: NOSUCHSET\n",
         false,
         1,
         {T, B}},
        {"no set word", {}, {}, 1, "activate: invalid set id: (none)\n", false, 1, {T, B}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.scenario);
        Device dev;
        InstalledDevice d = state_device(1, T, B);
        for (int p : row.corrupted)
            d.partitions[p][100] ^= 0x01;
        d.write_to(dev);
        std::vector<std::string> args = {"activate"};
        args.insert(args.end(), row.args.begin(), row.args.end());

        SandboxResult r = kiv_on(dev, args);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, row.err);
        std::vector<SyslogLine> expected;
        if (row.saved) expected = save_markers("activate");
        if (!row.err.empty()) expected.push_back(logged(LOG_ERR, row.err));
        EXPECT_EQ(r.syslog, expected);
        if (row.saved)
            expect_saved_then_state(r, false);
        else
            expect_flash_untouched(r);
        EXPECT_EQ(record_on(dev, HOSTCFG_MTD)->actset, row.actset_after);
        EXPECT_EQ(stored_states(dev), (std::vector<std::uint8_t>{row.after[0], row.after[1]}));
    }
}

TEST(ActivateE2e, SetsWithoutReferencesOrRecordedContent) {
    struct Row {
        const char *scenario;
        int err;
    };
    for (const Row &row : {Row{"no references", 1}, Row{"nothing recorded", 2}}) {
        SCOPED_TRACE(row.scenario);
        Device dev;
        InstalledDevice d = state_device(1, V, V);
        if (row.err == 1)
            d.set(2, "SET2", {});
        else
            d.rec.pinfometa[4].body_length = 0;
        d.write_to(dev);
        SandboxResult r = kiv_on(dev, {"activate", "2"});
        EXPECT_EQ(r.exit, 1) << r.describe();
        EXPECT_EQ(r.err, "activate: set 2 validation err=" + std::to_string(row.err) + "\n");
        expect_flash_untouched(r);
    }
}

TEST(ActivateE2e, VerboseShowsTheCheckAndTheDump) {
    Device dev;
    state_device(1, V, V).write_to(dev);
    SandboxResult r = kiv_on(dev, {"activate", "2", "-v"});
    EXPECT_EQ(r.exit, 0) << r.describe();
    const std::string check = "verify_set: Set 2: SET2\n"
                              "verify_set:   ref  4: APPL         appl        : ok\n";
    const std::size_t at = r.out.find(check);
    ASSERT_NE(at, std::string::npos) << r.out;
    EXPECT_LT(at, r.out.find(SETS_P1_HEAD)) << r.out;
    EXPECT_NE(r.out.find(STATES_VALID), std::string::npos) << r.out;
}

TEST(ActivateE2e, SaveAndStateFailures) {
    {
        SCOPED_TRACE("hostconfig write fails");
        Device dev;
        state_device(1, T, B).write_to(dev);
        RunOptions options;
        options.faults = {"write:mtd5:0"};
        SandboxResult r = kiv_on(dev, {"activate", "2"}, options);
        EXPECT_EQ(r.exit, 1) << r.describe();
        // The helper's own note comes first, at the debug priority.
        EXPECT_EQ(r.err, "hostconfig_save failed.\nactivate action: hostcfg saving failed.\n");
        EXPECT_EQ(r.syslog,
                  concat(save_markers("activate"),
                         {logged(LOG_DEBUG, "hostconfig_save failed.\n"),
                          logged(LOG_CRIT, "activate action: hostcfg saving failed.\n")}));
        EXPECT_EQ(event_index(r, STATE_WRITE), -1) << r.describe();
    }
    {
        // The hostconfig in a file: the save leaves the state bytes alone, and writing them
        // fails.
        SCOPED_TRACE("state write fails");
        Device dev;
        InstalledDevice d = state_device(1, T, B);
        d.write_to(dev);
        const std::vector<std::uint8_t> image = image_of(d.rec);
        const std::string cfg =
            dev.write_file("hostcfg.img", std::string(image.begin(), image.end()));
        RunOptions options;
        options.faults = {"write:mtd5:131070"};
        SandboxResult r = kiv_on(dev, {"-cfg=" + cfg, "activate", "1"}, options);
        EXPECT_EQ(r.exit, 1) << r.describe();
        EXPECT_EQ(r.err, "cannot set normal mode\n");
        EXPECT_EQ(r.syslog,
                  concat(save_markers("activate"), {logged(LOG_CRIT, "cannot set normal mode\n")}));
        EXPECT_EQ(stored_states(dev), (std::vector<std::uint8_t>{T, B}));
        // The new active set stays saved.
        EXPECT_EQ(hcdecode::decode_kiv_data(
                      hcdecode::decode_image(kiv::test::bytes_of(kiv::test::read_text_file(cfg))))
                      ->actset,
                  1);
    }
}

TEST(ActivateE2e, NoHostconfig) {
    Device dev;
    SandboxResult r = kiv_on(dev, {"activate", "1"});
    EXPECT_EQ(r.exit, 1) << r.describe();
    EXPECT_NE(r.err.find("activate action: hostcfg loading failed.\n"), std::string::npos) << r.err;
    expect_flash_untouched(r);
}

// The activate hook of a plug-in written in C and preloaded: called after the save with
// the new active set (also under -dryrun), its result ignored, never called when the
// action fails earlier.
TEST(ActivateHookE2e, PluginIsCalled) {
    struct Row {
        const char *scenario;
        std::vector<std::string> args;
        std::vector<int> corrupted;
        int exit;
        bool saved;
        std::string record;
    };
    const std::string called = "kiv_activate_hook_post actset=2 device=/dev/mtd%i magic=FNUZZUNF\n";
    const std::vector<Row> rows = {
        {"activate", {"activate", "2"}, {}, 0, true, called},
        {"under -dryrun", {"activate", "SET2", "-dryrun"}, {}, 0, false, called},
        {"check fails", {"activate", "2"}, {4}, 1, false, ""},
        {"check skipped", {"activate", "2", "-f"}, {4}, 0, true, called},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.scenario);
        Device dev;
        InstalledDevice d = state_device(1, T, V);
        for (int p : row.corrupted)
            d.partitions[p][0] ^= 0x01;
        d.write_to(dev);
        const std::string record = dev.scratch_path("hook.log");
        SandboxResult r = kiv_with_plugin(dev, {"KIV_TEST_HOOK_RECORD=" + record}, row.args);
        expect_sound_run(r);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        const bool hook_ran = ::access(record.c_str(), F_OK) == 0;
        EXPECT_EQ(hook_ran, !row.record.empty());
        if (hook_ran) {
            EXPECT_EQ(kiv::test::read_text_file(record), row.record);
        }
        EXPECT_EQ(changes_on(r, HOSTCFG_MTD).empty(), !row.saved) << r.describe();
        EXPECT_EQ(record_on(dev, HOSTCFG_MTD)->actset, row.saved ? 2 : 1);
    }
}

TEST(ActivateHookE2e, SignalsDuringTheRunAreOnlyLogged) {
    Device dev;
    state_device(1, T, V).write_to(dev);
    const std::string record = dev.scratch_path("hook.log");
    SandboxResult r = kiv_with_plugin(
        dev, {"KIV_TEST_HOOK_RECORD=" + record, "KIV_TEST_HOOK_SIGNALS=term"}, {"activate", "2"});
    expect_sound_run(r);
    EXPECT_EQ(r.exit, 0) << r.describe();
    EXPECT_EQ(kiv::test::read_text_file(record),
              "kiv_activate_hook_post actset=2 device=/dev/mtd%i magic=FNUZZUNF\n");
    for (const char *note :
         {"child: Got signal #15\n", "child: Got signal #2\n", "parent: Got signal #15\n"}) {
        EXPECT_NE(std::find(r.syslog.begin(), r.syslog.end(), logged(LOG_INFO, note)),
                  r.syslog.end())
            << note << r.describe();
        EXPECT_NE(r.err.find(note), std::string::npos) << note;
    }
    EXPECT_EQ(record_on(dev, HOSTCFG_MTD)->actset, 2);
    EXPECT_EQ(stored_states(dev), (std::vector<std::uint8_t>{V, V}));
}

TEST(ActivateHookE2e, ChildKilledInTheHook) {
    Device dev;
    state_device(1, T, V).write_to(dev);
    SandboxResult r = kiv_with_plugin(dev, {"KIV_TEST_HOOK_SIGNALS=kill"}, {"activate", "2"});
    expect_sound_run(r);
    EXPECT_EQ(r.exit, 72) << r.describe();
    EXPECT_EQ(r.err, "child terminated by signal #9\n");
    EXPECT_NE(std::find(r.syslog.begin(), r.syslog.end(),
                        logged(LOG_CRIT, "child terminated by signal #9\n")),
              r.syslog.end())
        << r.describe();
    // The hook runs after the save and the state write: both are done.
    EXPECT_EQ(record_on(dev, HOSTCFG_MTD)->actset, 2);
    EXPECT_EQ(stored_states(dev), (std::vector<std::uint8_t>{V, V}));
}

} // namespace
