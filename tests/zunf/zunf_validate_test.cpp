// Image and content part validation: every result code, the order of the checks, what
// each CRC covers, and the assertions on null pointers.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <unistd.h>

#include "mkzunf/zunf_builder.hpp"
#include "zunf/zunf_validate.hpp"

using namespace mkzunf;

namespace {

// Bit by bit from the polynomial, so that a CRC fault in the product cannot hide here.
std::uint32_t crc(const std::uint8_t *p, std::size_t n) {
    std::uint32_t c = 0xFFFFFFFFu;
    for (std::size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k)
            c = (c & 1u) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
    }
    return ~c;
}

// A 16-byte image header, finished by hand: body CRC first, then the header CRC over
// bytes 4..hdr_length-1 of the header bytes given.
struct RawImageHeader {
    std::uint8_t bytes[64] = {};

    zunf_image_header *hdr() { return reinterpret_cast<zunf_image_header *>(bytes); }
    void seal(std::size_t crc_len) { hdr()->hdr_crc = crc(bytes + 4, crc_len - 4); }
};

RawImageHeader image_header(std::uint8_t version, std::uint16_t hdr_length) {
    RawImageHeader h;
    h.hdr()->version = version;
    h.hdr()->hdr_length = hdr_length;
    h.hdr()->body_length = 0;
    h.hdr()->body_crc = 0;
    h.seal(hdr_length >= 16 ? hdr_length : 16);
    return h;
}

TEST(ZunfValidateHeader, ResultCodesInCheckOrder) {
    struct Case {
        const char *name;
        std::uint8_t version;
        std::uint16_t hdr_length;
        bool break_crc;
        int expect;
    };
    const Case cases[] = {
        {"valid", 1, 16, false, ZUNF_VALID},
        {"longer header, CRC over all of it", 1, 40, false, ZUNF_VALID},
        {"version 2 with a right CRC", 2, 16, false, ZUNF_ERR_VERSION},
        {"version 0", 0, 16, false, ZUNF_ERR_VERSION},
        {"version before length", 2, 15, true, ZUNF_ERR_VERSION},
        {"hdr_length 15", 1, 15, false, ZUNF_ERR_HDR_LENGTH},
        {"hdr_length 15, CRC never computed", 1, 15, true, ZUNF_ERR_HDR_LENGTH},
        {"hdr_length 0", 1, 0, true, ZUNF_ERR_HDR_LENGTH},
        {"wrong CRC", 1, 16, true, ZUNF_ERR_HDR_CRC},
        {"wrong CRC, long header", 1, 40, true, ZUNF_ERR_HDR_CRC},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        RawImageHeader h = image_header(c.version, c.hdr_length);
        if (c.break_crc) h.hdr()->hdr_crc = ~h.hdr()->hdr_crc.get();
        EXPECT_EQ(zunf_validate_header(h.hdr()), c.expect);
    }
}

TEST(ZunfValidateHeader, CrcCoversEveryHeaderByteAfterItself) {
    RawImageHeader h = image_header(1, 16);
    h.hdr()->body_length = 100;
    h.hdr()->body_crc = 0x12345678;
    h.seal(16);
    ASSERT_EQ(zunf_validate_header(h.hdr()), ZUNF_VALID);
    // Byte 4 is the version and bytes 6..7 the length, which fail their own checks first;
    // byte 5 is reserved: not interpreted, but covered.
    for (std::size_t i : {5u, 8u, 11u, 12u, 15u}) {
        RawImageHeader changed = h;
        changed.bytes[i] ^= 0x01;
        EXPECT_EQ(zunf_validate_header(changed.hdr()), ZUNF_ERR_HDR_CRC) << "byte " << i;
    }
    RawImageHeader past = h;
    past.bytes[16] = 0xAA; // beyond hdr_length: not covered
    EXPECT_EQ(zunf_validate_header(past.hdr()), ZUNF_VALID);
}

TEST(ZunfValidateBody, ComparesTheCrcOfBodyLengthBytes) {
    Bytes body = {1, 2, 3, 4, 5, 6, 7};
    RawImageHeader h = image_header(1, 16);
    h.hdr()->body_length = 5;
    h.hdr()->body_crc = crc(body.data(), 5);
    EXPECT_EQ(zunf_validate_body(h.hdr(), body.data()), ZUNF_VALID);
    body[5] = 0xFF; // past body_length
    EXPECT_EQ(zunf_validate_body(h.hdr(), body.data()), ZUNF_VALID);
    body[4] = 0xFF;
    EXPECT_EQ(zunf_validate_body(h.hdr(), body.data()), ZUNF_ERR_BODY_CRC);

    h.hdr()->body_length = 0;
    h.hdr()->body_crc = 0;
    EXPECT_EQ(zunf_validate_body(h.hdr(), body.data()), ZUNF_VALID) << "empty body, CRC 0";
    h.hdr()->body_crc = 1;
    EXPECT_EQ(zunf_validate_body(h.hdr(), body.data()), ZUNF_ERR_BODY_CRC);
}

// A content part laid out by hand: common header, type_extra bytes, body.
struct RawPart {
    Bytes bytes;
    zunf_content_header *hdr() { return reinterpret_cast<zunf_content_header *>(bytes.data()); }
    std::uint8_t *body() { return bytes.data() + hdr()->hdr_length; }
};

RawPart raw_part(std::uint16_t hdr_length, std::string_view body_text) {
    RawPart p;
    std::size_t hl = hdr_length < 32 ? 32 : hdr_length;
    p.bytes.assign(hl + body_text.size(), 0);
    std::copy(body_text.begin(), body_text.end(),
              p.bytes.begin() + static_cast<std::ptrdiff_t>(hl));
    p.hdr()->type_id = ZUNF_TYPE_DATA;
    p.hdr()->hdr_length = hdr_length;
    p.hdr()->body_length = static_cast<std::uint32_t>(body_text.size());
    p.bytes[12] = 'x';
    p.hdr()->body_crc = body_text.empty() ? 0 : crc(p.bytes.data() + hl, body_text.size());
    if (hdr_length >= 4) p.hdr()->hdr_crc = crc(p.bytes.data() + 4, hdr_length - 4u);
    return p;
}

TEST(ZunfValidateContent, HeaderResultCodes) {
    struct Case {
        const char *name;
        std::uint16_t hdr_length;
        bool break_crc;
        int expect;
    };
    const Case cases[] = {
        {"32, right CRC", 32, false, ZUNF_VALID},
        {"64, right CRC", 64, false, ZUNF_VALID},
        {"31, right CRC over 31", 31, false, ZUNF_ERR_HDR_LENGTH},
        {"31, wrong CRC", 31, true, ZUNF_ERR_HDR_LENGTH},
        {"0", 0, true, ZUNF_ERR_HDR_LENGTH},
        {"32, wrong CRC", 32, true, ZUNF_ERR_HDR_CRC},
        {"64, wrong CRC", 64, true, ZUNF_ERR_HDR_CRC},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        RawPart p = raw_part(c.hdr_length, "body");
        if (c.break_crc) p.hdr()->hdr_crc = ~p.hdr()->hdr_crc.get();
        EXPECT_EQ(zunf_validate_content_header(p.hdr()), c.expect);
    }
}

TEST(ZunfValidateContent, HeaderCrcCoversTheTypeHeaderAndBodyCrc) {
    RawPart p = raw_part(64, "body");
    ASSERT_EQ(zunf_validate_content_header(p.hdr()), ZUNF_VALID);
    for (std::size_t i : {4u, 8u, 12u, 27u, 28u, 31u, 32u, 63u}) {
        RawPart changed = p;
        changed.bytes[i] ^= 0x10;
        EXPECT_EQ(zunf_validate_content_header(changed.hdr()), ZUNF_ERR_HDR_CRC) << "byte " << i;
    }
    RawPart body_changed = p;
    body_changed.bytes[64] ^= 0x10;
    EXPECT_EQ(zunf_validate_content_header(body_changed.hdr()), ZUNF_VALID);
    EXPECT_EQ(zunf_validate_content_body(body_changed.hdr(), body_changed.body()),
              ZUNF_ERR_BODY_CRC);
}

TEST(ZunfValidateContent, BodyAndPartResults) {
    RawPart p = raw_part(32, "hello");
    EXPECT_EQ(zunf_validate_content_body(p.hdr(), p.body()), ZUNF_VALID);
    EXPECT_EQ(zunf_validate_content_part(p.hdr(), p.body()), ZUNF_VALID);

    RawPart empty = raw_part(32, "");
    EXPECT_EQ(empty.hdr()->body_crc, 0u);
    EXPECT_EQ(zunf_validate_content_part(empty.hdr(), empty.body()), ZUNF_VALID)
        << "empty body with stored CRC 0";
    empty.hdr()->body_crc = 0xFFFFFFFFu;
    empty.hdr()->hdr_crc = crc(empty.bytes.data() + 4, 28);
    EXPECT_EQ(zunf_validate_content_part(empty.hdr(), empty.body()), ZUNF_ERR_BODY_CRC);

    RawPart bad_body = raw_part(32, "hello");
    bad_body.body()[0] = 'j';
    EXPECT_EQ(zunf_validate_content_part(bad_body.hdr(), bad_body.body()), ZUNF_ERR_BODY_CRC);

    RawPart both = bad_body;
    both.hdr()->hdr_crc = ~both.hdr()->hdr_crc.get();
    EXPECT_EQ(zunf_validate_content_part(both.hdr(), both.body()), ZUNF_ERR_HDR_CRC)
        << "the header result comes first";
    RawPart short_hdr = raw_part(31, "hello");
    EXPECT_EQ(zunf_validate_content_part(short_hdr.hdr(), short_hdr.bytes.data() + 32),
              ZUNF_ERR_HDR_LENGTH);
}

TEST(ZunfValidateContent, BodyIsTakenWhereTheCallerPointsIt) {
    // The software block in a partition describes the content at the partition start.
    Bytes content = to_bytes("partition content");
    Bytes partition = build_partition(3, "ROOT-SAFE", {1, 2, 3}, "id", content);
    const auto *block = reinterpret_cast<const zunf_content_header *>(partition.data() + 20);
    EXPECT_EQ(zunf_validate_content_part(block, partition.data()), ZUNF_VALID);
    EXPECT_EQ(zunf_validate_content_part(block, partition.data() + 1), ZUNF_ERR_BODY_CRC);
}

// Walks a built image the way the hostconfig loader does.
std::vector<int> part_results(const Bytes &img) {
    std::vector<int> r;
    const auto *ih = reinterpret_cast<const zunf_image_header *>(img.data() + 8);
    std::size_t off = 24;
    std::size_t end = 24 + ih->body_length;
    while (off < end) {
        const auto *p = reinterpret_cast<const zunf_content_header *>(img.data() + off);
        r.push_back(zunf_validate_content_part(p, img.data() + off + p->hdr_length));
        off += zunf_pad4(p->hdr_length + p->body_length);
    }
    return r;
}

TEST(ZunfValidateImage, PaddingIsCoveredByTheImageBodyOnly) {
    ImageBuilder b;
    b.add_data("first", to_bytes("12345")).add_data("second", to_bytes("abc"));
    Bytes img = b.build();
    const auto *ih = reinterpret_cast<const zunf_image_header *>(img.data() + 8);
    ASSERT_EQ(zunf_validate_body(ih, img.data() + 24), ZUNF_VALID);
    ASSERT_EQ(part_results(img), std::vector<int>(2, ZUNF_VALID));

    const std::size_t padding = 24 + 32 + 5; // three zero bytes after "12345"
    for (std::size_t i = padding; i < padding + 3; ++i) {
        Bytes changed = img;
        changed[i] = 0xEE;
        const auto *ch = reinterpret_cast<const zunf_image_header *>(changed.data() + 8);
        EXPECT_EQ(zunf_validate_header(ch), ZUNF_VALID);
        EXPECT_EQ(zunf_validate_body(ch, changed.data() + 24), ZUNF_ERR_BODY_CRC) << i;
        EXPECT_EQ(part_results(changed), std::vector<int>(2, ZUNF_VALID)) << i;
    }
}

TEST(ZunfValidateImage, LongNameIsStoredCutTo15Characters) {
    ImageBuilder b;
    b.add_data("0123456789ABCDEFGHIJ", to_bytes("x")).add_data("exactly16chars!!", to_bytes("y"));
    Bytes img = b.build();
    const auto *first = reinterpret_cast<const zunf_content_header *>(img.data() + 24);
    EXPECT_EQ(std::string(first->name, 16), std::string("0123456789ABCDE") + '\0');
    const auto *second = reinterpret_cast<const zunf_content_header *>(img.data() + 24 + 36);
    EXPECT_EQ(std::string(second->name, 16), std::string("exactly16chars!") + '\0');
    EXPECT_EQ(part_results(img), std::vector<int>(2, ZUNF_VALID));
}

TEST(ZunfValidateImage, ValidationLeavesTheImageUnchanged) {
    ImageBuilder b;
    b.add_data("a", to_bytes("abcdef")).fault_part_body_crc(0);
    const Bytes img = b.build();
    Bytes copy = img;
    const auto *ih = reinterpret_cast<const zunf_image_header *>(copy.data() + 8);
    zunf_validate_header(ih);
    zunf_validate_body(ih, copy.data() + 24);
    EXPECT_EQ(part_results(copy), std::vector<int>{ZUNF_ERR_BODY_CRC});
    EXPECT_EQ(copy, img);
}

void console_to_stderr() {
    ::dup2(2, 1);
}

TEST(ZunfValidateDeathTest, NullPointersAreAssertions) {
    const char *panic = "^Panic: \\*\\*\\* ASSERT in zunf_validate at [0-9]+\n$";
    RawPart p = raw_part(32, "x");
    EXPECT_EXIT(
        {
            console_to_stderr();
            zunf_validate_header(nullptr);
        },
        testing::KilledBySignal(SIGABRT), panic);
    EXPECT_EXIT(
        {
            console_to_stderr();
            zunf_validate_content_header(nullptr);
        },
        testing::KilledBySignal(SIGABRT), panic);
    EXPECT_EXIT(
        {
            console_to_stderr();
            zunf_validate_content_body(p.hdr(), nullptr);
        },
        testing::KilledBySignal(SIGABRT), panic);
    EXPECT_EXIT(
        {
            console_to_stderr();
            zunf_validate_content_part(nullptr, p.body());
        },
        testing::KilledBySignal(SIGABRT), panic);
}

} // namespace
