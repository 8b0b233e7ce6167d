// Arbitrary bytes as the primary and as the backup hostconfig copy; what loads is dumped as `info`
// does and saved and reloaded as editing actions do: what kiv accepted once it must accept again.
#include "front/kiv_helpers.hpp"
#include "fuzz_support.hpp"
#include "hostconfig/hostconfig.hpp"
#include "kivl/kivl.hpp"

FUZZ_IMAGE_MUTATOR([](const std::uint8_t *, std::size_t) { return std::size_t{0}; })

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static hostconfig hc, again;
    static kivl_data kd, reloaded;
    const std::string path = fuzz_file("hostcfg", data, size);

    FUZZ_CHECK(hostconfig_new(&hc, HOSTCONFIG_MAX_SIZE) == 1);
    const int backup = hostconfig_load(&hc, (fuzz_dir() + "/missing").c_str(), path.c_str());
    const int backup_count = hc.count;
    FUZZ_CHECK(hostconfig_new(&hc, HOSTCONFIG_MAX_SIZE) == 1);
    const int primary = hostconfig_load(&hc, path.c_str(), nullptr);
    FUZZ_CHECK(primary == 1 || primary == -1);
    FUZZ_CHECK(backup == (primary == 1 ? 2 : -1));
    if (primary != 1) return 0;
    FUZZ_CHECK(hc.count == backup_count && hc.count >= 1 && hc.count <= 20);

    kivl_init(&kd);
    if (kivl_hostconfig_import(&kd, &hc) != 1) return 0;
    kivl_partpool_generate(&kd);
    kivl_dump_info(&kd);

    // A save refuses only a part it carries over with an unaligned header or a name merely
    // beginning with "KIV data"; the part named exactly so is replaced whatever its shape.
    bool unsavable = false;
    for (int i = 0; i < hc.count; ++i) {
        const char *name = hc.parts[i]->name;
        if (std::strncmp(name, KIVL_PART_NAME, ZUNF_NAME_LEN) == 0) continue;
        unsavable |= hc.parts[i]->hdr_length % 4 != 0 ||
                     std::strncmp(name, KIVL_PART_NAME, std::strlen(KIVL_PART_NAME)) == 0;
    }
    kiv_options o{};
    std::strcpy(o.hostcfg, (fuzz_dir() + "/saved").c_str());
    const int saved_ok = save(&o, &kd, &hc, "fuzz");
    FUZZ_CHECK(saved_ok == (unsavable ? -1 : 1));
    if (saved_ok != 1) return 0;
    FUZZ_CHECK(load(&o, &reloaded, &again) == 1);
    FUZZ_CHECK(std::memcmp(&kd.rec, &reloaded.rec, sizeof kd.rec) == 0);
    return 0;
}
