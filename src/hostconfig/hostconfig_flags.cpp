#include "hostconfig/hostconfig_flags.hpp"

#include <cstdio>
#include <cstring>

#include "util/qx.hpp"
#include "util/stdio_file.hpp"

namespace {
constexpr int FIRST_FLAGGED_SET = 1;
constexpr int LAST_FLAGGED_SET = 2;
constexpr std::size_t FLAG_BYTES = 2;
constexpr unsigned STATE_BIT_TEST = 0x01;
constexpr unsigned STATE_BIT_BOOT = 0x02;

bool flagged_set(int set) {
    return set >= FIRST_FLAGGED_SET && set <= LAST_FLAGGED_SET;
}

int decode_state(int b) {
    if ((b & STATE_BIT_TEST) == 0) return KIV_UPGRADE_STATE_VALID;
    return (b & STATE_BIT_BOOT) ? KIV_UPGRADE_STATE_BOOT : KIV_UPGRADE_STATE_TEST;
}

const char *state_name(int state) {
    switch (state) {
    case KIV_UPGRADE_STATE_VALID:
        return "VALID";
    case KIV_UPGRADE_STATE_TEST:
        return "TEST";
    case KIV_UPGRADE_STATE_BOOT:
        return "BOOT";
    default:
        return "INVALID";
    }
}
} // namespace

int hostconfig_flags_read(std::uint8_t bytes[2]) {
    StdioFile f(HOSTCONFIG_FLAGS_DEVICE, "r");
    if (!f) return -1;
    if (std::fseek(f.get(), HOSTCONFIG_FLAGS_OFFSET, SEEK_SET) != 0) return -1;
    std::uint8_t stored[FLAG_BYTES];
    if (std::fread(stored, 1, FLAG_BYTES, f.get()) != FLAG_BYTES) return -1;
    // Stored complemented so that erased flash (0xFF) reads as VALID.
    for (std::size_t i = 0; i < FLAG_BYTES; ++i)
        bytes[i] = static_cast<std::uint8_t>(~stored[i]);
    return 0;
}

int hostconfig_flags_write(const std::uint8_t bytes[2]) {
    StdioFile f(HOSTCONFIG_FLAGS_DEVICE, "w");
    if (!f) return -1;
    if (std::fseek(f.get(), HOSTCONFIG_FLAGS_OFFSET, SEEK_SET) != 0) return -1;
    // Written in place without erase: an erase would take the hostconfig image in the
    // same erase block with it.
    std::uint8_t stored[FLAG_BYTES];
    for (std::size_t i = 0; i < FLAG_BYTES; ++i)
        stored[i] = static_cast<std::uint8_t>(~bytes[i]);
    if (std::fwrite(stored, 1, FLAG_BYTES, f.get()) != FLAG_BYTES) return -1;
    // The bytes reach the device when the stream is flushed: a failing close is a
    // failed write.
    if (f.close() != 0) return -1;
    // Like every other write, checked by reading it back.
    std::uint8_t now[FLAG_BYTES];
    if (hostconfig_flags_read(now) != 0) return -1;
    return std::memcmp(now, bytes, FLAG_BYTES) == 0 ? 0 : -1;
}

int upgrade_flags_read(int set) {
    if (set == 0) return 0;
    if (!flagged_set(set)) return -1;
    std::uint8_t bytes[FLAG_BYTES];
    if (hostconfig_flags_read(bytes) != 0) return -1;
    return bytes[set - 1];
}

int upgrade_flags_write(int set, int value) {
    if (!flagged_set(set)) return -1;
    std::uint8_t bytes[FLAG_BYTES];
    if (hostconfig_flags_read(bytes) != 0) return -1;
    // Unerased NOR flash only clears stored bits, which sets bits of the complemented
    // byte: TEST back to VALID, or BOOT to TEST, cannot be programmed over. The save
    // before a state write normally erases these bytes with the hostconfig; with the
    // hostconfig kept elsewhere such a request is refused instead of written in vain.
    const auto wanted = static_cast<std::uint8_t>(value);
    if ((bytes[set - 1] & ~wanted) != 0) return -1;
    bytes[set - 1] = wanted;
    return hostconfig_flags_write(bytes) == 0 ? 0 : -1;
}

int get_upgrade_state(int set) {
    int b = upgrade_flags_read(set);
    if (b < 0) return -1;
    return decode_state(b);
}

int set_upgrade_state(int set, int state) {
    // Only a real state can already be in place; -1 is how an unreadable byte reads.
    if (state >= 0 && get_upgrade_state(set) == state) return 0;
    // BOOT is only ever read by this program, never written.
    if (state != KIV_UPGRADE_STATE_VALID && state != KIV_UPGRADE_STATE_TEST) {
        qx_printf("cannot set state to %d, invalid", state);
        return -1;
    }
    return upgrade_flags_write(set, state) == 0 ? 0 : -1;
}

void kivl_upgrade_info() {
    for (int set = FIRST_FLAGGED_SET; set <= LAST_FLAGGED_SET; ++set) {
        int state = get_upgrade_state(set);
        qx_printf("KIV Data Upgrade set %d: %s(%d)\n", set, state_name(state), state);
    }
}
