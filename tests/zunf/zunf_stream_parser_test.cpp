// The stream parser must give the same answer however the image is cut into chunks, must
// never look at bytes it has not been told about, and must reject hostile images with a
// result instead of reading or storing out of bounds.
#include "zunf/zunf_stream_parser.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
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

constexpr std::uint8_t NOT_YET_RECEIVED = 0xA5;

// A caller's buffer whose bytes beyond what has been announced to the parser are garbage
// and, under AddressSanitizer, unreadable: a read ahead of `available` either trips the
// sanitizer or changes a CRC and thereby the outcome.
class ArrivalBuffer {
  public:
    explicit ArrivalBuffer(std::size_t size)
        : bytes_(std::max<std::size_t>(size, 1), NOT_YET_RECEIVED) {
        fence(0);
    }
    ~ArrivalBuffer() { unfence(); }
    ArrivalBuffer(const ArrivalBuffer &) = delete;
    ArrivalBuffer &operator=(const ArrivalBuffer &) = delete;

    std::uint8_t *data() { return bytes_.data(); }
    // Places image bytes [from, from + n) at the same offset; only they become readable.
    void arrive(const Bytes &image, std::size_t from, std::size_t n) {
        unfence();
        std::copy_n(image.begin() + static_cast<std::ptrdiff_t>(from), n,
                    bytes_.begin() + static_cast<std::ptrdiff_t>(from));
        fence(from + n);
    }

  private:
    void fence([[maybe_unused]] std::size_t readable) {
#if defined(__SANITIZE_ADDRESS__)
        fenced_ = readable;
        __asan_poison_memory_region(bytes_.data() + readable, bytes_.size() - readable);
#endif
    }
    void unfence() {
#if defined(__SANITIZE_ADDRESS__)
        __asan_unpoison_memory_region(bytes_.data() + fenced_, bytes_.size() - fenced_);
#endif
    }

    Bytes bytes_;
    [[maybe_unused]] std::size_t fenced_ = 0;
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
    Outcome o;
    o.last = last;
    o.only_more_before_last = only_more;
    o.status = zunf_stream_parser_get_status(&p);
    o.found = zunf_stream_parser_get_found_content_parts(&p);
    o.valid = zunf_stream_parser_get_valid_content_parts(&p);
    o.invalid = p.invalid_content_parts;
    o.headers = zunf_stream_parser_get_found_content_part_headers(&p);
    const zunf_content_header *const *parts = zunf_stream_parser_content_parts(&p);
    for (std::size_t i = 0; i < ZUNF_MAX_PARTS; ++i) {
        o.slots[i] = parts[i] ? zunf_bytes(parts[i]) - buffer : -1;
        o.flags[i] = zunf_stream_parser_content_part_is_valid(&p, static_cast<int>(i));
    }
    return o;
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
    }
    int last = results.empty() ? 0 : results.back();
    bool only_more = results.empty() || std::all_of(results.begin(), results.end() - 1, [](int r) {
                         return r == ZUNF_SP_MORE || r == ZUNF_SP_HDR_OK;
                     });
    return observe(p, buf.data(), last, only_more);
}

// Header offsets of the parts of a well-formed image, in order.
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

zunf_image_header &image_header(Bytes &image) {
    return *reinterpret_cast<zunf_image_header *>(image.data() + ZUNF_MAGIC_LEN);
}

zunf_content_header &part_at(Bytes &image, std::size_t offset) {
    return *reinterpret_cast<zunf_content_header *>(image.data() + offset);
}

void reseal_part_header(zunf_content_header &h) {
    h.hdr_crc = crc32_calc(0, zunf_bytes(&h) + 4, h.hdr_length - 4u);
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

ImageBuilder parts_image(std::size_t n) {
    ImageBuilder b;
    for (std::size_t i = 0; i < n; ++i)
        b.add_data("p" + std::to_string(i), text(std::string(i % 5, 'q')));
    return b;
}

struct Case {
    const char *name;
    Bytes image;
    int last;
    std::int32_t status;
    std::int32_t found, valid, invalid, headers;
    std::vector<int> flags; // valid flags of the first parts; the rest must be 0
};

std::vector<Case> cases() {
    std::vector<Case> c;
    c.push_back({"release image",
                 release_image().build(),
                 ZUNF_SP_COMPLETE,
                 ZUNF_SP_DONE,
                 5,
                 5,
                 0,
                 5,
                 {1, 1, 1, 1, 1}});
    c.push_back({"single empty part",
                 ImageBuilder().add_data("e", {}).build(),
                 ZUNF_SP_COMPLETE,
                 ZUNF_SP_DONE,
                 1,
                 1,
                 0,
                 1,
                 {1}});
    c.push_back({"twenty parts", parts_image(20).build(), ZUNF_SP_COMPLETE, ZUNF_SP_DONE, 20, 20, 0,
                 20, std::vector<int>(20, 1)});
    c.push_back({"body crc of part 2 fails",
                 release_image().fault_part_body_crc(2).build(),
                 ZUNF_SP_COMPLETE,
                 ZUNF_SP_DONE,
                 5,
                 4,
                 1,
                 5,
                 {1, 1, -1, 1, 1}});
    c.push_back({"bad magic first half",
                 release_image().fault_bad_magic(1).build(),
                 ZUNF_SP_ERR_MAGIC,
                 ZUNF_SP_FAILED,
                 0,
                 0,
                 0,
                 0,
                 {}});
    c.push_back({"bad magic second half",
                 release_image().fault_bad_magic(2).build(),
                 ZUNF_SP_ERR_MAGIC,
                 ZUNF_SP_FAILED,
                 0,
                 0,
                 0,
                 0,
                 {}});
    Bytes swapped = release_image().build();
    std::copy_n(ZUNF_MAGIC + 4, 4, swapped.begin());
    c.push_back(
        {"second half of magic first", swapped, ZUNF_SP_ERR_MAGIC, ZUNF_SP_FAILED, 0, 0, 0, 0, {}});
    c.push_back({"version 2",
                 release_image().fault_version(2).build(),
                 ZUNF_SP_ERR_VERSION,
                 ZUNF_SP_FAILED,
                 0,
                 0,
                 0,
                 0,
                 {}});
    c.push_back({"part hdr_length 31",
                 release_image().fault_part_hdr_length(1, 31).build(),
                 ZUNF_SP_ERR_PART_HDR_LENGTH,
                 ZUNF_SP_FAILED,
                 1,
                 1,
                 0,
                 1,
                 {1}});
    c.push_back({"part hdr_length 0",
                 release_image().fault_part_hdr_length(0, 0).build(),
                 ZUNF_SP_ERR_PART_HDR_LENGTH,
                 ZUNF_SP_FAILED,
                 0,
                 0,
                 0,
                 0,
                 {}});
    c.push_back({"part 3 header crc",
                 release_image().fault_part_hdr_crc(3).build(),
                 ZUNF_SP_ERR_PART_HDR_CRC,
                 ZUNF_SP_FAILED,
                 3,
                 3,
                 0,
                 3,
                 {1, 1, 1}});

    // The parts run 4 bytes past what the image header says the body holds.
    Bytes overrun = release_image().build();
    image_header(overrun).body_length = image_header(overrun).body_length - 4u;
    c.push_back({"parts overrun the image by 4",
                 overrun,
                 ZUNF_SP_ERR_OVERRUN,
                 ZUNF_SP_FAILED,
                 5,
                 5,
                 0,
                 5,
                 {1, 1, 1, 1, 1}});

    // The last body (3 bytes) lacks its padding byte: the image can never complete.
    Bytes unpadded = release_image().build();
    unpadded.pop_back();
    c.push_back(
        {"last padding missing", unpadded, ZUNF_SP_MORE, ZUNF_SP_PARTS, 4, 4, 0, 5, {1, 1, 1, 1}});

    c.push_back({"twenty-one parts", parts_image(21).build(), ZUNF_SP_ERR_TOO_MANY_PARTS,
                 ZUNF_SP_FAILED, 20, 20, 0, 20, std::vector<int>(20, 1)});

    // Image end beyond 4 GiB: held at the largest offset, the parts parse, the image waits.
    Bytes huge_image = release_image().build();
    image_header(huge_image).body_length = 0xFFFFFFFFu;
    c.push_back({"image body_length 4 GiB",
                 huge_image,
                 ZUNF_SP_MORE,
                 ZUNF_SP_PARTS,
                 5,
                 5,
                 0,
                 5,
                 {1, 1, 1, 1, 1}});

    // A part claiming a body that cannot be padded in 32 bits must simply wait for it.
    Bytes huge_part = release_image().build();
    {
        auto offs = part_offsets(huge_part, 5);
        zunf_content_header &h = part_at(huge_part, static_cast<std::size_t>(offs[1]));
        h.body_length = 0xFFFFFFFDu;
        reseal_part_header(h);
    }
    c.push_back(
        {"part body_length near 4 GiB", huge_part, ZUNF_SP_MORE, ZUNF_SP_PARTS, 1, 1, 0, 2, {1}});
    return c;
}

TEST(ZunfStreamParser, OutcomeOfEveryImageMatchesItsExpectation) {
    for (const Case &c : cases()) {
        SCOPED_TRACE(c.name);
        Outcome o = feed(c.image, c.image.size(), c.image.size());
        EXPECT_EQ(o.last, c.last);
        EXPECT_EQ(o.status, c.status);
        EXPECT_EQ(o.found, c.found);
        EXPECT_EQ(o.valid, c.valid);
        EXPECT_EQ(o.invalid, c.invalid);
        EXPECT_EQ(o.headers, c.headers);
        EXPECT_EQ(o.found, o.valid + o.invalid);
        for (std::size_t i = 0; i < ZUNF_MAX_PARTS; ++i) {
            int want = i < c.flags.size() ? c.flags[i] : 0;
            EXPECT_EQ(o.flags[i], want) << "part " << i;
            EXPECT_EQ(o.slots[i] >= 0, want != 0) << "part " << i;
        }
    }
}

TEST(ZunfStreamParser, PartSlotsPointAtThePartHeaders) {
    Bytes image = release_image().build();
    Outcome o = feed(image, image.size(), image.size());
    auto offs = part_offsets(image, 5);
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_EQ(o.slots[i], offs[i]);
}

TEST(ZunfStreamParser, EveryChunkSizeGivesTheSameOutcome) {
    for (const Case &c : cases()) {
        SCOPED_TRACE(c.name);
        Outcome whole = feed(c.image, c.image.size(), c.image.size());
        for (std::size_t step = 1; step <= c.image.size(); ++step) {
            Outcome o = feed(c.image, step, step);
            ASSERT_EQ(o, whole) << "chunks of " << step;
            EXPECT_TRUE(o.only_more_before_last) << "chunks of " << step;
        }
        // The reader's pattern: one first chunk of any size from 24, then the rest.
        for (std::size_t first = ZUNF_SP_HDR_BYTES; first <= c.image.size(); ++first)
            ASSERT_EQ(feed(c.image, first, c.image.size()), whole) << "first chunk " << first;
        // 24 bytes, then one byte at a time.
        ASSERT_EQ(feed(c.image, ZUNF_SP_HDR_BYTES, 1), whole);
    }
}

TEST(ZunfStreamParser, LargeBodyInAnyChunking) {
    Bytes content(3001);
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<std::uint8_t>(i * 7 + 3);
    Bytes image = ImageBuilder()
                      .add_release_header({1, 2, 3}, 5, "b", "t")
                      .add_software("big", {1, 2, 3}, "x", content)
                      .build();
    Outcome whole = feed(image, image.size(), image.size());
    ASSERT_EQ(whole.last, ZUNF_SP_COMPLETE);
    ASSERT_EQ(whole.valid, 2);
    for (std::size_t step : {1u, 2u, 3u, 4u, 5u, 31u, 32u, 33u, 64u, 77u, 1000u, 3000u})
        EXPECT_EQ(feed(image, step, step), whole) << "chunks of " << step;
}

// Feeds one byte at a time until the parser has accepted `headers` part headers.
std::size_t feed_until_headers(zunf_stream_parser &p, ArrivalBuffer &buf, const Bytes &image,
                               std::int32_t headers) {
    std::size_t held = ZUNF_SP_HDR_BYTES;
    buf.arrive(image, 0, held);
    EXPECT_EQ(zunf_stream_parser_hdr(&p, ZUNF_SP_HDR_BYTES), ZUNF_SP_HDR_OK);
    EXPECT_EQ(zunf_stream_parser_next(&p, 0), ZUNF_SP_MORE);
    while (p.found_content_part_headers < headers && held < image.size()) {
        buf.arrive(image, held, 1);
        ++held;
        EXPECT_EQ(zunf_stream_parser_next(&p, 1), ZUNF_SP_MORE);
    }
    EXPECT_EQ(p.part_state, ZUNF_SP_PART_BODY);
    return held;
}

TEST(ZunfStreamParser, SkipStepsOverTheBodyAndFeedingResumesBehindIt) {
    Bytes image = release_image().build();
    auto offs = part_offsets(image, 5);
    ArrivalBuffer buf(image.size());
    zunf_stream_parser p;
    zunf_stream_parser_init(&p, buf.data());
    feed_until_headers(p, buf, image, 3); // header of part 2, the rootfs software part

    std::uint32_t resume = zunf_stream_parser_skip(&p);
    EXPECT_EQ(resume, offs[3]);
    EXPECT_EQ(p.available, resume);
    EXPECT_EQ(p.part_state, ZUNF_SP_PART_START);
    EXPECT_EQ(p.index, 3u);
    EXPECT_EQ(zunf_stream_parser_get_status(&p), ZUNF_SP_PARTS);

    // Nothing new: 2 and nothing changes.
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
    EXPECT_EQ(o.headers, 5);
    EXPECT_EQ(o.slots[2], -1);
    EXPECT_EQ(o.flags[2], 0);
    EXPECT_EQ(o.slots[3], offs[3]);
    EXPECT_EQ(o.slots[4], offs[4]);
}

TEST(ZunfStreamParser, SkipOfTheLastPartCompletesTheImage) {
    Bytes image = release_image().build();
    ArrivalBuffer buf(image.size());
    zunf_stream_parser p;
    zunf_stream_parser_init(&p, buf.data());
    feed_until_headers(p, buf, image, 5);
    EXPECT_EQ(zunf_stream_parser_skip(&p), image.size());
    EXPECT_EQ(zunf_stream_parser_get_status(&p), ZUNF_SP_DONE);
    EXPECT_EQ(p.part_state, ZUNF_SP_PART_IMAGE_END);
    EXPECT_EQ(zunf_stream_parser_get_found_content_parts(&p), 5);
    EXPECT_EQ(zunf_stream_parser_get_valid_content_parts(&p), 4);
    EXPECT_EQ(zunf_stream_parser_content_parts(&p)[4], nullptr);
}

TEST(ZunfStreamParser, SkipOfTheTwentiethPartShortOfTheEndRejectsTheImage) {
    Bytes image = parts_image(21).build();
    auto offs = part_offsets(image, 21);
    ArrivalBuffer buf(image.size());
    zunf_stream_parser p;
    zunf_stream_parser_init(&p, buf.data());
    feed_until_headers(p, buf, image, 20);
    EXPECT_EQ(zunf_stream_parser_skip(&p), offs[20]);
    EXPECT_EQ(zunf_stream_parser_get_status(&p), ZUNF_SP_FAILED);
    EXPECT_EQ(zunf_stream_parser_get_found_content_parts(&p), 20);
}

TEST(ZunfStreamParser, SkipOfABodyPastTheImageEndRejectsTheImage) {
    struct Variant {
        const char *name;
        void (*patch)(Bytes &);
    };
    const Variant variants[] = {
        {"image body 4 bytes short",
         [](Bytes &img) { image_header(img).body_length = image_header(img).body_length - 4u; }},
        {"last body near 4 GiB",
         [](Bytes &img) {
             auto offs = part_offsets(img, 5);
             zunf_content_header &h = part_at(img, static_cast<std::size_t>(offs[4]));
             h.body_length = 0xFFFFFFFDu;
             reseal_part_header(h);
         }},
    };
    for (const Variant &v : variants) {
        SCOPED_TRACE(v.name);
        Bytes image = release_image().build();
        v.patch(image);
        ArrivalBuffer buf(image.size());
        zunf_stream_parser p;
        zunf_stream_parser_init(&p, buf.data());
        feed_until_headers(p, buf, image, 5);
        std::uint32_t at = p.offset;
        EXPECT_EQ(zunf_stream_parser_skip(&p), at);
        EXPECT_EQ(zunf_stream_parser_get_status(&p), ZUNF_SP_FAILED);
        EXPECT_EQ(p.offset, at);
        EXPECT_EQ(zunf_stream_parser_get_found_content_parts(&p), 4);
    }
}

TEST(ZunfStreamParser, NextWithNothingNewChangesNothing) {
    Bytes image = release_image().build();
    const std::size_t helds[] = {24, 50, 130, image.size() - 1};
    for (std::size_t held : helds) {
        SCOPED_TRACE(held);
        ArrivalBuffer buf(image.size());
        zunf_stream_parser p;
        zunf_stream_parser_init(&p, buf.data());
        buf.arrive(image, 0, held);
        ASSERT_EQ(zunf_stream_parser_hdr(&p, ZUNF_SP_HDR_BYTES), ZUNF_SP_HDR_OK);
        ASSERT_EQ(zunf_stream_parser_next(&p, static_cast<std::uint32_t>(held - 24)), ZUNF_SP_MORE);
        zunf_stream_parser before = p;
        EXPECT_EQ(zunf_stream_parser_next(&p, 0), ZUNF_SP_MORE);
        EXPECT_TRUE(same_record(before, p));
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
    zunf_stream_parser dirty;
    std::memset(static_cast<void *>(&dirty), 0x5A, sizeof dirty);
    ASSERT_EQ(zunf_stream_parser_init(&dirty, buffer), &dirty);

    std::unique_ptr<zunf_stream_parser, zunf_stream_parser_deleter> fresh(
        zunf_stream_parser_init(nullptr, buffer));
    ASSERT_NE(fresh, nullptr);
    const zunf_stream_parser *records[] = {&dirty, fresh.get()};
    for (const zunf_stream_parser *p : records) {
        EXPECT_EQ(p->status, ZUNF_SP_INIT);
        EXPECT_EQ(p->buffer, buffer);
        EXPECT_EQ(p->header, nullptr);
        EXPECT_EQ(p->current, nullptr);
        EXPECT_EQ(p->offset | p->index | p->available | p->end_offset | p->part_state, 0u);
        EXPECT_EQ(p->found_content_parts | p->valid_content_parts | p->invalid_content_parts |
                      p->found_content_part_headers,
                  0);
        for (std::size_t i = 0; i < ZUNF_MAX_PARTS; ++i) {
            EXPECT_EQ(p->content_parts[i], nullptr);
            EXPECT_EQ(p->info[i].valid | p->info[i].covered_by_signature |
                          p->info[i].validated_by_signature,
                      0);
        }
    }
}

// Misuse by a caller ends the process with the module's assertion on the console
// (descriptor 1, moved to stderr here so the death test can read it).
#define EXPECT_PARSER_ASSERT(statement)                                                            \
    EXPECT_DEATH(                                                                                  \
        {                                                                                          \
            ::dup2(2, 1);                                                                          \
            statement;                                                                             \
        },                                                                                         \
        "Panic: \\*\\*\\* ASSERT in zunf_stream_parser at [0-9]+")

TEST(ZunfStreamParserDeathTest, MisuseIsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Bytes image = release_image().build();
    Bytes buffer = image;
    zunf_stream_parser fresh;
    zunf_stream_parser_init(&fresh, buffer.data());
    zunf_stream_parser parsing = fresh;
    ASSERT_EQ(zunf_stream_parser_hdr(&parsing, 24), ZUNF_SP_HDR_OK);
    zunf_stream_parser done = parsing;
    ASSERT_EQ(zunf_stream_parser_next(&done, static_cast<std::uint32_t>(image.size() - 24)),
              ZUNF_SP_COMPLETE);
    zunf_stream_parser failed = fresh;
    buffer[0] = 'x';
    ASSERT_EQ(zunf_stream_parser_hdr(&failed, 24), ZUNF_SP_ERR_MAGIC);

    EXPECT_PARSER_ASSERT(zunf_stream_parser_init(nullptr, nullptr));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_hdr(nullptr, 24));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_hdr(&fresh, 23));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_hdr(&parsing, 24));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_next(nullptr, 0));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_next(&fresh, 0));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_next(&done, 0));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_next(&failed, 0));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_skip(nullptr));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_skip(&fresh));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_skip(&parsing)); // part_state 0, no header yet
    EXPECT_PARSER_ASSERT(zunf_stream_parser_skip(&done));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_get_status(nullptr));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_content_parts(nullptr));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_get_found_content_parts(nullptr));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_get_valid_content_parts(nullptr));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_get_found_content_part_headers(nullptr));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_content_part_is_valid(nullptr, 0));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_content_part_is_valid(&done, -1));
    EXPECT_PARSER_ASSERT(zunf_stream_parser_content_part_is_valid(&done, 20));
    // The last slot is still a valid question.
    EXPECT_EQ(zunf_stream_parser_content_part_is_valid(&done, 19), 0);
}

} // namespace
