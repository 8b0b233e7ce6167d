// Upgrade state bytes of sets 1 and 2, at the end of the first 128 KiB of /dev/mtd5,
// stored complemented so that erased flash (0xFF) reads as VALID.
#pragma once

#include <cstdint>

inline constexpr const char *HOSTCONFIG_FLAGS_DEVICE = "/dev/mtd5";
inline constexpr long HOSTCONFIG_FLAGS_OFFSET = 131070;

enum : int {
    KIV_UPGRADE_STATE_VALID = 0,
    KIV_UPGRADE_STATE_TEST = 1,
    KIV_UPGRADE_STATE_BOOT = 2,
};

// Reads both state bytes (set 1, set 2), complemented back. Returns 0, or -1.
int hostconfig_flags_read(std::uint8_t bytes[2]);
// Stores both state bytes complemented, in place without erase. Returns 0, or -1.
int hostconfig_flags_write(const std::uint8_t bytes[2]);
// State byte of a set: 0 for set 0, 0..255 for sets 1 and 2, -1 otherwise or on failure.
int upgrade_flags_read(int set);
// Replaces the state byte of set 1 or 2. Returns 0, or -1.
int upgrade_flags_write(int set, int value);
// Decoded state 0 VALID, 1 TEST, 2 BOOT, or -1.
int get_upgrade_state(int set);
// Makes the set's state equal to state (0 or 1 can be written). Returns 0, or -1.
int set_upgrade_state(int set, int state);
// Prints the states of sets 1 and 2.
void kivl_upgrade_info();
