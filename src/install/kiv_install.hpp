// The install action: a release image from a file into the partitions of one set, planned
// in the upgrade data while the image is read, written and checked inside a critical
// region, and committed with one save of the hostconfig.
#pragma once

#include <cstddef>
#include <cstdint>

#include "front/kiv_options.hpp"
#include "kivl/kivl.hpp"
#include "zunf/zunf_stream_parser.hpp"

struct hostconfig;

// Reception states.
enum : std::int32_t {
    KIV_RX_AWAIT_HEADER = 1, // waiting for the 24-byte image header
    KIV_RX_PARTS = 2,        // parsing content parts
    KIV_RX_SKIPPED = 3,      // a part was skipped: reception resumes at resume_offset
    KIV_RX_FAILED = 17,      // final
};

inline constexpr std::size_t KIV_RESUME_RANGE_LEN = 100;

// One per run, zeroed at the start; the reception callback and every install hook get it.
// Its layout is part of the plug-in interface (kiv_plugin.h).
struct kiv_install_ctx {
    std::int32_t state;
    std::int32_t hdr_consumed; // image header bytes handed to the parser (0, then 24)
    std::int32_t received;     // bytes delivered by the reader so far
    zunf_stream_parser *parser;
    std::int32_t parts_seen; // content parts already examined
    std::uint8_t *zunf_buf;  // the whole image
    std::int32_t zunf_size;
    std::uint32_t resume_offset; // where reception goes on after a skipped part
    kivl_kivm_elem kivm[KIVM_MAX_ELEMS];
    std::int32_t kivm_count;
    kivl_data *kdata;
    std::uint8_t setidx;
    const zunf_release_header *rhdr;   // inside zunf_buf once the release header part is in
    const zunf_image_header *zunf_hdr; // zunf_buf + 8 once the header is parsed
    kiv_options *opts;
    std::int32_t skip_enabled;               // set by a hook: skip parts the plan does not need
    char resume_range[KIV_RESUME_RANGE_LEN]; // "%u-" of resume_offset
    std::int32_t next_elem;                  // element whose content part is expected next
};

// Exit codes of the install action besides 0 and 1.
enum : int {
    KIV_EXIT_ERR_META_INSTALL = 2,
    KIV_EXIT_ERR_AUTOSET = 5,
    KIV_EXIT_ERR_PRODUCT = 6,
    KIV_EXIT_ERR_MINVER = 7,
    KIV_EXIT_ERR_ZUNF_OPEN = 8,
    KIV_EXIT_ERR_ZUNF_LOAD = 9,
    KIV_EXIT_FATAL_ERR_HOSTCONFIG_WRITE = 10,
    KIV_EXIT_FATAL_ERR_SINGLETON_WRITE = 11,
    KIV_EXIT_ERR_PARTIAL_CRC = 14,
};

// The reception callback, called by kiv_feed_file like fwrite with the buffer start, 1,
// the bytes just read and the context. Returns size * count to accept the chunk, one more
// to refuse it (state KIV_RX_FAILED, or KIV_RX_SKIPPED after a skip).
std::size_t kiv_install_receive(void *data, std::size_t size, std::size_t count, void *context);

// The platform string elements are matched against: -platform, else the product.
const char *kiv_install_platform(const kiv_options *options);

// The content part of an element, or null when the image does not carry it.
const zunf_content_header *kiv_install_elem_part(const kiv_install_ctx *ctx,
                                                 const kivl_kivm_elem &elem);

// Preparation before anything is written: partial images, -rewrite, kept partitions
// re-checked and, when gone bad, scheduled for a rewrite (relocated when shared). Returns
// 0 to go on, or the exit code (1 or 14) that ends the install.
int kiv_install_prepare(kiv_install_ctx *ctx);

// Remembers the upgrade data as loaded, before planning records the new contents in it.
void kiv_install_keep_loaded(const kivl_data *kdata);

// Outcome of the write-out.
struct kiv_write_out_result {
    bool failed;
    int pool_members; // of the pool of the last element whose write was begun
};

// Erases, writes and verifies every element planned for writing, stopping at the first
// failure: that partition's metadata is then cleared in memory, and the partitions planned
// behind it, never touched, get back the metadata they were loaded with.
kiv_write_out_result kiv_install_write_out(kiv_install_ctx *ctx);

// From the planned and prepared install to the exit code: autoset bookkeeping, the
// critical region, write-out, commit and the hooks around them.
int kiv_install_commit(kiv_install_ctx *ctx, hostconfig *hc, bool autodetected);
