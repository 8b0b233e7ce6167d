// Shared pieces of the end-to-end tests: kiv run on the simulated device with the checks
// every run must pass, the flash read back with the independent decoder, and a device laid
// out as an install would leave it. That device is built with the image producer and the
// independent record encoder, so tests of verify, activate, upgrade and the reports do not
// depend on the install action.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <syslog.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/hcdecode.hpp"
#include "mkzunf/zunf_builder.hpp"
#include "support/sandbox.hpp"

namespace kiv::e2e {

using kiv::test::Device;
using kiv::test::DeviceOptions;
using kiv::test::RunOptions;
using kiv::test::SandboxResult;
using kiv::test::SyslogLine;
using mkzunf::Bytes;

inline constexpr int HOSTCFG_MTD = 5;
inline constexpr int BACKUP_MTD = 2;

inline SyslogLine logged(int severity, std::string text) {
    return SyslogLine{LOG_USER >> 3, severity, "KIV", std::move(text)};
}

// What every run on the device must respect, whatever it was asked: NOR flash only
// clears bits between erases, and the run must end by itself.
inline void expect_sound_run(const SandboxResult &r) {
    EXPECT_FALSE(r.timed_out) << r.describe();
    for (const std::string &event : r.events)
        EXPECT_NE(event.rfind("violation", 0), 0u) << event << "\n" << r.describe();
}

inline SandboxResult kiv_on(Device &dev, std::vector<std::string> args, RunOptions options = {}) {
    SandboxResult r = dev.run_kiv(std::move(args), std::move(options));
    expect_sound_run(r);
    return r;
}

// Any command on the device, e.g. a shell around kiv.
inline SandboxResult run_on(Device &dev, std::vector<std::string> argv, RunOptions options = {}) {
    SandboxResult r = dev.run(std::move(argv), std::move(options));
    expect_sound_run(r);
    return r;
}

// Erase and write events of the run on one device, in order.
inline std::vector<std::string> changes_on(const SandboxResult &r, int mtd) {
    const std::string device = "mtd" + std::to_string(mtd) + " ";
    std::vector<std::string> changes;
    for (const std::string &e : r.events)
        if (e.starts_with("erase " + device) || e.starts_with("write " + device))
            changes.push_back(e);
    return changes;
}

// Nothing erased or written on any device.
inline void expect_flash_untouched(const SandboxResult &r) {
    for (const std::string &e : r.events)
        EXPECT_TRUE(e.rfind("erase", 0) != 0 && e.rfind("write", 0) != 0) << e << "\n"
                                                                          << r.describe();
}

// Position of the first event equal to `event`, or -1.
inline long event_index(const SandboxResult &r, const std::string &event) {
    const auto at = std::find(r.events.begin(), r.events.end(), event);
    return at == r.events.end() ? -1 : at - r.events.begin();
}

inline std::optional<hcdecode::Record> record_on(const Device &dev, int mtd) {
    return hcdecode::decode_kiv_data(dev.flash(mtd));
}

// The active set stored on a device; -1 when it holds no record.
inline int actset_on(const Device &dev, int mtd) {
    const std::optional<hcdecode::Record> rec = record_on(dev, mtd);
    return rec ? rec->actset : -1;
}

// The critical-part markers one save writes to the system log.
inline std::vector<SyslogLine> save_markers(const std::string &caller) {
    return {logged(LOG_NOTICE, "critical part start: hostconfig_save called by " + caller + "\n"),
            logged(LOG_NOTICE, "critical part end: hostconfig_save\n")};
}

// An image holding the record as its only part, as the product would have stored it.
inline Bytes image_of(const hcdecode::Record &record) {
    return hcdecode::encode_image({{"KIV data", hcdecode::encode_record(record), 3}});
}

// A record whose sets hold no references (an all-zero list would be twenty references to
// entry 0).
inline hcdecode::Record empty_record() {
    hcdecode::Record rec;
    for (hcdecode::Set &set : rec.sets)
        set.raw_refs.fill(-1);
    return rec;
}

inline void set_refs(hcdecode::Set &set, std::string name, const std::vector<int> &refs) {
    set.name = std::move(name);
    set.raw_refs.fill(-1);
    for (std::size_t i = 0; i < refs.size(); ++i)
        set.raw_refs[i] = static_cast<std::int8_t>(refs[i]);
}

// The upgrade states of set 1 and set 2 as letters: "VT" is set 1 VALID, set 2 TEST. They
// are stored complemented at the end of mtd5's first 128 KiB, so erased flash reads VALID.
inline const std::string STATE_LETTERS = "VTB";
inline constexpr std::uint8_t STORED_STATE[] = {0xFF, 0xFE, 0xFC};

inline void set_states(Device &dev, const std::string &states) {
    std::uint8_t stored[2];
    for (std::size_t s = 0; s < 2; ++s)
        stored[s] = STORED_STATE[STATE_LETTERS.find(states.at(s)) % 3];
    dev.set_flash(HOSTCFG_MTD, stored, hcdecode::STATE_OFFSET);
}

// Any other stored byte reads as '?'.
inline std::string states_on(const Device &dev) {
    const Bytes flash = dev.flash(HOSTCFG_MTD);
    std::string states;
    for (std::size_t s = 0; s < 2; ++s) {
        const std::uint8_t *end = std::end(STORED_STATE);
        const std::uint8_t *at = std::find(STORED_STATE, end, flash.at(hcdecode::STATE_OFFSET + s));
        states += at == end ? '?' : STATE_LETTERS[static_cast<std::size_t>(at - STORED_STATE)];
    }
    return states;
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

// The content bytes of a partition, different for every seed.
inline Bytes content_bytes(std::size_t size, std::uint8_t seed) {
    Bytes b(size);
    for (std::size_t i = 0; i < size; ++i)
        b[i] = static_cast<std::uint8_t>(seed * 31 + i * 13 + (i >> 9));
    return b;
}

// A device as an install leaves it: contents in their partitions, the record describing
// them in the hostconfig and its backup, the upgrade states.
struct InstalledDevice {
    hcdecode::Record rec = empty_record();
    std::map<int, Bytes> partitions; // by partition number
    std::string states = "VV";

    // Entry pidx (partition number pidx) belongs to pool, with nothing installed.
    void entry(int pidx, const std::string &pool) {
        rec.partinfo[pidx].poolname = pool;
        rec.partinfo[pidx].pn = static_cast<std::uint8_t>(pidx);
    }

    // Entry pidx holds content written in layout wts, and the record says so.
    void install(int pidx, const std::string &pool, int wts, const Bytes &content,
                 const std::string &name, mkzunf::Version v = {1, 2, 3},
                 const std::string &build_id = "b1") {
        entry(pidx, pool);
        const zunf_pinfometa block = mkzunf::make_software_block(name, v, build_id, content);
        auto text = [](const auto &field) {
            return std::string(field, strnlen(field, sizeof field));
        };
        rec.pinfometa[pidx] = {block.hdr.hdr_crc.get(),        block.hdr.type_id.get(),
                               block.hdr.hdr_length.get(),     block.hdr.body_length.get(),
                               text(block.hdr.name),           block.hdr.body_crc.get(),
                               block.sw.sw_version_major,      block.sw.sw_version_minor,
                               block.sw.sw_build_number.get(), text(block.sw.sw_build_id)};
        partitions[pidx] = mkzunf::build_partition(wts, block, content);
    }

    void set(int s, const std::string &name, const std::vector<int> &refs) {
        set_refs(rec.sets[s], name, refs);
    }

    void write_to(Device &dev) const {
        for (const auto &[pn, bytes] : partitions) {
            dev.erase_flash(pn);
            dev.set_flash(pn, bytes);
        }
        for (int mtd : {HOSTCFG_MTD, BACKUP_MTD}) {
            dev.erase_flash(mtd);
            dev.set_flash(mtd, image_of(rec));
        }
        set_states(dev, states);
    }
};

// kiv with the test plug-in (plugin_hook.c) preloaded, into kiv only and not the
// simulator, and the plug-in's settings ("NAME=VALUE") in its environment.
inline SandboxResult kiv_with_plugin(Device &dev, const std::vector<std::string> &settings,
                                     const std::vector<std::string> &args) {
    const std::string plugin = KIV_TEST_PLUGIN;
    std::vector<std::string> argv = {"/usr/bin/env", "LD_PRELOAD=" + plugin};
    argv.insert(argv.end(), settings.begin(), settings.end());
    argv.push_back(kiv::test::kiv_bin());
    argv.insert(argv.end(), args.begin(), args.end());
    RunOptions options;
    options.keep.push_back(plugin.substr(0, plugin.rfind('/')));
    return run_on(dev, argv, std::move(options));
}

} // namespace kiv::e2e
