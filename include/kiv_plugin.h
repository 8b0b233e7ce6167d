/* kiv_plugin.h: the interface between kiv and a platform plug-in.
 *
 * A plug-in is a shared library loaded with kiv (LD_PRELOAD, or a DT_NEEDED entry added
 * to the binary). kiv refers to the hooks below weakly: a hook the plug-in does not
 * define is simply left out. Every hook returns 0 to let kiv go on; what another value
 * does is written at each hook.
 *
 * The records are given with their exact layout, so that a hook may read and change
 * them. Multi-byte fields of records that kiv keeps on flash or reads from a release
 * image are little-endian byte arrays (kiv_le16/kiv_le32 below read them on any host).
 * Pointers, int32_t and uint32_t fields of the in-memory records are host order.
 *
 * Define KIV_PLUGIN_TYPES_ONLY before including to get the records without the hook
 * prototypes.
 */
#ifndef KIV_PLUGIN_H
#define KIV_PLUGIN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KIV_PLUGIN_PATH_LEN 100
#define KIV_PLUGIN_PRODUCT_LEN 16
#define KIV_PLUGIN_PLATFORM_LEN 8
#define KIV_PLUGIN_PLUGIN_LEN 200
#define KIV_PLUGIN_MAX_ARGS 20
#define KIV_PLUGIN_HOSTCONFIG_MAX_SIZE 5120
#define KIV_PLUGIN_MAX_PARTS 20
#define KIV_PLUGIN_KIVM_ELEMS 40
#define KIV_PLUGIN_RESUME_RANGE_LEN 100

static inline uint16_t kiv_le16(const uint8_t b[2]) {
    return (uint16_t)(b[0] | (b[1] << 8));
}
static inline uint32_t kiv_le32(const uint8_t b[4]) {
    return (uint32_t)b[0] | ((uint32_t)b[1] << 8) | ((uint32_t)b[2] << 16) | ((uint32_t)b[3] << 24);
}

/* The command line of the run. */
struct kiv_options {
    int r;
    int dryrun;
    int test;
    int verbose;
    int force;
    int32_t meta_major;
    int32_t meta_minor;
    int32_t meta_build;
    uint32_t zunfsize;
    int rewrite;
    int onlymeta;
    int noactivate;
    int product_set;
    int platform_set;
    int minver_set;
    int iptos_set;
    int32_t iptos;
    const char *action;
    char hostcfg[KIV_PLUGIN_PATH_LEN];
    char hostcfg_backup[KIV_PLUGIN_PATH_LEN];
    char device[KIV_PLUGIN_PATH_LEN]; /* partition device pattern, e.g. "/dev/mtd%i" */
    char lockfile[KIV_PLUGIN_PATH_LEN];
    char autosetfile[KIV_PLUGIN_PATH_LEN];
    char activesetfile[KIV_PLUGIN_PATH_LEN];
    char product[KIV_PLUGIN_PRODUCT_LEN];
    char platform[KIV_PLUGIN_PLATFORM_LEN];
    uint32_t minver_major;
    uint32_t minver_minor;
    uint32_t minver_build;
    char plugin[KIV_PLUGIN_PLUGIN_LEN];
    const char *args[KIV_PLUGIN_MAX_ARGS]; /* ACTION and its arguments */
    int32_t nargs;
};

/* Release image: image header (image offset 8). */
struct zunf_image_header {
    uint8_t hdr_crc[4];
    uint8_t version;
    uint8_t reserved;
    uint8_t hdr_length[2];
    uint8_t body_length[4];
    uint8_t body_crc[4];
};

/* Release image: common header of every content part (32 bytes). */
struct zunf_content_header {
    uint8_t hdr_crc[4];
    uint8_t type_id[2]; /* 1 release header, 3 data, 4 software */
    uint8_t hdr_length[2];
    uint8_t body_length[4];
    char name[16];
    uint8_t body_crc[4];
};

/* Type-specific header of a release header part (44 bytes). */
struct zunf_release_header {
    uint8_t release_version_major;
    uint8_t release_version_minor;
    uint8_t release_build_number[2];
    uint8_t release_date[4];
    char release_build_id[36];
};

/* Type-specific header of a software part (32 bytes). */
struct zunf_software_header {
    uint8_t sw_version_major;
    uint8_t sw_version_minor;
    uint8_t sw_build_number[2];
    char sw_build_id[28];
};

/* What the upgrade data records of the content in a partition. */
struct zunf_pinfometa {
    struct zunf_content_header hdr;
    struct zunf_software_header sw;
};

/* The upgrade data record (hostconfig part "KIV data", 2964 bytes). */
struct kivl_set {
    uint8_t bootable;
    char name[15];
    int8_t refs[20]; /* partition info indices; the first -1 ends the list */
};

struct kivl_partinfo {
    char poolname[16]; /* empty: entry unused */
    uint8_t pn;        /* partition number given to the device pattern */
    uint8_t pad0[3];
    uint8_t offset[4];
    uint8_t size[4];
    char mountpnt[32];
    char fstype[10];
    uint8_t pad1[2];
};

struct kivl_record {
    uint8_t actset; /* the active set */
    struct kivl_set sets[3];
    uint8_t pad0[3];
    struct kivl_partinfo partinfo[20];
    struct zunf_release_header rhdr[3];
    struct zunf_pinfometa pinfometa[20];
};

struct kivl_pool {
    char name[16];
    uint8_t items[20];
    uint8_t cnt;
};

/* The upgrade data of the run: the record and the pools derived from it. */
struct kivl_data {
    const char *device;
    struct kivl_record rec;
    struct kivl_pool pools[20];
    uint32_t pools_count;
    uint32_t pools_valid;
};

/* The hostconfig image loaded by the run. */
struct hostconfig {
    uint8_t image[KIV_PLUGIN_HOSTCONFIG_MAX_SIZE];
    struct zunf_image_header *hdr;
    struct zunf_content_header *parts[KIV_PLUGIN_MAX_PARTS];
    uint32_t capacity;
    int32_t count;
    uint32_t used;
};

/* One line of the release metadata with the install's plan for it (168 bytes). */
struct kivl_kivm_elem {
    uint8_t used; /* 1: filled from a line */
    int8_t cidx;  /* content part index in the image, -1 not carried */
    char poolname[18];
    int32_t reserved;
    char mountpnt[32];
    char fstype[10];
    char platform[22];
    uint32_t meta_valid; /* 0 no version, 1 version given, 2 decided by the software header */
    uint8_t wts;         /* 1 body, 2 header then body, 3 body, gap, header */
    uint8_t reserved1[35];
    uint8_t sw_version_major;
    uint8_t sw_version_minor;
    uint8_t sw_build_number[2];
    uint8_t reserved2[28];
    int32_t action;       /* 0 nothing, 1 write, 2 keep, 3 decided late */
    int32_t partinfo_idx; /* -1 none */
};

/* Owned by kiv; plug-ins only pass the pointer on. */
struct zunf_stream_parser;

/* The context of one install. */
struct kiv_install_ctx {
    int32_t state; /* reception: 1 header, 2 parts, 3 part skipped, 17 failed */
    int32_t hdr_consumed;
    int32_t received;
    struct zunf_stream_parser *parser;
    int32_t parts_seen;
    uint8_t *zunf_buf; /* the whole image */
    int32_t zunf_size;
    uint32_t resume_offset;
    struct kivl_kivm_elem kivm[KIV_PLUGIN_KIVM_ELEMS];
    int32_t kivm_count;
    struct kivl_data *kdata;
    uint8_t setidx; /* target set */
    const struct zunf_release_header *rhdr;
    const struct zunf_image_header *zunf_hdr;
    struct kiv_options *opts;
    int32_t skip_enabled; /* a hook may set it: content parts the plan keeps are skipped */
    char resume_range[KIV_PLUGIN_RESUME_RANGE_LEN];
    int32_t next_elem;
};

#ifndef KIV_PLUGIN_TYPES_ONLY

/* activate, after the new active set was recorded. The result is ignored. */
int kiv_activate_hook_post(struct kivl_data *data, struct hostconfig *hc);

/* install, after the hostconfig could not be loaded and a rebuild was tried
 * (rebuild_result 1: rebuilt). Non-zero ends the install with that value; 0 goes on
 * whatever the rebuild gave. */
int kiv_install_hook_hcfg_fail(struct kiv_install_ctx *ctx, struct hostconfig *hc,
                               int rebuild_result);
/* install, for every chunk of image data before it is parsed. Non-zero ends the install
 * with 9. */
int kiv_install_hook_data_rcvd(struct kiv_install_ctx *ctx);
/* install, after the release checks and before the final planning pass. Non-zero ends
 * the install with that value. */
int kiv_install_hook_pre_metainstall(struct kiv_install_ctx *ctx, struct hostconfig *hc);
/* install, before anything is written. Non-zero ends the install with that value. */
int kiv_install_hook_pre_install(struct kiv_install_ctx *ctx, struct hostconfig *hc);
/* install, after the partitions were written, before the hostconfig is saved. Non-zero
 * ends the install with that value and without the save. */
int kiv_install_hook_post_write_out(struct kiv_install_ctx *ctx, struct hostconfig *hc);
/* install, after a successful commit (or the write-out of a dry run). Its value is the
 * install's result. */
int kiv_install_hook_post_activate(struct kiv_install_ctx *ctx, struct hostconfig *hc);
/* install, at the end of an install that got past kiv_install_hook_pre_install, when its
 * result is not 0 (not after a failure to set the test state, which ends the install at
 * once). The value is ignored. */
int kiv_install_hook_on_failure(struct kiv_install_ctx *ctx, struct hostconfig *hc, int result);

#endif /* KIV_PLUGIN_TYPES_ONLY */

#ifdef __cplusplus
}
#endif

#endif /* KIV_PLUGIN_H */
