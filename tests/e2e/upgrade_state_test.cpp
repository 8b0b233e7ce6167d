// Which set the device runs and in which upgrade state: activate and upgrade on the device
// booted from each set. A state write must follow the save that erased the state bytes.
#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "common/cat.hpp"
#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;

const std::string STATE_WRITE = "write mtd5 131070 2";

enum Effect { UNTOUCHED, SAVED, SAVED_STATE };

// The save happened (backup first, then the primary from an erase at 0), and a state
// write, if any, came after everything else done to mtd5.
void expect_effect(const SandboxResult &r, Effect effect) {
    if (effect == UNTOUCHED) return expect_flash_untouched(r);
    const std::vector<std::string> primary = changes_on(r, HOSTCFG_MTD),
                                   backup = changes_on(r, BACKUP_MTD);
    ASSERT_FALSE(primary.empty() || backup.empty()) << r.describe();
    EXPECT_LT(event_index(r, backup.back()), event_index(r, primary.front())) << r.describe();
    EXPECT_TRUE(primary.front().starts_with("erase mtd5 0 ")) << r.describe();
    EXPECT_EQ(primary.back() == STATE_WRITE, effect == SAVED_STATE) << r.describe();
}

// On standard error and in the system log with its severity, or found on standard output.
constexpr int ON_STDOUT = -1;
struct Message {
    std::string text;
    int severity = 0;
};

struct Row {
    std::string cmdline, before;          // before: states of set 1 and 2, active set
    std::optional<std::string> activeset; // the activeset file; none: no file
    std::string args; // DAMAGED (not for kiv): one bit of set 2's partition flipped
    int exit;
    Message message;
    Effect effect;
    std::string after;
};

TEST(UpgradeE2e, StateMachine) {
    const std::string BOOT1 = "console=ttyS0 KIVSET=SET1", SAFE = "KIVSET=SAFESET console=ttyS0",
                      BOOT2 = "console=ttyS0 KIVSET=SET2 quiet", BOOT7 = "KIVSET=SET7";
    const Message QUIET{}, ALREADY{"Already validated\n", ON_STDOUT},
        INVALID{"Upgrade state is invalid\n", ON_STDOUT},
        FAILED{"failed to set upgrade state\n", LOG_CRIT},
        MISSING{"upgrade: Missing argument\n", LOG_ERR},
        UNKNOWN{"upgrade: unknown command.\n", LOG_CRIT},
        CHECK_FAILED{"activate: set 2 validation err=4\n", LOG_ERR},
        SET2_DUMP{"  2  SET2             0          0.00 0     4    ACTIVE SET\n", ON_STDOUT},
        CHECKED_DUMP{"appl        : ok\n" + SETS_P1_HEAD, ON_STDOUT};
    auto bad_file = [](const std::string &n) {
        return Message{cat("upgrade: invalid set ", n, " in activeset file\n"), LOG_ERR};
    };
    auto bad_id = [](const std::string &word) {
        return Message{cat("activate: invalid set id: ", word, "\n"), LOG_ERR};
    };
    const std::vector<Row> rows = {
        // upgrade test: BOOT of the boot set becomes TEST; anything else stays.
        {BOOT1, "BV1", {}, "upgrade test", 0, QUIET, SAVED_STATE, "TV1"},
        {BOOT2, "VB2", {}, "upgrade test", 0, QUIET, SAVED_STATE, "VT2"},
        {BOOT1, "TB1", {}, "upgrade test", 0, QUIET, UNTOUCHED, "TB1"},
        {BOOT7, "BB1", {}, "upgrade test", 1, INVALID, UNTOUCHED, "BB1"},
        // upgrade validate: the save makes every set VALID.
        {BOOT2, "BT2", {}, "upgrade validate", 0, QUIET, SAVED, "VV2"},
        {BOOT1, "VB1", {}, "upgrade validate", 0, ALREADY, UNTOUCHED, "VB1"},
        {SAFE, "BB0", {}, "upgrade validate", 0, ALREADY, UNTOUCHED, "BB0"},
        {BOOT2, "VT2", {}, "-dryrun upgrade validate", 0, QUIET, UNTOUCHED, "VT2"},
        {BOOT7, "BB1", {}, "upgrade validate", 1, INVALID, UNTOUCHED, "BB1"},
        // upgrade activate: the set named by the activeset file.
        {BOOT1, "VV1", "2\n", "upgrade activate -test", 0, QUIET, SAVED_STATE, "VT2"},
        {SAFE, "VV1", "2", "upgrade activate -test", 0, QUIET, SAVED, "VV2"},
        {BOOT1, "TB1", "2", "upgrade activate", 0, QUIET, SAVED, "VV2"},
        {BOOT1, "TB2", "2", "upgrade activate -test", 0, QUIET, UNTOUCHED, "TB2"},
        {BOOT1, "BV1", "0", "upgrade activate -test", 1, FAILED, SAVED, "VV0"},
        {BOOT1, "VV1", "2", "-v -dryrun upgrade activate", 0, SET2_DUMP, UNTOUCHED, "VV1"},
        {BOOT1, "BV1", {}, "upgrade activate", 1, QUIET, UNTOUCHED, "BV1"},
        {BOOT1, "BV1", "3", "upgrade activate", 1, bad_file("3"), UNTOUCHED, "BV1"},
        {BOOT1, "BV1", "-1", "upgrade activate", 1, bad_file("-1"), UNTOUCHED, "BV1"},
        {BOOT1, "BV1", {}, "upgrade", 1, MISSING, UNTOUCHED, "BV1"},
        {BOOT1, "BV1", {}, "upgrade foo", 1, UNKNOWN, UNTOUCHED, "BV1"},
        // activate SET: the set's partitions are checked unless -f.
        {BOOT1, "TB1", {}, "activate 2", 0, QUIET, SAVED, "VV2"},
        {BOOT1, "TB1", {}, "activate SAFESET", 0, QUIET, SAVED, "VV0"},
        {BOOT1, "TB1", {}, "activate 1 -v -dryrun", 0, CHECKED_DUMP, UNTOUCHED, "TB1"},
        {BOOT1, "TB1", {}, "activate 2 DAMAGED", 1, CHECK_FAILED, UNTOUCHED, "TB1"},
        {BOOT1, "TB1", {}, "activate 2 -f DAMAGED", 0, QUIET, SAVED, "VV2"},
        {BOOT1, "TB1", {}, "activate 3", 1, bad_id("3"), UNTOUCHED, "TB1"},
        {BOOT1, "TB1", {}, "activate", 1, bad_id("(none)"), UNTOUCHED, "TB1"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(cat(row.cmdline, " | ", row.before, " | ", row.args));
        // Safe set on entry 0, set 1 on entry 3, set 2 on entry 4.
        InstalledDevice d;
        d.install(0, "KERNEL-SAFE", 1, content_bytes(2000, 1), "kernel-safe");
        d.install(3, "APPL", 1, content_bytes(3000, 3), "appl", {2, 0, 1});
        d.install(4, "APPL", 1, content_bytes(3000, 4), "appl", {2, 1, 0});
        d.set(0, "SAFESET", {0});
        d.set(1, "SET1", {3});
        d.set(2, "SET2", {4});
        d.rec.actset = static_cast<std::uint8_t>(row.before[2] - '0');
        d.states = row.before.substr(0, 2);
        Device dev;
        const std::string activeset = row.activeset ? dev.write_file("activeset", *row.activeset)
                                                    : dev.scratch_path("no-activeset");
        std::vector<std::string> args = {"-activesetfile=" + activeset};
        std::string action;
        std::istringstream words(row.args);
        for (std::string word; words >> word;) {
            if (word == "DAMAGED") d.partitions[4][100] ^= 0x01;
            if (action.empty() && word[0] != '-') action = word;
            if (word != "DAMAGED") args.push_back(word);
        }
        d.write_to(dev);
        RunOptions options;
        options.cmdline = row.cmdline;

        SandboxResult r = kiv_on(dev, args, options);
        EXPECT_EQ(r.exit, row.exit) << r.describe();
        const bool on_stdout = row.message.severity == ON_STDOUT;
        EXPECT_TRUE(on_stdout ? r.out.find(row.message.text) != std::string::npos : r.out.empty());
        EXPECT_EQ(r.err, on_stdout ? "" : row.message.text);
        std::vector<SyslogLine> log;
        if (row.effect != UNTOUCHED) log = save_markers(action);
        if (!on_stdout && !row.message.text.empty())
            log.push_back(logged(row.message.severity, row.message.text));
        EXPECT_EQ(r.syslog, log);
        expect_effect(r, row.effect);
        EXPECT_EQ(cat(states_on(dev), std::to_string(actset_on(dev, HOSTCFG_MTD))), row.after);
        EXPECT_EQ(actset_on(dev, BACKUP_MTD), row.after[2] - '0');
    }
}

} // namespace
