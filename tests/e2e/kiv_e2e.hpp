// Shared pieces of the end-to-end tests: running kiv on the simulated device with the
// checks every run must pass, reading back what the flash holds with the independent
// decoder, and the exact texts the hostconfig listing is built from.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <syslog.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/hcdecode.hpp"
#include "support/sandbox.hpp"

namespace kiv::e2e {

using kiv::test::Device;
using kiv::test::DeviceOptions;
using kiv::test::RunOptions;
using kiv::test::SandboxResult;
using kiv::test::SyslogLine;

inline constexpr int HOSTCFG_MTD = 5;
inline constexpr int BACKUP_MTD = 2;
inline constexpr int FACILITY_USER = LOG_USER >> 3;
// A freshly initialised hostconfig: image header, one part header, the record.
inline constexpr std::size_t FRESH_IMAGE_SIZE = 24 + 32 + 2964;

inline SyslogLine logged(int severity, std::string text) {
    return SyslogLine{FACILITY_USER, severity, "KIV", std::move(text)};
}

// What every run on the device must respect, whatever it was asked: NOR flash only
// clears bits between erases, and the run must end by itself.
inline void expect_sound_run(const SandboxResult &r) {
    EXPECT_FALSE(r.timed_out) << r.describe();
    for (const std::string &event : r.events)
        EXPECT_NE(event.rfind("violation", 0), 0u) << "NOR violation: " << event << "\n"
                                                   << r.describe();
}

// Runs kiv with args on the device and checks the run was sound.
inline SandboxResult kiv_on(Device &dev, std::vector<std::string> args, RunOptions options = {}) {
    SandboxResult r = dev.run_kiv(std::move(args), std::move(options));
    expect_sound_run(r);
    return r;
}

// Runs any command on the device (a shell around kiv) and checks the run was sound.
inline SandboxResult run_on(Device &dev, std::vector<std::string> argv, RunOptions options = {}) {
    SandboxResult r = dev.run(std::move(argv), std::move(options));
    expect_sound_run(r);
    return r;
}

// Erase and write events of the run on one device ("erase mtd5 ...", "write mtd5 ...").
inline std::vector<std::string> changes_on(const SandboxResult &r, int mtd) {
    std::vector<std::string> changes;
    const std::string erase = "erase mtd" + std::to_string(mtd) + " ";
    const std::string write = "write mtd" + std::to_string(mtd) + " ";
    for (const std::string &event : r.events)
        if (event.rfind(erase, 0) == 0 || event.rfind(write, 0) == 0) changes.push_back(event);
    return changes;
}

// The run left both hostconfig devices as they were.
inline void expect_flash_untouched(const SandboxResult &r) {
    EXPECT_EQ(changes_on(r, HOSTCFG_MTD), std::vector<std::string>{}) << r.describe();
    EXPECT_EQ(changes_on(r, BACKUP_MTD), std::vector<std::string>{}) << r.describe();
}

// The record stored on a device (or in an image), read by the independent decoder.
inline std::optional<hcdecode::Record> record_on(const Device &dev, int mtd) {
    return hcdecode::decode_kiv_data(dev.flash(mtd));
}

// The critical-part markers one save writes to the system log.
inline std::vector<SyslogLine> save_markers(const std::string &caller) {
    return {logged(LOG_NOTICE, "critical part start: hostconfig_save called by " + caller + "\n"),
            logged(LOG_NOTICE, "critical part end: hostconfig_save\n")};
}

// An image holding the record as its only part, as the product would have stored it.
inline std::vector<std::uint8_t> image_of(const hcdecode::Record &record) {
    return hcdecode::encode_image({{"KIV data", hcdecode::encode_record(record), 3}});
}

// A record whose sets hold no references (kivl_init leaves them all zero, which would
// read as twenty references to entry 0).
inline hcdecode::Record empty_record() {
    hcdecode::Record rec;
    for (hcdecode::Set &set : rec.sets)
        set.raw_refs.fill(-1);
    return rec;
}

// The listing parts that do not depend on the content.
inline const std::string SETS_P1_HEAD = "Sets: (p1/2)\n"
                                        "     name:            bootable:  rhdr:      refs:\n";
inline const std::string SETS_P2_HEAD = "Sets: (p2/2)\n"
                                        "     name:            release date:        release id:\n";
inline const std::string PARTS_P1_HEAD =
    "Partitions: (p1/2)\n"
    "     pn: poolname:        offset:     size:        ver:       fstype:   mountpnt:\n";
inline const std::string PARTS_P2_HEAD =
    "Partitions: (p2/2)\n"
    "     poolname:        content name:     length:     crc32:\n";
inline const std::string POOLS_HEAD = "Pools:\n"
                                      "     pool:            cnt:   type:\n";
inline const std::string STATES_VALID = "KIV Data Upgrade set 1: VALID(0)\n"
                                        "KIV Data Upgrade set 2: VALID(0)\n";
// `info` of a freshly initialised hostconfig.
inline const std::string FRESH_INFO =
    SETS_P1_HEAD + SETS_P2_HEAD + PARTS_P1_HEAD + PARTS_P2_HEAD + POOLS_HEAD + STATES_VALID;

// The default layout with one device line replaced, e.g. to lock the backup device.
inline std::string layout_with(int mtd, std::string_view line) {
    std::string layout =
        kiv::test::read_text_file(kiv::test::source_dir() + "/tools/sandbox/default.layout");
    std::string out;
    const std::string prefix = "mtd " + std::to_string(mtd) + " ";
    std::size_t start = 0;
    bool replaced = false;
    while (start < layout.size()) {
        std::size_t end = layout.find('\n', start);
        end = end == std::string::npos ? layout.size() : end + 1;
        std::string_view current(layout.data() + start, end - start);
        if (current.starts_with(prefix)) {
            out += std::string(line) + "\n";
            replaced = true;
        } else {
            out += current;
        }
        start = end;
    }
    EXPECT_TRUE(replaced) << "no line for mtd" << mtd << " in the default layout";
    return out;
}

} // namespace kiv::e2e
