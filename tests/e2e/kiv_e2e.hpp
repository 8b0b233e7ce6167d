// Shared by the e2e tests: kiv on the device, the flash decoded, an installed device made.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <syslog.h>

#include <gtest/gtest.h>

#include "common/hcdecode.hpp"
#include "mkzunf/zunf_builder.hpp"
#include "support/sandbox.hpp"

namespace kiv::e2e {

using kiv::test::Device, kiv::test::DeviceOptions, kiv::test::RunOptions;
using kiv::test::SandboxResult, kiv::test::SyslogLine, mkzunf::Bytes;

inline constexpr int HOSTCFG_MTD = 5, BACKUP_MTD = 2;

inline SyslogLine logged(int severity, std::string text) {
    return SyslogLine{LOG_USER >> 3, severity, "KIV", std::move(text)};
}

// Any command on the device; every run must end by itself and only clear bits between erases.
inline SandboxResult run_on(Device &dev, std::vector<std::string> argv, RunOptions options = {}) {
    SandboxResult r = dev.run(std::move(argv), std::move(options));
    EXPECT_FALSE(r.timed_out) << r.describe();
    for (const std::string &event : r.events)
        EXPECT_NE(event.rfind("violation", 0), 0u) << event << "\n" << r.describe();
    return r;
}

inline SandboxResult kiv_on(Device &dev, std::vector<std::string> args, RunOptions options = {}) {
    args.insert(args.begin(), kiv::test::kiv_bin());
    return run_on(dev, std::move(args), std::move(options));
}

inline std::vector<std::string> changes_on(const SandboxResult &r, int mtd) {
    const std::string device = "mtd" + std::to_string(mtd) + " ";
    std::vector<std::string> changes;
    for (const std::string &e : r.events)
        if (e.starts_with("erase " + device) || e.starts_with("write " + device))
            changes.push_back(e);
    return changes;
}

inline void expect_flash_untouched(const SandboxResult &r) {
    for (const std::string &e : r.events)
        EXPECT_FALSE(e.starts_with("erase") || e.starts_with("write")) << e << r.describe();
}

inline long event_index(const SandboxResult &r, const std::string &event) {
    const auto at = std::find(r.events.begin(), r.events.end(), event);
    return at == r.events.end() ? -1 : at - r.events.begin();
}

inline int actset_on(const Device &dev, int mtd) {
    const std::optional<hcdecode::Record> rec = hcdecode::decode_kiv_data(dev.flash(mtd));
    return rec ? rec->actset : -1;
}

inline std::vector<SyslogLine> save_markers(const std::string &caller) {
    return {logged(LOG_NOTICE, "critical part start: hostconfig_save called by " + caller + "\n"),
            logged(LOG_NOTICE, "critical part end: hostconfig_save\n")};
}

inline Bytes image_of(const hcdecode::Record &record) {
    return hcdecode::encode_image({{"KIV data", hcdecode::encode_record(record), 3}});
}

// A record whose sets hold no references (all zero would be twenty references to entry 0).
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

// States of sets 1 and 2 as letters ("VT": VALID, TEST; '?' other), stored complemented.
inline constexpr std::string_view STATE_LETTERS = "VTB?", STORED_STATE = "\xFF\xFE\xFC";

inline void set_states(Device &dev, const std::string &states) {
    for (std::size_t s = 0; s < 2; ++s)
        dev.set_flash(HOSTCFG_MTD, STORED_STATE.substr(STATE_LETTERS.find(states.at(s)) % 3, 1),
                      hcdecode::STATE_OFFSET + s);
}

inline std::string states_on(const Device &dev) {
    const Bytes flash = dev.flash(HOSTCFG_MTD);
    std::string states;
    for (std::size_t s = hcdecode::STATE_OFFSET; s < hcdecode::STATE_OFFSET + 2; ++s)
        states += STATE_LETTERS[std::min<std::size_t>(STORED_STATE.find(char(flash.at(s))), 3)];
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

inline Bytes content_bytes(std::size_t size, std::uint8_t seed) {
    Bytes b(size);
    for (std::size_t i = 0; i < size; ++i)
        b[i] = static_cast<std::uint8_t>(seed * 31 + i * 13 + (i >> 9));
    return b;
}

// A device as an install leaves it: partitions, the record in hostconfig and backup, states.
struct InstalledDevice {
    hcdecode::Record rec = empty_record();
    std::map<int, Bytes> partitions; // by partition number
    std::string states = "VV";

    void entry(int pidx, const std::string &pool) {
        rec.partinfo[pidx].poolname = pool;
        rec.partinfo[pidx].pn = static_cast<std::uint8_t>(pidx);
    }

    void install(int pidx, const std::string &pool, int wts, const Bytes &content,
                 const std::string &name, mkzunf::Version v = {1, 2, 3},
                 const std::string &build_id = "b1") {
        entry(pidx, pool);
        const zunf_pinfometa block = mkzunf::make_software_block(name, v, build_id, content);
        auto text = [](const auto &f) { return std::string(f, strnlen(f, sizeof f)); };
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
        std::map<int, Bytes> flash = partitions;
        flash[HOSTCFG_MTD] = flash[BACKUP_MTD] = image_of(rec);
        for (const auto &[mtd, bytes] : flash) {
            dev.erase_flash(mtd);
            dev.set_flash(mtd, bytes);
        }
        set_states(dev, states);
    }
};

} // namespace kiv::e2e
