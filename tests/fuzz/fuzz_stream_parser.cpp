// The stream parser on an image arriving in arbitrary chunks, with skips asked at arbitrary
// points. Bytes not yet received are poisoned: reading one is reported like an overrun.
#include "fuzz_support.hpp"
#include "zunf/zunf_stream_parser.hpp"

FUZZ_IMAGE_MUTATOR(fuzz_chunked::prefix)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz_chunked in(data, size);
    // Every caller holds the 24 header bytes before the header step.
    if (in.size < ZUNF_SP_HDR_BYTES) return 0;
    std::unique_ptr<std::uint8_t[]> buf(new std::uint8_t[in.size]);
    ASAN_POISON_MEMORY_REGION(buf.get(), in.size);
    std::size_t fed = 0;
    auto receive = [&](std::size_t n) {
        n = std::min(n, in.size - fed);
        ASAN_UNPOISON_MEMORY_REGION(buf.get() + fed, n);
        std::memcpy(buf.get() + fed, in.data + fed, n);
        fed += n;
        return static_cast<std::uint32_t>(n);
    };

    zunf_stream_parser p;
    zunf_stream_parser_init(&p, buf.get());
    receive(std::max<std::size_t>(in.chunk(), ZUNF_SP_HDR_BYTES));
    int r = zunf_stream_parser_hdr(&p, static_cast<std::uint32_t>(fed));
    if (r == ZUNF_SP_HDR_OK) r = zunf_stream_parser_next(&p, 0);
    while (r == ZUNF_SP_MORE && fed < in.size) {
        std::size_t c = in.chunk();
        if (c == 0 && p.part_state == ZUNF_SP_PART_BODY) {
            // A reader that can resume goes on behind the skipped body.
            fed = zunf_stream_parser_skip(&p);
            if (zunf_stream_parser_get_status(&p) != ZUNF_SP_PARTS) break;
            continue;
        }
        r = zunf_stream_parser_next(&p, receive(c));
    }

    std::int32_t status = zunf_stream_parser_get_status(&p);
    FUZZ_CHECK(status == ZUNF_SP_PARTS || status == ZUNF_SP_DONE || status == ZUNF_SP_FAILED);
    if (status == ZUNF_SP_DONE) FUZZ_CHECK(p.offset == p.end_offset);
    FUZZ_CHECK(p.found_content_parts == p.valid_content_parts + p.invalid_content_parts);
    const std::size_t held = std::min(fed, in.size);
    for (int i = 0; i < static_cast<int>(ZUNF_MAX_PARTS); ++i) {
        const zunf_content_header *part = zunf_stream_parser_content_parts(&p)[i];
        FUZZ_CHECK((part == nullptr) == (zunf_stream_parser_content_part_is_valid(&p, i) == 0));
        // A completed part lies, header and body, inside what was received.
        if (part == nullptr) continue;
        std::size_t at = static_cast<std::size_t>(zunf_bytes(part) - buf.get());
        FUZZ_CHECK(at + part->hdr_length + part->body_length <= held);
    }
    return 0;
}
