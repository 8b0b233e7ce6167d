// Result codes kiv's messages fold together: check order, same outcome for every chunking.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "common/hcdecode.hpp"
#include "mkzunf/zunf_builder.hpp"
#include "zunf/zunf_stream_parser.hpp"
#include "zunf/zunf_validate.hpp"

namespace {

using mkzunf::Bytes;
using mkzunf::ImageBuilder;

TEST(ZunfValidate, ResultCodesInCheckOrder) {
    struct Row {
        bool part; // a content part with body "hello", else an image header
        int hdr_length, version, hdr_crc_flip, body_crc_flip, result;
    };
    const Row rows[] = {
        {false, 16, 1, 0, 0, ZUNF_VALID},          {false, 40, 1, 0, 0, ZUNF_VALID},
        {false, 15, 2, 1, 0, ZUNF_ERR_VERSION},    {false, 16, 0, 0, 0, ZUNF_ERR_VERSION},
        {false, 15, 1, 1, 0, ZUNF_ERR_HDR_LENGTH}, {false, 40, 1, 1, 0, ZUNF_ERR_HDR_CRC},
        {true, 32, 0, 0, 0, ZUNF_VALID},           {true, 64, 0, 0, 0, ZUNF_VALID},
        {true, 31, 0, 1, 1, ZUNF_ERR_HDR_LENGTH},  {true, 64, 0, 1, 1, ZUNF_ERR_HDR_CRC},
        {true, 32, 0, 0, 1, ZUNF_ERR_BODY_CRC},
    };
    for (const Row &r : rows) {
        Bytes b(69, 0);
        b[4] = static_cast<std::uint8_t>(r.version);
        hcdecode::put16(b, 6, static_cast<std::uint16_t>(r.hdr_length));
        hcdecode::put32(b, 8, 5);
        std::memcpy(b.data() + 64, "hello", 5);
        hcdecode::put32(b, 28, hcdecode::crc32({b.data() + 64, 5}) ^ r.body_crc_flip);
        const auto covered = static_cast<std::size_t>(std::max(r.hdr_length, r.part ? 32 : 16));
        hcdecode::put32(b, 0, hcdecode::crc32({b.data() + 4, covered - 4}) ^ r.hdr_crc_flip);
        EXPECT_EQ(r.part
                      ? zunf_validate_content_part(
                            reinterpret_cast<const zunf_content_header *>(b.data()), &b[64])
                      : zunf_validate_header(reinterpret_cast<const zunf_image_header *>(b.data())),
                  r.result)
            << r.part << " " << r.hdr_length;
    }
}

struct Outcome {
    int last, status, headers, found, valid;
    bool operator==(const Outcome &) const = default;
};

// Fed `step` bytes at a time over garbage; with `skip`, that part's body is skipped.
Outcome feed(const Bytes &image, std::size_t step, int skip = 0) {
    Bytes buf(image.size(), 0xA5);
    zunf_stream_parser p;
    zunf_stream_parser_init(&p, buf.data());
    int r = ZUNF_SP_MORE;
    for (std::size_t held = 0;
         held < image.size() && r == ZUNF_SP_MORE && p.status != ZUNF_SP_FAILED;) {
        const std::size_t n = std::min(step, image.size() - held);
        std::memcpy(buf.data() + held, image.data() + held, n);
        held += n;
        auto added = static_cast<std::uint32_t>(n);
        if (p.status == ZUNF_SP_INIT) {
            if (held < ZUNF_SP_HDR_BYTES) continue;
            if ((r = zunf_stream_parser_hdr(&p, ZUNF_SP_HDR_BYTES)) != ZUNF_SP_HDR_OK) break;
            added = static_cast<std::uint32_t>(held - ZUNF_SP_HDR_BYTES);
        }
        r = zunf_stream_parser_next(&p, added);
        if (p.found_content_part_headers == skip && p.part_state == ZUNF_SP_PART_BODY) {
            held = zunf_stream_parser_skip(&p);
            skip = 0;
        }
    }
    return {r, p.status, p.found_content_part_headers, p.found_content_parts,
            p.valid_content_parts};
}

ImageBuilder release() {
    ImageBuilder b;
    b.add_release_header({2, 7, 301}, 1700000000, "b", "products=alpha\n").add_kivm("p,x\n");
    b.add_software("rootfs", {2, 7, 301}, "sw", mkzunf::to_bytes("abcde")).add_data("e", {});
    return b.add_software("kernel", {1, 0, 9}, "sw", mkzunf::to_bytes("xyz"));
}

Bytes parts(int n) {
    ImageBuilder b;
    for (int i = 0; i < n; ++i)
        b.add_data("p", Bytes(static_cast<std::size_t>(i % 5), 'q'));
    return b.build();
}

TEST(ZunfStreamParser, ResultOfEveryChunking) {
    Bytes overrun = release().build(), unpadded = overrun, huge = overrun, huge_part = overrun;
    hcdecode::put32(overrun, 16, hcdecode::get32(overrun, 16) - 4); // image body_length
    unpadded.pop_back(); // the last body lacks its padding byte
    hcdecode::put32(huge, 16, 0xFFFFFFFFu);
    auto *first = reinterpret_cast<zunf_content_header *>(huge_part.data() + 24);
    first->body_length = 0xFFFFFFFDu;
    first->hdr_crc = hcdecode::crc32({zunf_bytes(first) + 4, first->hdr_length - 4u});
    struct Row {
        const char *name;
        Bytes image;
        Outcome outcome;
        int skip = 0; // fed one byte at a time, the body of that part skipped
    };
    const int DONE = ZUNF_SP_DONE, PARTS = ZUNF_SP_PARTS, FAILED = ZUNF_SP_FAILED;
    const Row rows[] = {
        {"release", release().build(), {0, DONE, 5, 5, 5}},
        {"20 parts", parts(20), {0, DONE, 20, 20, 20}},
        {"21 parts", parts(21), {-6, FAILED, 20, 20, 20}},
        {"magic, second half", release().fault_bad_magic(2).build(), {-3, FAILED, 0, 0, 0}},
        {"version 2", release().fault_version(2).build(), {-5, FAILED, 0, 0, 0}},
        {"image hdr 20", release().fault_image_hdr_length(20).build(), {-1, FAILED, 0, 0, 0}},
        {"part hdr 31", release().fault_part_hdr_length(1, 31).build(), {-1, FAILED, 1, 1, 1}},
        {"parts overrun the image by 4", overrun, {-5, FAILED, 5, 5, 5}},
        {"last padding missing", unpadded, {2, PARTS, 5, 4, 4}},
        {"image end past 4 GiB", huge, {2, PARTS, 5, 5, 5}},
        {"part body past 4 GiB", huge_part, {2, PARTS, 1, 0, 0}},
        {"skip part 2", release().build(), {0, DONE, 5, 5, 4}, 3},
        {"skip the last part", release().build(), {2, DONE, 5, 5, 4}, 5},
        {"skip the 20th part", parts(21), {2, FAILED, 20, 20, 19}, 20},
        {"skip past the image end", overrun, {2, FAILED, 5, 4, 4}, 5},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        for (std::size_t step = 1; step <= (r.skip ? 1 : r.image.size()); ++step)
            ASSERT_EQ(feed(r.image, step, r.skip), r.outcome) << "chunks of " << step;
    }
}

} // namespace
