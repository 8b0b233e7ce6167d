// A device prepared as an install would have left it, without running one: contents laid
// into partitions in their write layout, the hostconfig recording them, the upgrade state
// bytes. Built with the image producer and the independent record encoder, so a test of
// verify, activate, upgrade or the reports does not depend on the install action.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "e2e/kiv_e2e.hpp"
#include "mkzunf/zunf_builder.hpp"

namespace kiv::e2e {

inline constexpr std::size_t STATE_OFFSET = 131070;
// State bytes as stored (complemented): erased flash reads VALID.
inline constexpr std::uint8_t STORED_VALID = 0xFF;
inline constexpr std::uint8_t STORED_TEST = 0xFE;
inline constexpr std::uint8_t STORED_BOOT = 0xFC;

// The content bytes of a partition, different for every seed.
inline mkzunf::Bytes content_bytes(std::size_t size, std::uint8_t seed) {
    mkzunf::Bytes b(size);
    for (std::size_t i = 0; i < size; ++i)
        b[i] = static_cast<std::uint8_t>(seed * 31 + i * 13 + (i >> 9));
    return b;
}

// The decoded form of a software block, as the record keeps it per partition.
inline hcdecode::PinfoMeta meta_of(const zunf_pinfometa &block) {
    hcdecode::PinfoMeta m;
    m.hdr_crc = block.hdr.hdr_crc.get();
    m.type_id = block.hdr.type_id.get();
    m.hdr_length = block.hdr.hdr_length.get();
    m.body_length = block.hdr.body_length.get();
    m.name = std::string(block.hdr.name, strnlen(block.hdr.name, sizeof block.hdr.name));
    m.body_crc = block.hdr.body_crc.get();
    m.sw_major = block.sw.sw_version_major;
    m.sw_minor = block.sw.sw_version_minor;
    m.sw_build = block.sw.sw_build_number.get();
    m.sw_build_id = std::string(block.sw.sw_build_id,
                                strnlen(block.sw.sw_build_id, sizeof block.sw.sw_build_id));
    return m;
}

struct InstalledDevice {
    hcdecode::Record rec = empty_record();
    std::map<int, mkzunf::Bytes> partitions; // by partition number
    std::uint8_t stored_state[2] = {STORED_VALID, STORED_VALID};

    // Entry pidx (partition number pidx) belongs to pool, with nothing installed.
    void entry(int pidx, const std::string &pool) {
        rec.partinfo[pidx].poolname = pool;
        rec.partinfo[pidx].pn = static_cast<std::uint8_t>(pidx);
    }

    // Entry pidx holds content written in layout wts, and the record says so.
    void install(int pidx, const std::string &pool, int wts, const mkzunf::Bytes &content,
                 const std::string &name, mkzunf::Version v = {1, 2, 3},
                 const std::string &build_id = "b1") {
        entry(pidx, pool);
        const zunf_pinfometa block = mkzunf::make_software_block(name, v, build_id, content);
        rec.pinfometa[pidx] = meta_of(block);
        partitions[pidx] = mkzunf::build_partition(wts, block, content);
    }

    void set(int s, const std::string &name, const std::vector<int> &refs) {
        rec.sets[s].name = name;
        rec.sets[s].raw_refs.fill(-1);
        for (std::size_t k = 0; k < refs.size() && k < 20; ++k)
            rec.sets[s].raw_refs[k] = static_cast<std::int8_t>(refs[k]);
    }

    // Puts everything on the device's flash: partitions, hostconfig and its backup, state.
    void write_to(Device &dev) const {
        for (const auto &[pn, bytes] : partitions) {
            dev.erase_flash(pn);
            dev.set_flash(pn, bytes);
        }
        const std::vector<std::uint8_t> image = image_of(rec);
        dev.erase_flash(HOSTCFG_MTD);
        dev.set_flash(HOSTCFG_MTD, image);
        dev.set_flash(HOSTCFG_MTD, std::span<const std::uint8_t>(stored_state, 2), STATE_OFFSET);
        dev.erase_flash(BACKUP_MTD);
        dev.set_flash(BACKUP_MTD, image);
    }
};

// The two stored state bytes (set 1, set 2) on the device.
inline std::vector<std::uint8_t> stored_states(const Device &dev) {
    const std::vector<std::uint8_t> flash = dev.flash(HOSTCFG_MTD);
    return {flash.at(STATE_OFFSET), flash.at(STATE_OFFSET + 1)};
}

#ifdef KIV_TEST_PLUGIN
// kiv with the test plug-in preloaded (into kiv only, not the simulator) and the plug-in's
// settings ("NAME=VALUE") in its environment.
inline SandboxResult kiv_with_plugin(Device &dev, const std::vector<std::string> &settings,
                                     const std::vector<std::string> &args,
                                     RunOptions options = {}) {
    const std::string plugin = KIV_TEST_PLUGIN;
    std::vector<std::string> argv = {"/usr/bin/env", "LD_PRELOAD=" + plugin};
    argv.insert(argv.end(), settings.begin(), settings.end());
    argv.push_back(kiv::test::kiv_bin());
    argv.insert(argv.end(), args.begin(), args.end());
    options.keep.push_back(plugin.substr(0, plugin.rfind('/')));
    return run_on(dev, argv, std::move(options));
}
#endif

// Position of the first event equal to `event`, or -1.
inline long event_index(const SandboxResult &r, const std::string &event) {
    for (std::size_t i = 0; i < r.events.size(); ++i)
        if (r.events[i] == event) return static_cast<long>(i);
    return -1;
}

} // namespace kiv::e2e
