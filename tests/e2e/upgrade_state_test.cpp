#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

#include "common/cat.hpp"
#include "e2e/kiv_e2e.hpp"

namespace {

using namespace kiv::e2e;

enum Effect { UNTOUCHED, SAVED, SAVED_STATE };

// The backup saved before the primary (from an erase at 0), a state write last on mtd5.
void expect_effect(const SandboxResult &r, Effect effect) {
    if (effect == UNTOUCHED) return expect_flash_untouched(r);
    const std::vector<std::string> primary = changes_on(r, HOSTCFG_MTD),
                                   backup = changes_on(r, BACKUP_MTD);
    ASSERT_FALSE(primary.empty() || backup.empty()) << r.describe();
    EXPECT_LT(event_index(r, backup.back()), event_index(r, primary.front())) << r.describe();
    EXPECT_TRUE(primary.front().starts_with("erase mtd5 0 ")) << r.describe();
    EXPECT_EQ(primary.back() == "write mtd5 131070 2", effect == SAVED_STATE) << r.describe();
}

constexpr int ON_STDOUT = -1;                // the severity of a message found on standard output
using Message = std::pair<std::string, int>; // on standard error and logged with the severity
// {cmdline, states+set before, activeset file, words (DAMAGED: set 2 broken), exit, ..., after}
using Row = std::tuple<std::string, std::string, std::optional<std::string>, std::string, int,
                       Message, Effect, std::string>;

TEST(UpgradeE2e, StateMachine) {
    const std::string BOOT1 = "console=ttyS0 KIVSET=SET1", SAFE = "KIVSET=SAFESET console=ttyS0",
                      BOOT2 = "console=ttyS0 KIVSET=SET2 quiet", BOOT7 = "KIVSET=SET7";
    const Message QUIET{"", 0}, ALREADY{"Already validated\n", ON_STDOUT},
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
    auto bad_id = [](auto id) { return Message{cat("activate: invalid set id: ", id), LOG_ERR}; };
    const std::vector<Row> rows = {
        {BOOT1, "BV1", {}, "upgrade test", 0, QUIET, SAVED_STATE, "TV1"},
        {BOOT2, "VB2", {}, "upgrade test", 0, QUIET, SAVED_STATE, "VT2"},
        {BOOT1, "TB1", {}, "upgrade test", 0, QUIET, UNTOUCHED, "TB1"},
        {BOOT7, "BB1", {}, "upgrade test", 1, INVALID, UNTOUCHED, "BB1"},
        {BOOT2, "BT2", {}, "upgrade validate", 0, QUIET, SAVED, "VV2"},
        {BOOT1, "VB1", {}, "upgrade validate", 0, ALREADY, UNTOUCHED, "VB1"},
        {SAFE, "BB0", {}, "upgrade validate", 0, ALREADY, UNTOUCHED, "BB0"},
        {BOOT2, "VT2", {}, "-dryrun upgrade validate", 0, QUIET, UNTOUCHED, "VT2"},
        {BOOT7, "BB1", {}, "upgrade validate", 1, INVALID, UNTOUCHED, "BB1"},
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
        {BOOT1, "TB1", {}, "activate 2", 0, QUIET, SAVED, "VV2"},
        {BOOT1, "TB1", {}, "activate SAFESET", 0, QUIET, SAVED, "VV0"},
        {BOOT1, "TB1", {}, "activate 1 -v -dryrun", 0, CHECKED_DUMP, UNTOUCHED, "TB1"},
        {BOOT1, "TB1", {}, "activate 2 DAMAGED", 1, CHECK_FAILED, UNTOUCHED, "TB1"},
        {BOOT1, "TB1", {}, "activate 2 -f DAMAGED", 0, QUIET, SAVED, "VV2"},
        {BOOT1, "TB1", {}, "activate 3", 1, bad_id("3\n"), UNTOUCHED, "TB1"},
        {BOOT1, "TB1", {}, "activate", 1, bad_id("(none)\n"), UNTOUCHED, "TB1"},
    };
    for (const auto &[cmdline, before, file, words, exit, message, effect, after] : rows) {
        SCOPED_TRACE(cat(cmdline, " | ", before, " | ", words));
        InstalledDevice d; // the safe set on entry 0, set 1 on 3, set 2 on 4
        d.install(0, "KERNEL-SAFE", 1, content_bytes(2000, 1), "kernel-safe");
        d.install(3, "APPL", 1, content_bytes(3000, 3), "appl", {2, 0, 1});
        d.install(4, "APPL", 1, content_bytes(3000, 4), "appl", {2, 1, 0});
        for (int s : {0, 1, 2})
            d.set(s, s ? "SET" + std::to_string(s) : "SAFESET", {s ? s + 2 : 0});
        d.rec.actset = static_cast<std::uint8_t>(before[2] - '0');
        d.states = before.substr(0, 2);
        Device dev;
        std::vector<std::string> args = {
            "-activesetfile=" +
            (file ? dev.write_file("activeset", *file) : dev.scratch_path("no-activeset"))};
        if (words.ends_with(" DAMAGED")) d.partitions[4][100] ^= 0x01;
        std::istringstream in(words.substr(0, words.find(" DAMAGED")));
        args.insert(args.end(), std::istream_iterator<std::string>(in), {});
        d.write_to(dev);
        RunOptions options;
        options.cmdline = cmdline;
        SandboxResult r = kiv_on(dev, args, options);
        EXPECT_EQ(r.exit, exit) << r.describe();
        const auto &[text, severity] = message;
        const bool on_stdout = severity == ON_STDOUT;
        EXPECT_TRUE(on_stdout ? r.out.find(text) != std::string::npos : r.out.empty());
        EXPECT_EQ(r.err, on_stdout ? "" : text);
        std::vector<SyslogLine> log;
        if (effect != UNTOUCHED)
            log = save_markers(words.starts_with("activate") ? "activate" : "upgrade");
        if (!on_stdout && !text.empty()) log.push_back(logged(severity, text));
        EXPECT_EQ(r.syslog, log);
        expect_effect(r, effect);
        EXPECT_EQ(cat(states_on(dev), std::to_string(actset_on(dev, HOSTCFG_MTD))), after);
        EXPECT_EQ(actset_on(dev, BACKUP_MTD), after[2] - '0');
    }
}

} // namespace
