// Reception: every chunk the reader places in the install buffer goes straight to the
// stream parser, and each content part is looked at the moment the parser completes it.
// The release metadata is planned as soon as the kivm part is in and late elements are
// decided by their software headers, so when the last byte arrives the image is validated
// and planned without a second pass. Nothing is copied: the release header, the kivm text
// and the software headers are used where they lie in the buffer.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "front/kiv_hooks.hpp"
#include "front/kiv_log.hpp"
#include "install/kiv_install.hpp"
#include "kivl/kivl.hpp"
#include "util/qx.hpp"

namespace {
constexpr const char *MODULE = "kiv";

// Bytes of a part from its start that the image is known to hold: header and padded body.
std::uint32_t part_extent(const zunf_content_header *p) {
    return p->hdr_length.get() + zunf_pad4(p->body_length.get());
}

bool elem_in_range(std::int32_t i) {
    return i >= 0 && i < static_cast<std::int32_t>(KIVM_MAX_ELEMS);
}

// Steps over the body of the part whose header was just accepted when the plan does not
// need it (kept elements). Only after planning ran, and only while the parser stands
// before that body. Returns true when it skipped.
bool skip_unneeded_body(kiv_install_ctx *ctx) {
    if (ctx->skip_enabled == 0 || ctx->kivm_count <= 0 || !elem_in_range(ctx->next_elem))
        return false;
    const kivl_kivm_elem &e = ctx->kivm[ctx->next_elem];
    if (e.used == 0 || e.cidx != zunf_stream_parser_get_found_content_part_headers(ctx->parser) - 1)
        return false;
    if (e.action == KIV_ACTION_WRITE || e.action == KIV_ACTION_LATE) return false;
    if (zunf_stream_parser_get_status(ctx->parser) != ZUNF_SP_PARTS ||
        ctx->parser->part_state != ZUNF_SP_PART_BODY)
        return false;
    kiv_log(LOG_INFO, "  %i should not be downloaded, SKIP\n", ctx->next_elem);
    ctx->state = KIV_RX_SKIPPED;
    ctx->resume_offset = zunf_stream_parser_skip(ctx->parser);
    // A body reaching past the image end makes the parser reject the image: reception fails
    // here, or the resumed reader's next chunk would meet a failed parser.
    if (zunf_stream_parser_get_status(ctx->parser) == ZUNF_SP_FAILED) {
        kiv_log(LOG_ERR, "zunf_stream_parser failed (r=%i).\n", ZUNF_SP_ERR_OVERRUN);
        ctx->state = KIV_RX_FAILED;
        return true;
    }
    ctx->next_elem += 1;
    std::snprintf(ctx->resume_range, sizeof ctx->resume_range, "%u-", ctx->resume_offset);
    return true;
}

// The kivm part is complete: parse it and run the first planning pass. Returns false
// (logged) when reception must fail.
bool plan_from_kivm(kiv_install_ctx *ctx, const zunf_content_header *p) {
    if (ctx->rhdr == nullptr) {
        kiv_log(LOG_ERR, "install: KIVM before RH\n");
        return false;
    }
    const std::uint32_t body_length = p->body_length.get();
    const char *body = reinterpret_cast<const char *>(zunf_bytes(p) + p->hdr_length.get());
    if (body_length == 0 || body[body_length - 1] != '\0') {
        kiv_log(LOG_ERR, "install: Content Part Body should be 0-terminated for KIVM content\n");
        return false;
    }
    ctx->kivm_count = kivl_parse_kivmd(ctx->kivm, KIVM_MAX_ELEMS, body);
    if (ctx->kivm_count <= 0) {
        kiv_log(LOG_ERR, "install: kivl_parse_kivmd failed: %i\n", ctx->kivm_count);
        return false;
    }
    const int r = kivl_meta_install_part1(ctx->kdata, ctx->setidx, ctx->rhdr, ctx->kivm,
                                          kiv_install_platform(ctx->opts), ctx->opts->force);
    if (r == KIVL_META_INSTALL_OK) {
        ctx->next_elem = 0;
        return true;
    }
    if (r == KIVL_META_INSTALL_ERR_SINGLETON) {
        kiv_log(LOG_ERR, "install: Can't install into singleton partitions without -f\n");
    } else {
        kiv_log(LOG_ERR, "install: kivl_meta_install_part1 failed: %i\n", r);
        kiv_log(LOG_ERR, "install: search kivl for KIVL_META_INSTALL_ERR_\n");
    }
    return false;
}

// Looks at part i, which the parser has just completed. Returns false (logged) when
// reception must fail.
bool examine_part(kiv_install_ctx *ctx, int i) {
    const int valid = zunf_stream_parser_content_part_is_valid(ctx->parser, i);
    if (valid < 0) {
        kiv_log(LOG_ERR, "install: content part %d not valid error\n", i);
        return false;
    }
    if (valid != 1) return true; // skipped: nothing of it is here
    const zunf_content_header *p = zunf_stream_parser_content_parts(ctx->parser)[i];
    QX_ASSERT(MODULE, p != nullptr);
    const std::uint8_t *typed = zunf_bytes(p) + ZUNF_CONTENT_HDR_LEN;

    switch (p->type_id.get()) {
    case ZUNF_TYPE_RELEASE_HEADER:
        if (p->hdr_length.get() >= ZUNF_RELEASE_PART_HDR_LEN)
            ctx->rhdr = reinterpret_cast<const zunf_release_header *>(typed);
        break;
    case ZUNF_TYPE_SOFTWARE:
        // A late element is decided by the version of its own content only; the version
        // must lie inside the part.
        if (elem_in_range(ctx->next_elem)) {
            kivl_kivm_elem &e = ctx->kivm[ctx->next_elem];
            if (e.action == KIV_ACTION_LATE && e.cidx == i &&
                part_extent(p) >= ZUNF_CONTENT_HDR_LEN + sizeof(kivl_version))
                late_action_update(ctx->kdata, &e, typed);
        }
        break;
    default:
        break;
    }
    if (elem_in_range(ctx->next_elem) && ctx->kivm[ctx->next_elem].cidx == i) ctx->next_elem += 1;
    if (std::strncmp(p->name, "kivm", ZUNF_NAME_LEN) == 0) return plan_from_kivm(ctx, p);
    return true;
}

// Hands the parser what arrived. Returns false (logged) when reception must fail.
bool feed_parser(kiv_install_ctx *ctx, std::uint32_t n) {
    std::uint32_t hand_on = n;
    switch (ctx->state) {
    case KIV_RX_AWAIT_HEADER: {
        const std::uint32_t held = static_cast<std::uint32_t>(ctx->received - ctx->hdr_consumed);
        if (held < ZUNF_SP_HDR_BYTES) return true;
        const int r = zunf_stream_parser_hdr(ctx->parser, ZUNF_SP_HDR_BYTES);
        if (r != ZUNF_SP_HDR_OK) {
            kiv_log(LOG_ERR, "zunf_stream_parser_hdr failed (%i).\n", r);
            return false;
        }
        ctx->hdr_consumed += ZUNF_SP_HDR_BYTES;
        ctx->zunf_hdr = reinterpret_cast<const zunf_image_header *>(ctx->zunf_buf + 8);
        ctx->state = KIV_RX_PARTS;
        // Every byte behind the header, also bytes of earlier chunks that stayed short of it.
        hand_on = held - ZUNF_SP_HDR_BYTES;
        break;
    }
    case KIV_RX_SKIPPED:
        ctx->state = KIV_RX_PARTS;
        break;
    case KIV_RX_PARTS:
        break;
    default:
        QX_ASSERT(MODULE, false); // called again after it failed
    }
    if (ctx->state != KIV_RX_PARTS || zunf_stream_parser_get_status(ctx->parser) == ZUNF_SP_DONE)
        return true;
    const int r = zunf_stream_parser_next(ctx->parser, hand_on);
    if (r < 0) {
        kiv_log(LOG_ERR, "zunf_stream_parser failed (r=%i).\n", r);
        return false;
    }
    return true;
}
} // namespace

std::size_t kiv_install_receive(void *data, std::size_t size, std::size_t count, void *context) {
    auto *ctx = static_cast<kiv_install_ctx *>(context);
    QX_ASSERT(MODULE, ctx != nullptr && ctx->zunf_buf != nullptr && ctx->parser != nullptr);
    QX_ASSERT(MODULE, data != nullptr);
    const std::size_t n = size * count;
    // The buffer has the file's size, which fits an int32.
    QX_ASSERT(MODULE, n <= static_cast<std::size_t>(ctx->zunf_size));
    const std::size_t refuse = n + 1;
    ctx->received += static_cast<std::int32_t>(n);

    if (kiv_install_hook_data_rcvd != nullptr) {
        const int r = kiv_install_hook_data_rcvd(ctx);
        if (r != 0) {
            kiv_log(LOG_ERR, "kiv_install_hook_data_rcvd failed (%i)\n", r);
            ctx->state = KIV_RX_FAILED;
            return refuse;
        }
    }
    if (!feed_parser(ctx, static_cast<std::uint32_t>(n))) {
        ctx->state = KIV_RX_FAILED;
        return refuse;
    }
    if (ctx->state == KIV_RX_PARTS && !skip_unneeded_body(ctx)) {
        const std::int32_t found = zunf_stream_parser_get_found_content_parts(ctx->parser);
        QX_ASSERT(MODULE, found >= ctx->parts_seen);
        for (int i = ctx->parts_seen; i < found; ++i) {
            if (!examine_part(ctx, i)) {
                ctx->state = KIV_RX_FAILED;
                return refuse;
            }
        }
        ctx->parts_seen = found;
    }
    return ctx->state == KIV_RX_SKIPPED || ctx->state == KIV_RX_FAILED ? refuse : n;
}
