// The upgrade data library: the persisted upgrade data record and operations on sets,
// pools and partitions.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zunf/zunf_format.hpp"

struct hostconfig;

inline constexpr std::size_t KIVL_SETS = 3;
inline constexpr std::size_t KIVL_PARTINFOS = 20;
inline constexpr std::size_t KIVL_REFS = 20;
inline constexpr std::size_t KIVL_POOLS = 20;
inline constexpr std::size_t KIVL_SET_NAME_LEN = 15; // 14 characters and a NUL
inline constexpr std::size_t KIVL_POOLNAME_LEN = 16;
inline constexpr std::size_t KIVL_MOUNTPNT_LEN = 32;
inline constexpr std::size_t KIVL_FSTYPE_LEN = 10;
inline constexpr std::uint32_t KIVL_RECORD_SIZE = 2964;
inline constexpr const char *KIVL_PART_NAME = "KIV data";
inline constexpr const char *KIVL_SAFESET_NAME = "SAFESET";

struct kivl_set {
    std::uint8_t bootable;
    char name[KIVL_SET_NAME_LEN];
    std::int8_t refs[KIVL_REFS]; // partinfo indices; the first -1 ends the list
};
static_assert(sizeof(kivl_set) == 36);
static_assert(offsetof(kivl_set, name) == 1 && offsetof(kivl_set, refs) == 16);

struct kivl_partinfo {
    char poolname[KIVL_POOLNAME_LEN]; // empty: entry unused
    std::uint8_t pn;                  // partition number given to the device pattern
    std::uint8_t pad0[3];
    le32 offset;
    le32 size;
    char mountpnt[KIVL_MOUNTPNT_LEN];
    char fstype[KIVL_FSTYPE_LEN];
    std::uint8_t pad1[2];
};
static_assert(sizeof(kivl_partinfo) == 72);
static_assert(offsetof(kivl_partinfo, pn) == 16 && offsetof(kivl_partinfo, offset) == 20);
static_assert(offsetof(kivl_partinfo, size) == 24 && offsetof(kivl_partinfo, mountpnt) == 28);
static_assert(offsetof(kivl_partinfo, fstype) == 60);

// The persisted upgrade data record: the body of the hostconfig part "KIV data".
struct kivl_record {
    std::uint8_t actset;
    kivl_set sets[KIVL_SETS];
    std::uint8_t pad0[3];
    kivl_partinfo partinfo[KIVL_PARTINFOS];
    zunf_release_header rhdr[KIVL_SETS];
    zunf_pinfometa pinfometa[KIVL_PARTINFOS];
};
static_assert(sizeof(kivl_record) == KIVL_RECORD_SIZE);
static_assert(offsetof(kivl_record, sets) == 1);
static_assert(offsetof(kivl_record, partinfo) == 112);
static_assert(offsetof(kivl_record, rhdr) == 1552);
static_assert(offsetof(kivl_record, pinfometa) == 1684);

struct kivl_pool {
    char name[KIVL_POOLNAME_LEN];
    std::uint8_t items[KIVL_PARTINFOS];
    std::uint8_t cnt;
};

struct kivl_data {
    const char *device;          // partition device pattern, e.g. "/dev/mtd%i"
    kivl_record rec;             // persisted
    kivl_pool pools[KIVL_POOLS]; // derived by kivl_partpool_generate
    std::uint32_t pools_count;
    std::uint32_t pools_valid;
};

// --- record ---
// Zeroes the whole object. Returns 1.
int kivl_init(kivl_data *data);
// Appends the record as part "KIV data" (2964 bytes). Returns 1, or -1 when it does not fit.
int kivl_hostconfig_export(kivl_data *data, hostconfig *hc);
// Copies the "KIV data" body over the record. Returns 1, or -1 when absent or too short.
int kivl_hostconfig_import(kivl_data *data, hostconfig *hc);

// --- lookups ---
// The actset byte.
int kivl_actset_get(const kivl_data *data);
// Set index 0..2, -1 not found, -2 empty name.
int kivl_getsetidx(const kivl_data *data, const char *name);
// 1 when a set other than except_set lists pidx among all 20 refs, else 0.
int kivl_partinfo_owned_by_set(const kivl_data *data, int pidx, int except_set);
// Clears mountpnt, fstype and pinfometa of the entry. Returns 1.
int kivl_partinfo_mark_meta_invalid(kivl_data *data, int pidx);
// version points at major (u8), minor (u8), build (le16). 1 when >= major.minor.build.
int kivl_check_minver(const void *version, std::uint32_t major, std::uint32_t minor,
                      std::uint32_t build);
// Rebuilds the pool table from the partition info table.
void kivl_partpool_generate(kivl_data *data);
// Member count of the pool, or -1.
int kivl_partpool_items_count(const kivl_data *data, const char *poolname);
// Member count and the pool's 20 items, or -1.
int kivl_partpool_items(const kivl_data *data, const char *poolname, std::uint8_t items[20]);
// 1 when model is in the "products=" list of the release header part, else 0.
int kivl_match_model(const zunf_content_header *rh_part, const char *model);
// Splits src at commas into fields[1..count] (fields[0] is the caller's buffer, at least
// strlen(src) + 1 bytes). Returns the count, 0 for empty, -1 when max is exceeded.
int kivl_parse_csv(const char *src, char **fields, int max);

// --- info dump ---
int kivl_dump_info(const kivl_data *data);
int kivl_printf_time(std::uint32_t t);
