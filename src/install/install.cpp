// The install action's entry: the target set, the hostconfig (rebuilt when lost), the image
// read into memory while it is parsed and planned, the release checks and the final
// planning pass. Until the commit nothing outside this process changes: every refusal here
// leaves flash and /tmp as they were.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

#include "front/kiv_actions.hpp"
#include "front/kiv_helpers.hpp"
#include "front/kiv_hooks.hpp"
#include "front/kiv_log.hpp"
#include "hostconfig/hostconfig.hpp"
#include "install/kiv_install.hpp"
#include "kivl/kivl.hpp"
#include "tools/rebuild.hpp"
#include "util/fixed_text.hpp"
#include "util/fnfile.hpp"
#include "util/qx.hpp"

namespace {
constexpr const char *MODULE = "kiv";
constexpr int AUTODETECT = -1;

// The set an install with SETIDX -1 goes to: the one that is not running, or, while the
// fallback set runs, the one holding the older release. -1 when actset names no set.
int autodetect_set(const kivl_data &data) {
    switch (kivl_actset_get(&data)) {
    case 1:
        return 2;
    case 2:
        return 1;
    case 0: {
        const auto &v1 = *reinterpret_cast<const kivl_version *>(&data.rec.rhdr[1]);
        const auto &v2 = *reinterpret_cast<const kivl_version *>(&data.rec.rhdr[2]);
        return kivl_version_cmp(v2, v1) < 0 ? 2 : 1;
    }
    default:
        return -1;
    }
}

// No downloader is part of this system: a location with a scheme is refused before the
// file system is looked at.
bool is_url(const char *location) {
    char scheme[10], host[200], path[200];
    return std::sscanf(location, "%9[^:]://%199[^/]/%199s", scheme, host, path) == 3 ||
           std::sscanf(location, "file:///%199s", path) == 1;
}

// The first content part when it is a release header whose record and text lie inside it.
const zunf_content_header *release_header_part(const kiv_install_ctx &ctx) {
    const zunf_content_header *part = zunf_stream_parser_content_parts(ctx.parser)[0];
    if (part == nullptr || part->type_id.get() != ZUNF_TYPE_RELEASE_HEADER) return nullptr;
    if (part->hdr_length.get() < ZUNF_RELEASE_PART_HDR_LEN) return nullptr;
    return part;
}

const zunf_release_header *release_record(const zunf_content_header *part) {
    return reinterpret_cast<const zunf_release_header *>(zunf_bytes(part) + ZUNF_CONTENT_HDR_LEN);
}

const char *meta_install_reason(int code) {
    switch (code) {
    case KIVL_META_INSTALL_ERR_NO_CONTENT:
        return "install: no content\n";
    case KIVL_META_INSTALL_ERR_DEPENDENCY:
        return "install: KIVM dependencies not fulfilled in hostconfig\n";
    case KIVL_META_INSTALL_ERR_SINGLETON:
        return "install: install into singleton without force option\n";
    case KIVL_META_INSTALL_ERR_EMPTY_POOL:
        return "install: empty pool\n";
    case KIVL_META_INSTALL_ERR_NO_FREE_PARTINFO:
        return "install: no free partinfo\n";
    case KIVL_META_INSTALL_ERR_PARTINFO_MATCH:
        return "install: partinfo kivm match\n";
    case KIVL_META_INSTALL_ERR_FATAL:
        return "install: fatal error\n";
    default:
        return "install: unknown error type\n";
    }
}

// Zeroed memory for an image of `size` bytes (whole pages), never released: the process ends
// with the install. Fresh memory taken one 4 KiB page fault at a time costs more than
// reading and checking a release of many megabytes, so the buffer starts on a huge page
// boundary, is offered to the kernel for huge pages, and is populated in one call. Kernels
// without either feature refuse the advice, and the pages then come as the file is read.
std::uint8_t *image_buffer(std::size_t size) {
    constexpr std::size_t HUGE_PAGE = std::size_t{2} << 20;
    const long page_size = ::sysconf(_SC_PAGESIZE);
    const std::size_t page = page_size > 0 ? static_cast<std::size_t>(page_size) : 4096;
    const std::size_t len = (size + page - 1) / page * page;
    void *raw = ::mmap(nullptr, len + HUGE_PAGE, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) return nullptr;
    const auto start = reinterpret_cast<std::uintptr_t>(raw);
    const std::uintptr_t buf = (start + HUGE_PAGE - 1) & ~std::uintptr_t{HUGE_PAGE - 1};
    // Only the image's own pages stay mapped, so that no huge page reaches beyond them.
    if (buf > start) ::munmap(raw, buf - start);
    ::munmap(reinterpret_cast<void *>(buf + len), start + HUGE_PAGE - buf);
    auto *p = reinterpret_cast<std::uint8_t *>(buf);
    ::madvise(p, len, MADV_HUGEPAGE);
    ::madvise(p, len, MADV_POPULATE_WRITE);
    return p;
}

// Reads the image into one buffer of its exact size while reception parses and plans it.
// Returns 0, or the exit code.
int receive_image(kiv_install_ctx &ctx, const char *location) {
    const std::int32_t size = fnsize(location);
    if (size < 0) {
        kiv_log(LOG_ERR, "install: could not open ZUNF\n");
        return KIV_EXIT_ERR_ZUNF_OPEN;
    }
    if (size == 0) {
        kiv_log(LOG_ERR, "install: empty ZUNF\n");
        return KIV_EXIT_ERR_ZUNF_LOAD;
    }
    if (size > static_cast<std::int32_t>(ctx.opts->zunfsize)) {
        kiv_log(LOG_ERR, "install: ZUNF too big\n");
        return KIV_EXIT_ERR_ZUNF_LOAD;
    }
    // Both live until the process ends: the plan and the hooks point into the image.
    ctx.zunf_buf = image_buffer(static_cast<std::size_t>(size));
    QX_ASSERT(MODULE, ctx.zunf_buf != nullptr);
    ctx.zunf_size = size;
    ctx.resume_offset = 0;
    ctx.parser = zunf_stream_parser_init(nullptr, ctx.zunf_buf);
    QX_ASSERT(MODULE, ctx.parser != nullptr);

    if (kiv_feed_file(location, ctx.zunf_buf, static_cast<std::size_t>(size), kiv_install_receive,
                      &ctx) == 0) {
        kiv_log(LOG_ERR, "install: failed to load ZUNF\n");
        return KIV_EXIT_ERR_ZUNF_LOAD;
    }
    if (zunf_stream_parser_get_status(ctx.parser) != ZUNF_SP_DONE) {
        kiv_log(LOG_ERR, "install: incomplete ZUNF\n");
        return KIV_EXIT_ERR_ZUNF_LOAD;
    }
    return 0;
}

// -product and -minver against the release header. Returns 0, or the exit code.
int check_release(const kiv_install_ctx &ctx) {
    const kiv_options *o = ctx.opts;
    const zunf_content_header *rh = release_header_part(ctx);
    if (rh != nullptr) {
        const zunf_release_header *rec = release_record(rh);
        const char *text =
            reinterpret_cast<const char *>(zunf_bytes(rh) + ZUNF_RELEASE_PART_HDR_LEN);
        // The text is shown up to its NUL, never beyond the part's body.
        const std::uint32_t room =
            rh->hdr_length.get() - ZUNF_RELEASE_PART_HDR_LEN + zunf_pad4(rh->body_length.get());
        kiv_log_both(LOG_NOTICE, "install: release %u.%u-%u, '%.*s'\n", rec->release_version_major,
                     rec->release_version_minor, rec->release_build_number.get(),
                     static_cast<int>(strnlen(text, room)), text);
    }
    if (o->product_set && !o->force) {
        if (rh == nullptr) {
            kiv_log(LOG_ERR, "Expected release header in ZUNF when using -product\n");
            return KIV_EXIT_ERR_PRODUCT;
        }
        if (kivl_match_model(rh, o->product) != 1) {
            kiv_log(LOG_ERR, "install: Release header does not contain model '%s'\n", o->product);
            return KIV_EXIT_ERR_PRODUCT;
        }
    }
    if (o->minver_set) {
        if (rh == nullptr) {
            kiv_log(LOG_ERR, "Expected release header in ZUNF when using -minver\n");
            return KIV_EXIT_ERR_MINVER;
        }
        if (kivl_check_minver(release_record(rh), o->minver_major, o->minver_minor,
                              o->minver_build) != 1) {
            kiv_log(LOG_ERR, "install: Version in release header lower than %u.%u-%u\n",
                    o->minver_major, o->minver_minor, o->minver_build);
            return KIV_EXIT_ERR_MINVER;
        }
    }
    return 0;
}

int meta_install(kiv_install_ctx &ctx) {
    const zunf_content_header *first = zunf_stream_parser_content_parts(ctx.parser)[0];
    // Reception planned from a release header, so the first part is there, and the 44
    // bytes behind its common header lie inside the image ahead of the kivm part.
    const void *rhdr = first != nullptr
                           ? static_cast<const void *>(zunf_bytes(first) + ZUNF_CONTENT_HDR_LEN)
                           : static_cast<const void *>(ctx.rhdr);
    int r = KIVL_META_INSTALL_ERR_NO_CONTENT;
    if (rhdr != nullptr)
        r = kivl_meta_install(ctx.kdata, ctx.setidx, rhdr, ctx.kivm,
                              zunf_stream_parser_content_parts(ctx.parser),
                              kiv_install_platform(ctx.opts), ctx.opts->force);
    if (r != KIVL_META_INSTALL_OK) {
        kiv_log(LOG_ERR, "install: meta install in hostconfig failed (%i), reason:\n", r);
        kiv_log(LOG_ERR, "%s", meta_install_reason(r));
        return KIV_EXIT_ERR_META_INSTALL;
    }
    if (ctx.opts->verbose) {
        kiv_log(LOG_DEBUG, "Result from kivl_meta_install: %i\n", r);
        kiv_dump(ctx.opts, ctx.kdata);
    }
    return 0;
}
} // namespace

const char *kiv_install_platform(const kiv_options *options) {
    return options->platform_set ? options->platform : options->product;
}

const zunf_content_header *kiv_install_elem_part(const kiv_install_ctx *ctx,
                                                 const kivl_kivm_elem &elem) {
    if (elem.cidx < 0 || elem.cidx >= static_cast<int>(ZUNF_MAX_PARTS)) return nullptr;
    return zunf_stream_parser_content_parts(ctx->parser)[elem.cidx];
}

int kiv_install(kiv_options *options) {
    QX_ASSERT(MODULE, options != nullptr);
    // Large records, one per run: kept off the stack of a small device.
    static kiv_install_ctx ctx;
    static kivl_data data;
    static hostconfig hc;
    std::memset(static_cast<void *>(&ctx), 0, sizeof ctx);
    ctx.state = KIV_RX_AWAIT_HEADER;
    ctx.kdata = &data;
    ctx.opts = options;

    if (options->nargs < 3) {
        kiv_log(LOG_ERR, "install: missing set idx?\n");
        return 1;
    }
    int requested;
    if (std::sscanf(options->args[2], "%i", &requested) != 1 || requested < AUTODETECT ||
        requested > 2) {
        kiv_log(LOG_ERR, "install: invalid set idx?\n");
        return 1;
    }
    // The hooks see the requested set from the start: 255 while it is to be autodetected.
    ctx.setidx = static_cast<std::uint8_t>(requested);

    if (load(options, &data, &hc) != 1) {
        kiv_log_both(LOG_NOTICE, "install: hostcfg loading failed.\n");
        const int rebuilt = rebuild_hostcfg(options, &data, &hc);
        if (kiv_install_hook_hcfg_fail != nullptr) {
            const int r = kiv_install_hook_hcfg_fail(&ctx, &hc, rebuilt);
            if (r != 0) {
                kiv_log(LOG_ERR, "kiv_install_hook_hcfg_fail returned non success (%i)\n", r);
                return r;
            }
        } else if (rebuilt != 1) {
            kiv_log(LOG_ERR, "install: rebuild of hostcfg failed\n");
            return 1;
        }
    }
    kivl_partpool_generate(&data);
    kiv_install_keep_loaded(&data);

    const char *location = options->args[1];
    const bool autodetected = requested == AUTODETECT;
    int setidx = requested;
    if (autodetected) {
        setidx = autodetect_set(data);
        if (setidx < 0) {
            kiv_log(LOG_ERR, "install: could not autodetect Set to install into\n");
            return 1;
        }
        kiv_log_both(LOG_NOTICE, "install: %s into autodetected set idx = %i\n", location, setidx);
    } else {
        kiv_log_both(LOG_NOTICE, "install: %s into set idx = %i\n", location, setidx);
    }
    ctx.setidx = static_cast<std::uint8_t>(setidx);

    if (is_url(location)) {
        kiv_log(LOG_ERR, "curl was not enabled at compile time, sorry.\n");
        return 1;
    }
    int r = receive_image(ctx, location);
    if (r == 0) r = check_release(ctx);
    if (r != 0) return r;
    if (kiv_install_hook_pre_metainstall != nullptr) {
        r = kiv_install_hook_pre_metainstall(&ctx, &hc);
        if (r != 0) return r;
    }
    r = meta_install(ctx);
    if (r == 0) r = kiv_install_prepare(&ctx);
    if (r != 0) return r;
    return kiv_install_commit(&ctx, &hc, autodetected);
}
