#include "tools/zunfinfo.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "front/kiv_helpers.hpp"
#include "front/kiv_log.hpp"
#include "util/fnfile.hpp"
#include "util/qx.hpp"

namespace {

constexpr const char *MODULE = "kiv";
constexpr const char *ALL_WORD = "-all";
constexpr std::size_t ALL_WORD_LEN = 4; // anything after "-all" is not compared
constexpr const char *SEPARATOR = "-------------------------------------------------------\n";
constexpr const char *NULL_PART = "WARNING: CONTENT PART IS NULL! Skipping.\n";

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};

struct zunfinfo_ctx {
    kiv_options *options;
    zunf_stream_parser *parser;
    std::size_t size;
    int first_only;
};

// Chunk consumer for kiv_feed_file: `buffer` is the start of the image buffer and the
// count new bytes lie behind those handed over before. Returns count to go on reading,
// 0 to stop.
std::size_t zunfinfo_consume(void *buffer, std::size_t size, std::size_t count, void *context) {
    auto *ctx = static_cast<zunfinfo_ctx *>(context);
    QX_ASSERT(MODULE, ctx != nullptr && buffer != nullptr);
    zunf_stream_parser *parser = ctx->parser;
    // A chunk never exceeds the buffer, whose size the -zunfsize limit keeps in 32 bits.
    std::size_t len = size * count;
    int r;
    switch (zunf_stream_parser_get_status(parser)) {
    case ZUNF_SP_INIT:
        // The header step needs the magic and image header whole in the first chunk.
        if (len <= ZUNF_SP_HDR_BYTES || zunf_stream_parser_hdr(parser, ZUNF_SP_HDR_BYTES) != 1) {
            kiv_log(LOG_ERR, "zunfinfo: no header\n");
            return 0;
        }
        r = zunf_stream_parser_next(parser, static_cast<std::uint32_t>(len - ZUNF_SP_HDR_BYTES));
        break;
    case ZUNF_SP_PARTS:
        r = zunf_stream_parser_next(parser, static_cast<std::uint32_t>(len));
        break;
    default:
        kiv_log(LOG_ERR, "zunfinfo: PARSER failed\n");
        return 0;
    }
    if (ctx->first_only && zunf_stream_parser_get_found_content_part_headers(parser) > 0) {
        const zunf_content_header *first = zunf_stream_parser_content_parts(parser)[0];
        if (first != nullptr && first->type_id == ZUNF_TYPE_RELEASE_HEADER)
            return 0; // the release header is complete: nothing more to read
    }
    return r == ZUNF_SP_MORE ? len : 0;
}

const zunf_content_header *slot(const zunf_stream_parser *parser, int i) {
    QX_ASSERT(MODULE, i >= 0 && i < static_cast<int>(ZUNF_MAX_PARTS));
    return zunf_stream_parser_content_parts(parser)[i];
}

// The type-specific header at part offset 32, taken whatever hdr_length says. A hostile
// part may claim a type without the header bytes behind it; only bytes the parser holds
// are copied, the rest reads as zero, as the unfilled part of a zeroed buffer would.
template <typename T>
T type_header(const zunf_stream_parser *parser, const zunf_content_header *part) {
    T rec{};
    const std::uint8_t *from = zunf_bytes(part) + ZUNF_CONTENT_HDR_LEN;
    std::size_t at = static_cast<std::size_t>(from - parser->buffer);
    std::size_t held = parser->available > at ? parser->available - at : 0;
    std::memcpy(&rec, from, std::min(sizeof rec, held));
    return rec;
}

} // namespace

void zunf_content_info_print(const zunf_stream_parser *parser, int i) {
    QX_ASSERT(MODULE, parser != nullptr);
    qx_printf("valid...................: %i\n",
              zunf_stream_parser_content_part_is_valid(parser, i));
    qx_printf("covered_by_signature....: %i\n", parser->info[i].covered_by_signature);
    qx_printf("validated_by_signature..: %i\n", parser->info[i].validated_by_signature);
}

void zunf_release_header_print(const zunf_stream_parser *parser, int i) {
    QX_ASSERT(MODULE, parser != nullptr);
    const zunf_content_header *part = slot(parser, i);
    if (part == nullptr) {
        qx_printf("%s", NULL_PART);
        return;
    }
    auto rh = type_header<zunf_release_header>(parser, part);
    qx_printf("release_version_major..: %i\n", rh.release_version_major);
    qx_printf("release_version_minor..: %i\n", rh.release_version_minor);
    qx_printf("release_build_number...: %i\n", rh.release_build_number.get());
    qx_printf("release_date...........: %i\n", static_cast<std::int32_t>(rh.release_date.get()));
    qx_printf("release_build_id.......: %.*s\n", static_cast<int>(sizeof rh.release_build_id),
              rh.release_build_id);
}

void zunf_content_software_print(const zunf_stream_parser *parser, int i) {
    QX_ASSERT(MODULE, parser != nullptr);
    const zunf_content_header *part = slot(parser, i);
    if (part == nullptr) {
        qx_printf("%s", NULL_PART);
        return;
    }
    auto sw = type_header<zunf_software_header>(parser, part);
    qx_printf("sw_version_major..: %i\n", sw.sw_version_major);
    qx_printf("sw_version_minor..: %i\n", sw.sw_version_minor);
    qx_printf("sw_build_number...: %i\n", sw.sw_build_number.get());
    qx_printf("sw_build_id.......: %.*s\n", static_cast<int>(sizeof sw.sw_build_id),
              sw.sw_build_id);
}

int kiv_zunfinfo(kiv_options *options) {
    QX_ASSERT(MODULE, options != nullptr);
    const char *path = options->nargs > 1 ? options->args[1] : nullptr;
    if (path == nullptr) {
        kiv_log(LOG_ERR, "zunfinfo: ZUNF is missing.\n");
        return ZUNFINFO_EXIT_ERR;
    }
    std::int32_t file_size = fnsize(path);
    if (file_size < 0) {
        kiv_log(LOG_ERR, "zunfinfo: could not open ZUNF\n");
        return ZUNFINFO_EXIT_ERR_OPEN;
    }
    if (file_size == 0) {
        kiv_log(LOG_ERR, "zunfinfo: empty ZUNF\n");
        return ZUNFINFO_EXIT_ERR_LOAD;
    }
    if (static_cast<std::uint32_t>(file_size) > options->zunfsize) {
        kiv_log(LOG_ERR, "zunfinfo: ZUNF too big\n");
        return ZUNFINFO_EXIT_ERR_LOAD;
    }

    const char *mode = options->nargs > 2 ? options->args[2] : nullptr;
    bool all = mode != nullptr && std::strncmp(mode, ALL_WORD, ALL_WORD_LEN) == 0;
    zunfinfo_ctx ctx{};
    ctx.options = options;
    ctx.size = all ? static_cast<std::size_t>(file_size) : ZUNFINFO_FIRST_BYTES;
    ctx.first_only = all ? 0 : 1;

    std::unique_ptr<std::uint8_t, FreeDeleter> buffer(
        static_cast<std::uint8_t *>(std::calloc(ctx.size, 1)));
    if (!buffer) {
        kiv_log(LOG_ERR, "zunfinfo: Could not allocated memory.\n");
        return ZUNFINFO_EXIT_ERR;
    }
    std::unique_ptr<zunf_stream_parser, zunf_stream_parser_deleter> parser(
        zunf_stream_parser_init(nullptr, buffer.get()));
    if (!parser) {
        kiv_log(LOG_ERR, "zunfinfo: zunf_stream_parser_init failed.\n");
        return ZUNFINFO_EXIT_ERR;
    }
    ctx.parser = parser.get();

    std::size_t fed = kiv_feed_file(path, buffer.get(), ctx.size, zunfinfo_consume, &ctx);
    std::int32_t status = zunf_stream_parser_get_status(parser.get());
    if (status == ZUNF_SP_INIT && fed == 0) {
        kiv_log(LOG_ERR, "zunfinfo: File contains no data.\n");
        return ZUNFINFO_EXIT_ERR_LOAD;
    }
    if (status < 0) {
        kiv_log(LOG_ERR, "zunfinfo: loading ZUNF failed.\n");
        return ZUNFINFO_EXIT_ERR_LOAD;
    }

    // In -all mode the count of valid parts is listed from slot 0 on, whatever each
    // slot's validity: an invalid part among them is shown with valid -1.
    int n = ctx.first_only ? 1 : zunf_stream_parser_get_valid_content_parts(parser.get());
    const zunf_content_header *const *parts = zunf_stream_parser_content_parts(parser.get());
    for (int i = 0; i < n; ++i) {
        qx_printf("%s", SEPARATOR);
        const zunf_content_header *part = parts[i];
        if (part == nullptr) {
            qx_printf("%s", NULL_PART);
            continue;
        }
        unsigned type = part->type_id;
        qx_printf("Content Part: %i, type %d, name %.*s\n", i, static_cast<int>(type),
                  static_cast<int>(ZUNF_NAME_LEN), part->name);
        zunf_content_info_print(parser.get(), i);
        if (type == ZUNF_TYPE_RELEASE_HEADER)
            zunf_release_header_print(parser.get(), i);
        else if (type == ZUNF_TYPE_SOFTWARE)
            zunf_content_software_print(parser.get(), i);
    }
    return ZUNFINFO_EXIT_OK;
}
