// The stream parser must give the same answer however the image is cut into chunks, must
// never look at bytes it has not been told about, and must reject hostile images with a
// result instead of reading or storing out of bounds.
#include "zunf/zunf_stream_parser.hpp"

#include <gtest/gtest.h>

#include "common/cat.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "mkzunf/zunf_builder.hpp"
#include "util/crc32.hpp"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace {

using mkzunf::Bytes;
using mkzunf::ImageBuilder;

// A caller's buffer whose bytes beyond what has been announced to the parser are garbage
// and, under AddressSanitizer, unreadable: a read ahead of `available` either trips the
// sanitizer or changes a CRC and thereby the outcome.
class ArrivalBuffer {
  public:
    explicit ArrivalBuffer(std::size_t size) : bytes_(std::max<std::size_t>(size, 1), 0xA5) {
        fence(0);
    }
    ~ArrivalBuffer() { fence(bytes_.size()); }
    ArrivalBuffer(const ArrivalBuffer &) = delete;
    ArrivalBuffer &operator=(const ArrivalBuffer &) = delete;

    std::uint8_t *data() { return bytes_.data(); }
    // Places image bytes [from, from + n) at the same offset; only they become readable.
    void arrive(const Bytes &image, std::size_t from, std::size_t n) {
        fence(bytes_.size());
        std::copy_n(image.begin() + static_cast<std::ptrdiff_t>(from), n,
                    bytes_.begin() + static_cast<std::ptrdiff_t>(from));
        fence(from + n);
    }

  private:
    void fence([[maybe_unused]] std::size_t readable) {
#if defined(__SANITIZE_ADDRESS__)
        __asan_unpoison_memory_region(bytes_.data(), bytes_.size());
        __asan_poison_memory_region(bytes_.data() + readable, bytes_.size() - readable);
#endif
    }

    Bytes bytes_;
};

// Everything a caller can observe after feeding, with part headers as buffer offsets.
struct Outcome {
    int last = 0;
    bool only_more_before_last = true;
    std::int32_t status = 0;
    std::int32_t found = 0, valid = 0, invalid = 0, headers = 0;
    std::array<std::int64_t, ZUNF_MAX_PARTS> slots{};
    std::array<int, ZUNF_MAX_PARTS> flags{};
    bool operator==(const Outcome &) const = default;
};

Outcome observe(const zunf_stream_parser &p, const std::uint8_t *buffer, int last, bool only_more) {
    Outcome o{last,
              only_more,
              zunf_stream_parser_get_status(&p),
              zunf_stream_parser_get_found_content_parts(&p),
              zunf_stream_parser_get_valid_content_parts(&p),
              p.invalid_content_parts,
              zunf_stream_parser_get_found_content_part_headers(&p)};
    const zunf_content_header *const *parts = zunf_stream_parser_content_parts(&p);
    for (std::size_t i = 0; i < ZUNF_MAX_PARTS; ++i) {
        o.slots[i] = parts[i] ? zunf_bytes(parts[i]) - buffer : -1;
        o.flags[i] = zunf_stream_parser_content_part_is_valid(&p, static_cast<int>(i));
    }
    return o;
}

// Field by field: the record's padding bytes carry no meaning.
bool same_record(const zunf_stream_parser &a, const zunf_stream_parser &b) {
    bool same = a.status == b.status && a.buffer == b.buffer && a.header == b.header &&
                a.offset == b.offset && a.current == b.current && a.index == b.index &&
                a.available == b.available && a.end_offset == b.end_offset &&
                a.found_content_parts == b.found_content_parts &&
                a.valid_content_parts == b.valid_content_parts &&
                a.invalid_content_parts == b.invalid_content_parts &&
                a.found_content_part_headers == b.found_content_part_headers &&
                a.part_state == b.part_state;
    for (std::size_t i = 0; i < ZUNF_MAX_PARTS; ++i)
        same = same && a.content_parts[i] == b.content_parts[i] &&
               a.info[i].valid == b.info[i].valid &&
               a.info[i].covered_by_signature == b.info[i].covered_by_signature &&
               a.info[i].validated_by_signature == b.info[i].validated_by_signature;
    return same;
}

// Feeds the image the way both callers do: nothing until 24 bytes are held, then the
// header step with 24 and next with the rest held so far, then every chunk whole.
// The first chunk is `first` bytes, every later one `step` bytes.
Outcome feed(const Bytes &image, std::size_t first, std::size_t step) {
    ArrivalBuffer buf(image.size());
    zunf_stream_parser p;
    EXPECT_EQ(zunf_stream_parser_init(&p, buf.data()), &p);
    std::size_t held = 0;
    std::vector<int> results;
    while (held < image.size()) {
        std::size_t n = std::min(held == 0 ? first : step, image.size() - held);
        buf.arrive(image, held, n);
        held += n;
        int r;
        if (p.status == ZUNF_SP_INIT) {
            if (held < ZUNF_SP_HDR_BYTES) continue;
            r = zunf_stream_parser_hdr(&p, ZUNF_SP_HDR_BYTES);
            results.push_back(r);
            if (r != ZUNF_SP_HDR_OK) break;
            r = zunf_stream_parser_next(&p, static_cast<std::uint32_t>(held - ZUNF_SP_HDR_BYTES));
        } else {
            r = zunf_stream_parser_next(&p, static_cast<std::uint32_t>(n));
        }
        results.push_back(r);
        if (r != ZUNF_SP_MORE) break;
        // Being told about nothing new changes nothing.
        zunf_stream_parser before = p;
        EXPECT_EQ(zunf_stream_parser_next(&p, 0), ZUNF_SP_MORE);
        EXPECT_TRUE(same_record(before, p));
    }
    int last = results.empty() ? 0 : results.back();
    bool only_more = results.empty() || std::all_of(results.begin(), results.end() - 1, [](int r) {
                         return r == ZUNF_SP_MORE || r == ZUNF_SP_HDR_OK;
                     });
    return observe(p, buf.data(), last, only_more);
}

// Header offsets of the first `count` parts of an image, walked independently of the parser.
std::vector<std::int64_t> part_offsets(const Bytes &image, std::size_t count) {
    std::vector<std::int64_t> offs;
    std::size_t off = ZUNF_FIRST_PART_OFFSET;
    for (std::size_t i = 0; i < count; ++i) {
        offs.push_back(static_cast<std::int64_t>(off));
        const auto *h = reinterpret_cast<const zunf_content_header *>(image.data() + off);
        off += zunf_pad4(h->hdr_length + h->body_length);
    }
    return offs;
}

zunf_image_header &image_header(Bytes &image) {
    return *reinterpret_cast<zunf_image_header *>(image.data() + ZUNF_MAGIC_LEN);
}

// Gives part `index` a body length that cannot be padded in 32 bits, header CRC kept valid.
Bytes with_huge_part_body(Bytes image, std::size_t index) {
    auto &h = *reinterpret_cast<zunf_content_header *>(image.data() +
                                                       part_offsets(image, index + 1).back());
    h.body_length = 0xFFFFFFFDu;
    h.hdr_crc = crc32_calc(0, zunf_bytes(&h) + 4, h.hdr_length - 4u);
    return image;
}

Bytes text(std::string_view s) {
    return mkzunf::to_bytes(s);
}

ImageBuilder release_image() {
    ImageBuilder b;
    b.add_release_header({2, 7, 301}, 1700000000, "build-2.7.301", "products=alpha,beta\nfirst");
    b.add_kivm("pool,part,x\n");
    b.add_software("rootfs", {2, 7, 301}, "sw-1", text("abcde"));
    b.add_data("empty", {});
    b.add_software("kernel", {1, 0, 9}, "sw-2", text("xyz"));
    return b;
}

Bytes parts_image(std::size_t n) {
    ImageBuilder b;
    for (std::size_t i = 0; i < n; ++i)
        b.add_data(cat("p", std::to_string(i)), text(std::string(i % 5, 'q')));
    return b.build();
}

struct Case {
    const char *name;
    Bytes image;
    int last;
    std::int32_t status;
    std::int32_t headers;
    // Per part: '1' body valid, '-' body CRC failed; found/valid/invalid follow from it.
    std::string flags;
};

std::vector<Case> cases() {
    Bytes swapped = release_image().build();
    std::copy_n(ZUNF_MAGIC + 4, 4, swapped.begin());
    // The parts run 4 bytes past what the image header says the body holds.
    Bytes overrun = release_image().build();
    image_header(overrun).body_length = image_header(overrun).body_length - 4u;
    // The last body (3 bytes) lacks its padding byte: the image can never complete.
    Bytes unpadded = release_image().build();
    unpadded.pop_back();
    // Image end beyond 4 GiB: held at the largest offset, the parts parse, the image waits.
    Bytes huge_image = release_image().build();
    image_header(huge_image).body_length = 0xFFFFFFFFu;
    // A body spanning many chunks of every size.
    Bytes content(3001);
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<std::uint8_t>(i * 7 + 3);

    const std::string twenty(20, '1');
    return {
        {"release image", release_image().build(), ZUNF_SP_COMPLETE, ZUNF_SP_DONE, 5, "11111"},
        {"single empty part", ImageBuilder().add_data("e", {}).build(), ZUNF_SP_COMPLETE,
         ZUNF_SP_DONE, 1, "1"},
        {"large body",
         ImageBuilder()
             .add_release_header({1, 2, 3}, 5, "b", "t")
             .add_software("big", {1, 2, 3}, "x", content)
             .build(),
         ZUNF_SP_COMPLETE, ZUNF_SP_DONE, 2, "11"},
        {"twenty parts", parts_image(20), ZUNF_SP_COMPLETE, ZUNF_SP_DONE, 20, twenty},
        {"body crc of part 2 fails", release_image().fault_part_body_crc(2).build(),
         ZUNF_SP_COMPLETE, ZUNF_SP_DONE, 5, "11-11"},
        {"bad magic first half", release_image().fault_bad_magic(1).build(), ZUNF_SP_ERR_MAGIC,
         ZUNF_SP_FAILED, 0, ""},
        {"bad magic second half", release_image().fault_bad_magic(2).build(), ZUNF_SP_ERR_MAGIC,
         ZUNF_SP_FAILED, 0, ""},
        {"second half of magic first", swapped, ZUNF_SP_ERR_MAGIC, ZUNF_SP_FAILED, 0, ""},
        {"version 2", release_image().fault_version(2).build(), ZUNF_SP_ERR_VERSION, ZUNF_SP_FAILED,
         0, ""},
        {"part hdr_length 31", release_image().fault_part_hdr_length(1, 31).build(),
         ZUNF_SP_ERR_PART_HDR_LENGTH, ZUNF_SP_FAILED, 1, "1"},
        {"part hdr_length 0", release_image().fault_part_hdr_length(0, 0).build(),
         ZUNF_SP_ERR_PART_HDR_LENGTH, ZUNF_SP_FAILED, 0, ""},
        {"part 3 header crc", release_image().fault_part_hdr_crc(3).build(),
         ZUNF_SP_ERR_PART_HDR_CRC, ZUNF_SP_FAILED, 3, "111"},
        {"parts overrun the image by 4", overrun, ZUNF_SP_ERR_OVERRUN, ZUNF_SP_FAILED, 5, "11111"},
        {"last padding missing", unpadded, ZUNF_SP_MORE, ZUNF_SP_PARTS, 5, "1111"},
        {"twenty-one parts", parts_image(21), ZUNF_SP_ERR_TOO_MANY_PARTS, ZUNF_SP_FAILED, 20,
         twenty},
        {"image body_length 4 GiB", huge_image, ZUNF_SP_MORE, ZUNF_SP_PARTS, 5, "11111"},
        // A part claiming a body that cannot be padded in 32 bits must simply wait for it.
        {"part body_length near 4 GiB", with_huge_part_body(release_image().build(), 1),
         ZUNF_SP_MORE, ZUNF_SP_PARTS, 2, "1"},
    };
}

TEST(ZunfStreamParser, EveryImageInEveryChunkingGivesItsExpectedOutcome) {
    for (const Case &c : cases()) {
        SCOPED_TRACE(c.name);
        Outcome whole = feed(c.image, c.image.size(), c.image.size());
        EXPECT_EQ(whole.last, c.last);
        EXPECT_EQ(whole.status, c.status);
        EXPECT_EQ(whole.headers, c.headers);
        EXPECT_EQ(whole.found, static_cast<std::int32_t>(c.flags.size()));
        EXPECT_EQ(whole.valid, std::count(c.flags.begin(), c.flags.end(), '1'));
        EXPECT_EQ(whole.invalid, std::count(c.flags.begin(), c.flags.end(), '-'));
        auto offs = part_offsets(c.image, c.flags.size());
        for (std::size_t i = 0; i < ZUNF_MAX_PARTS; ++i) {
            bool found = i < c.flags.size();
            EXPECT_EQ(whole.flags[i], !found ? 0 : c.flags[i] == '1' ? 1 : -1) << "part " << i;
            EXPECT_EQ(whole.slots[i], found ? offs[i] : -1) << "part " << i;
        }

        for (std::size_t step = 1; step <= c.image.size(); ++step) {
            Outcome o = feed(c.image, step, step);
            ASSERT_EQ(o, whole) << "chunks of " << step;
            EXPECT_TRUE(o.only_more_before_last) << "chunks of " << step;
        }
        // The reader's pattern: one first chunk of any size from 24, then the rest.
        for (std::size_t first = ZUNF_SP_HDR_BYTES; first <= c.image.size(); ++first)
            ASSERT_EQ(feed(c.image, first, c.image.size()), whole) << "first chunk " << first;
    }
}

TEST(ZunfStreamParser, SkipStepsOverABodyOrRejectsTheImage) {
    const Bytes release = release_image().build(), many = parts_image(21);
    const auto offs = part_offsets(release, 5);
    Bytes short_body = release_image().build();
    image_header(short_body).body_length = image_header(short_body).body_length - 4u;
    const std::uint32_t stays = 0; // the offset does not move
    struct Row {
        const char *name;
        Bytes image;
        std::int32_t headers; // fed one byte at a time until this many were accepted
        std::uint32_t resume; // skip's result
        std::int32_t status, found;
    } rows[] = {
        {"middle part", release, 3, static_cast<std::uint32_t>(offs[3]), ZUNF_SP_PARTS, 3},
        {"last part", release, 5, static_cast<std::uint32_t>(release.size()), ZUNF_SP_DONE, 5},
        {"twentieth part short of the end", many, 20,
         static_cast<std::uint32_t>(part_offsets(many, 21)[20]), ZUNF_SP_FAILED, 20},
        {"image body 4 bytes short", short_body, 5, stays, ZUNF_SP_FAILED, 4},
        {"last body near 4 GiB", with_huge_part_body(release, 4), 5, stays, ZUNF_SP_FAILED, 4},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const Bytes &image = row.image;
        ArrivalBuffer buf(image.size());
        zunf_stream_parser p;
        zunf_stream_parser_init(&p, buf.data());
        std::size_t held = ZUNF_SP_HDR_BYTES;
        buf.arrive(image, 0, held);
        ASSERT_EQ(zunf_stream_parser_hdr(&p, ZUNF_SP_HDR_BYTES), ZUNF_SP_HDR_OK);
        ASSERT_EQ(zunf_stream_parser_next(&p, 0), ZUNF_SP_MORE);
        while (p.found_content_part_headers < row.headers && held < image.size()) {
            buf.arrive(image, held++, 1);
            ASSERT_EQ(zunf_stream_parser_next(&p, 1), ZUNF_SP_MORE);
        }
        ASSERT_EQ(p.part_state, ZUNF_SP_PART_BODY);
        const std::uint32_t at = p.offset;

        const std::uint32_t resume = zunf_stream_parser_skip(&p);
        EXPECT_EQ(resume, row.resume == stays ? at : row.resume);
        EXPECT_EQ(zunf_stream_parser_get_status(&p), row.status);
        EXPECT_EQ(zunf_stream_parser_get_found_content_parts(&p), row.found);
        if (row.status == ZUNF_SP_FAILED) continue;
        // The skipped part counts as found and invalid, with neither slot nor flag.
        const int skipped = row.headers - 1;
        EXPECT_EQ(zunf_stream_parser_get_valid_content_parts(&p), row.found - 1);
        EXPECT_EQ(zunf_stream_parser_content_parts(&p)[skipped], nullptr);
        EXPECT_EQ(zunf_stream_parser_content_part_is_valid(&p, skipped), 0);
        if (row.status == ZUNF_SP_DONE) {
            EXPECT_EQ(p.part_state, ZUNF_SP_PART_IMAGE_END);
            continue;
        }
        // The skipped bytes count as never received; feeding resumes behind them.
        EXPECT_EQ(p.available, resume);
        EXPECT_EQ(p.part_state, ZUNF_SP_PART_START);
        zunf_stream_parser before = p;
        EXPECT_EQ(zunf_stream_parser_next(&p, 0), ZUNF_SP_MORE);
        EXPECT_TRUE(same_record(before, p));
        buf.arrive(image, resume, image.size() - resume);
        EXPECT_EQ(zunf_stream_parser_next(&p, static_cast<std::uint32_t>(image.size() - resume)),
                  ZUNF_SP_COMPLETE);
        Outcome o = observe(p, buf.data(), ZUNF_SP_COMPLETE, true);
        EXPECT_EQ(o.found, 5);
        EXPECT_EQ(o.valid, 4);
        EXPECT_EQ(o.invalid, 1);
        EXPECT_EQ(o.slots[2], -1);
        EXPECT_EQ(o.slots[4], offs[4]);
    }
}

TEST(ZunfStreamParser, HeaderStepPlacesTheFirstPartBehindTheClaimedHeaderLength) {
    Bytes image = release_image().fault_image_hdr_length(20).build();
    ArrivalBuffer buf(image.size());
    buf.arrive(image, 0, image.size());
    zunf_stream_parser p;
    zunf_stream_parser_init(&p, buf.data());
    EXPECT_EQ(zunf_stream_parser_hdr(&p, 30), ZUNF_SP_HDR_OK);
    EXPECT_EQ(p.offset, 28u);
    EXPECT_EQ(p.available, 30u);
    EXPECT_EQ(p.header, reinterpret_cast<const zunf_image_header *>(buf.data() + 8));
    EXPECT_EQ(p.status, ZUNF_SP_PARTS);
}

TEST(ZunfStreamParser, InitResetsARecordAndAllocatesWhenGivenNone) {
    std::uint8_t buffer[4] = {};
    zunf_stream_parser reset{};
    reset.status = ZUNF_SP_INIT;
    reset.buffer = buffer;
    zunf_stream_parser dirty;
    std::memset(static_cast<void *>(&dirty), 0x5A, sizeof dirty);
    ASSERT_EQ(zunf_stream_parser_init(&dirty, buffer), &dirty);
    EXPECT_TRUE(same_record(dirty, reset));
    std::unique_ptr<zunf_stream_parser, zunf_stream_parser_deleter> fresh(
        zunf_stream_parser_init(nullptr, buffer));
    ASSERT_NE(fresh, nullptr);
    EXPECT_TRUE(same_record(*fresh, reset));
}

TEST(ZunfStreamParserDeathTest, MisuseIsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Bytes image = release_image().build();
    Bytes buffer = image;
    zunf_stream_parser fresh;
    zunf_stream_parser_init(&fresh, buffer.data());
    zunf_stream_parser parsing = fresh; // part_state 0: no part header yet
    ASSERT_EQ(zunf_stream_parser_hdr(&parsing, 24), ZUNF_SP_HDR_OK);
    zunf_stream_parser done = parsing;
    ASSERT_EQ(zunf_stream_parser_next(&done, static_cast<std::uint32_t>(image.size() - 24)),
              ZUNF_SP_COMPLETE);
    zunf_stream_parser failed = fresh;
    buffer[0] = 'x';
    ASSERT_EQ(zunf_stream_parser_hdr(&failed, 24), ZUNF_SP_ERR_MAGIC);

    const std::pair<const char *, std::function<void()>> misuses[] = {
        {"init without buffer", [] { zunf_stream_parser_init(nullptr, nullptr); }},
        {"hdr without record", [] { zunf_stream_parser_hdr(nullptr, 24); }},
        {"hdr with 23 bytes", [&] { zunf_stream_parser_hdr(&fresh, 23); }},
        {"hdr twice", [&] { zunf_stream_parser_hdr(&parsing, 24); }},
        {"next without record", [] { zunf_stream_parser_next(nullptr, 0); }},
        {"next before hdr", [&] { zunf_stream_parser_next(&fresh, 0); }},
        {"next when done", [&] { zunf_stream_parser_next(&done, 0); }},
        {"next when failed", [&] { zunf_stream_parser_next(&failed, 0); }},
        {"skip without record", [] { zunf_stream_parser_skip(nullptr); }},
        {"skip before hdr", [&] { zunf_stream_parser_skip(&fresh); }},
        {"skip outside a body", [&] { zunf_stream_parser_skip(&parsing); }},
        {"skip when done", [&] { zunf_stream_parser_skip(&done); }},
        {"get_status", [] { zunf_stream_parser_get_status(nullptr); }},
        {"content_parts", [] { zunf_stream_parser_content_parts(nullptr); }},
        {"found parts", [] { zunf_stream_parser_get_found_content_parts(nullptr); }},
        {"valid parts", [] { zunf_stream_parser_get_valid_content_parts(nullptr); }},
        {"found headers", [] { zunf_stream_parser_get_found_content_part_headers(nullptr); }},
        {"is_valid without record", [] { zunf_stream_parser_content_part_is_valid(nullptr, 0); }},
        {"is_valid(-1)", [&] { zunf_stream_parser_content_part_is_valid(&done, -1); }},
        {"is_valid(20)", [&] { zunf_stream_parser_content_part_is_valid(&done, 20); }},
    };
    for (const auto &[name, misuse] : misuses) {
        SCOPED_TRACE(name);
        // The assertion goes to the console, descriptor 1, moved to stderr for the check.
        EXPECT_DEATH(
            {
                ::dup2(2, 1);
                misuse();
            },
            "Panic: \\*\\*\\* ASSERT in zunf_stream_parser at [0-9]+");
    }
    // The last slot is still a valid question.
    EXPECT_EQ(zunf_stream_parser_content_part_is_valid(&done, 19), 0);
}

} // namespace
