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

// The first 4 bytes of a release header and of a software header: the version triple,
// compared major, minor, build number.
struct kivl_version {
    std::uint8_t major;
    std::uint8_t minor;
    le16 build;
};
static_assert(sizeof(kivl_version) == 4);
static_assert(offsetof(zunf_release_header, release_build_number) == offsetof(kivl_version, build));
static_assert(offsetof(zunf_software_header, sw_build_number) == offsetof(kivl_version, build));

// -1, 0 or 1 as a is older than, equal to or newer than b.
inline int kivl_version_cmp(const kivl_version &a, const kivl_version &b) {
    if (a.major != b.major) return a.major < b.major ? -1 : 1;
    if (a.minor != b.minor) return a.minor < b.minor ? -1 : 1;
    if (a.build.get() != b.build.get()) return a.build.get() < b.build.get() ? -1 : 1;
    return 0;
}

// One line of the release metadata ("kivm") with the install's plan for it. Held in
// memory only (the install context and the hooks see it), but the version fields are laid
// out like the start of a software header, so the planner compares them the same way.
inline constexpr std::size_t KIVM_MAX_ELEMS = 40;
inline constexpr std::size_t KIVM_POOLNAME_LEN = 18;
inline constexpr std::size_t KIVM_MOUNTPNT_LEN = 32;
inline constexpr std::size_t KIVM_FSTYPE_LEN = 10;
inline constexpr std::size_t KIVM_PLATFORM_LEN = 22;

// Planned action of an element.
enum : std::int32_t {
    KIV_ACTION_NONE = 0,  // filtered out or not reached
    KIV_ACTION_WRITE = 1, // write the content part into partinfo_idx
    KIV_ACTION_KEEP = 2,  // partinfo_idx already holds the content
    KIV_ACTION_LATE = 3,  // decided when the software part arrives
};

// meta_valid
enum : std::uint32_t {
    KIVM_META_NONE = 0,    // no version given
    KIVM_META_VERSION = 1, // version given and stored
    KIVM_META_LATE = 2,    // version given with -2: the software header decides
};

struct kivl_kivm_elem {
    std::uint8_t used; // 1 filled from a line
    std::int8_t cidx;  // content part index in the image, -1 not carried
    char poolname[KIVM_POOLNAME_LEN];
    std::int32_t reserved;
    char mountpnt[KIVM_MOUNTPNT_LEN]; // empty for "-"
    char fstype[KIVM_FSTYPE_LEN];     // empty for "-"
    char platform[KIVM_PLATFORM_LEN]; // "-": every platform
    std::uint32_t meta_valid;
    std::uint8_t wts; // write layout: 1 body, 2 header then body, 3 body, gap, header
    std::uint8_t reserved1[35];
    std::uint8_t sw_version_major;
    std::uint8_t sw_version_minor;
    le16 sw_build_number;
    std::uint8_t reserved2[28];
    std::int32_t action;
    std::int32_t partinfo_idx; // -1 none
};
static_assert(sizeof(kivl_kivm_elem) == 168);
static_assert(offsetof(kivl_kivm_elem, cidx) == 1 && offsetof(kivl_kivm_elem, poolname) == 2);
static_assert(offsetof(kivl_kivm_elem, reserved) == 20 && offsetof(kivl_kivm_elem, mountpnt) == 24);
static_assert(offsetof(kivl_kivm_elem, fstype) == 56 && offsetof(kivl_kivm_elem, platform) == 66);
static_assert(offsetof(kivl_kivm_elem, meta_valid) == 88 && offsetof(kivl_kivm_elem, wts) == 92);
static_assert(offsetof(kivl_kivm_elem, sw_version_major) == 128);
static_assert(offsetof(kivl_kivm_elem, sw_build_number) == 130);
static_assert(offsetof(kivl_kivm_elem, action) == 160);
static_assert(offsetof(kivl_kivm_elem, partinfo_idx) == 164);

// Results of the meta install passes.
enum : int {
    KIVL_META_INSTALL_OK = 1,
    KIVL_META_INSTALL_ERR_NO_CONTENT = -1,
    KIVL_META_INSTALL_ERR_DEPENDENCY = -2,
    KIVL_META_INSTALL_ERR_SINGLETON = -3,
    KIVL_META_INSTALL_ERR_EMPTY_POOL = -4,
    KIVL_META_INSTALL_ERR_NO_FREE_PARTINFO = -5,
    KIVL_META_INSTALL_ERR_PARTINFO_MATCH = -6,
    KIVL_META_INSTALL_ERR_FATAL = -99,
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

// --- release metadata ---
// Parses the zero-terminated kivm text into elems[0..max). Returns the number filled, or
// -1 when it holds more than max element lines. Malformed lines (also lines of 2000
// characters or more and text columns wider than their fields) are reported and skipped.
int kivl_parse_kivmd(kivl_kivm_elem *elems, int max, const char *text);

// --- meta install planning (memory only; nothing is saved here) ---
// First pass, run as soon as the kivm part is in: plans every used element. rhdr is the
// image's 44-byte release header record; platform "" matches every element. Returns
// KIVL_META_INSTALL_OK or a KIVL_META_INSTALL_ERR_ code.
int kivl_meta_install_part1(kivl_data *kdata, int setidx, const void *rhdr, kivl_kivm_elem *elems,
                            const char *platform, int force);
// Final pass: records the metadata of every part to be written and replaces the set's refs
// and release header. content_parts is the parser's table of 20 part headers. Returns
// KIVL_META_INSTALL_OK or a KIVL_META_INSTALL_ERR_ code.
int kivl_meta_install(kivl_data *kdata, int setidx, const void *rhdr, kivl_kivm_elem *elems,
                      const zunf_content_header *const *content_parts, const char *platform,
                      int force);
// Decides a late element by the software header of its part: kept where a partition of its
// pool holds that version intact, else written. Returns the partition found, or -1.
int late_action_update(kivl_data *kdata, kivl_kivm_elem *elem, const void *swhdr);
// First partition of the pool that no set other than setidx references, or -1.
int kivl_get_unused_partinfo(const kivl_data *kdata, const char *poolname, int setidx);
// Records the part's header and software header (64 bytes, as far as the part reaches) as
// the metadata of elem->partinfo_idx, with the element's mount point and file system.
void kivl_meta_import_pinfometa(kivl_data *kdata, const zunf_content_header *content_part,
                                const kivl_kivm_elem *elem);
// A partition of the element's pool holding `version` (major u8, minor u8, le16 build, as
// in a software header) with a good CRC, or -1.
int kivl_find_installed_partinfo(const kivl_data *kdata, const kivl_kivm_elem *elem,
                                 const void *version);
